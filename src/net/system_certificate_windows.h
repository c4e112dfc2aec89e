// Certificates of the Windows system certificate stores, for the TLS credentials.
//
// CertificateContext owns one reference to a certificate context and frees it on destruction;
// findCertificate opens a system store, searches it and closes it again before returning, so
// the context it hands out lives on its own. A store name means the local machine's store of
// that name (where a service running as LocalSystem finds what an administrator imported into
// Cert:\LocalMachine); "CurrentUser\NAME" names the current account's store instead, and
// "LocalMachine\NAME" says the default explicitly. Windows build only. A CertificateContext is
// used by one thread; findCertificate keeps no state and may run on any thread.
#pragma once

#include <windows.h>
// The certificate API needs windows.h first (WIN32_LEAN_AND_MEAN leaves it out).
#include <wincrypt.h>

#include <string>

namespace vantrelo::net::tls {

class CertificateContext {
 public:
  CertificateContext() = default;
  explicit CertificateContext(PCCERT_CONTEXT context) : context_(context) {}
  ~CertificateContext() { reset(); }
  CertificateContext(CertificateContext&& other) noexcept : context_(other.context_) {
    other.context_ = nullptr;
  }
  CertificateContext& operator=(CertificateContext&& other) noexcept {
    if (this != &other) {
      reset();
      context_ = other.context_;
      other.context_ = nullptr;
    }
    return *this;
  }
  CertificateContext(const CertificateContext&) = delete;
  CertificateContext& operator=(const CertificateContext&) = delete;

  PCCERT_CONTEXT get() const { return context_; }
  explicit operator bool() const { return context_ != nullptr; }
  void reset() {
    if (context_ != nullptr) CertFreeCertificateContext(context_);
    context_ = nullptr;
  }

 private:
  PCCERT_CONTEXT context_ = nullptr;
};

// A store name taken apart: the CertOpenStore location flag and the store's own name.
struct StoreLocation {
  DWORD location;
  std::wstring name;
};
StoreLocation parseStoreName(const std::string& store);

// The certificate of system store `store` whose SHA-1 thumbprint is `thumbprint` (hexadecimal)
// or, when the thumbprint is empty, one whose subject contains `subject`, has a private key and
// is within its validity period; of several, the one valid longest. A store that does not
// exist is an error, not an empty store. Throws TlsError "CertOpenStore(<store>) failed: ...",
// "Parse certficate thumbprint '...' failed: ..." or "Certficate with thumbprint|subject '...'
// not found in store <store>" (for a subject, with the number of matches passed over).
CertificateContext findCertificate(const std::string& store, const std::string& subject,
                                   const std::string& thumbprint);

// Verifies a TLS client's certificate: its chain to a root the system trusts, its time
// validity and its use for client authentication, by the system's SSL chain policy. Revocation
// is not checked: a relay often has no way to the revocation lists. Throws TlsError
// "CertGetCertificateChain() failed: ..." or "CertVerifyCertificateChainPolicy() failed: ...".
void verifyClientCertificateChain(PCCERT_CONTEXT certificate);

}  // namespace vantrelo::net::tls
