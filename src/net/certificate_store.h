// A certificate store on platforms without a system store: a directory of PEM files.
//
// Every regular file whose name does not end in ".key" is read; its first certificate is the
// entry and any further certificates are the entry's chain. The private key is taken from the
// same file or, failing that, from a file of the same name with the extension replaced by (or,
// without an extension, extended by) ".key". Files that hold no certificate are skipped, so a
// store may also hold other material. Entries keep the files' sorted name order.
//
// Selection: a thumbprint (the SHA-1 hash of the DER form, hexadecimal, any case) wins over a
// subject; a subject matches when the certificate's subject in RFC 2253 text
// ("CN=server,O=Example,C=DE") contains it, compared without regard to case.
//
// Ownership: the store owns its certificates and keys; pointers it hands out live as long as
// the store. Immutable after loading, so concurrent reads are safe.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

namespace vantrelo::net::tls {

struct X509Deleter {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using X509Ptr = std::unique_ptr<X509, X509Deleter>;
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyDeleter>;

struct StoreEntry {
  std::string file;
  X509Ptr certificate;
  KeyPtr key;  // null when no matching private key was found
  std::vector<X509Ptr> chain;
  std::string subject;     // RFC 2253 text
  std::string thumbprint;  // SHA-1 of the DER form, upper-case hexadecimal
};

class CertificateStore {
 public:
  // Loads every file of `directory` (the current directory when empty). Throws TlsError
  // "CertOpenSystemStore(" directory ") failed: " and the reason when it cannot be listed.
  explicit CertificateStore(const std::string& directory);

  // The certificate chosen by thumbprint or subject; it must have its private key. Throws
  // TlsError with the thumbprint's parse error or the "not found in store" message.
  const StoreEntry& find(const std::string& subject, const std::string& thumbprint) const;
  // The first entry usable as a client certificate: a private key that matches it, inside its
  // validity period and allowed for client authentication. Null when there is none.
  const StoreEntry* firstClientCertificate() const;
  // Adds the store's CA certificates (basic constraints CA:TRUE) to a trust store.
  void addAuthorities(X509_STORE* trust) const;
  // Puts an entry's certificate, key and chain into a context.
  static bool use(SSL_CTX* context, const StoreEntry& entry);

  const std::vector<StoreEntry>& entries() const { return entries_; }

 private:
  std::string directory_;
  std::vector<StoreEntry> entries_;
};

}  // namespace vantrelo::net::tls
