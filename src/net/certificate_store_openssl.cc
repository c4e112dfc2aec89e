#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

#include "encoding/text_encoding.h"
#include "net/certificate_store.h"
#include "net/tls_socket.h"

namespace vantrelo::net::tls {

namespace {

constexpr const char* kKeyExtension = ".key";
constexpr unsigned kSha1Length = 20;

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioDeleter>;

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string lowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string subjectText(X509* certificate) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
  char* data = nullptr;
  long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

std::string thumbprintText(X509* certificate) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  X509_digest(certificate, EVP_sha1(), digest, &length);
  std::string text;
  encoding::hex::hexEncode(text, digest, length);
  return text;
}

// Reads every certificate of a PEM file, and its private key when the file holds one.
void readPem(const std::filesystem::path& path, std::vector<X509Ptr>& certificates, KeyPtr& key) {
  BioPtr bio(BIO_new_file(path.string().c_str(), "r"));
  if (!bio) return;
  while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    certificates.emplace_back(certificate);
  }
  ERR_clear_error();
  BioPtr keyBio(BIO_new_file(path.string().c_str(), "r"));
  if (keyBio) key.reset(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr));
  ERR_clear_error();
}

KeyPtr readKeyBeside(const std::filesystem::path& path) {
  std::vector<std::filesystem::path> candidates;
  if (path.has_extension())
    candidates.push_back(std::filesystem::path(path).replace_extension(kKeyExtension));
  candidates.push_back(path.string() + kKeyExtension);
  for (const auto& candidate : candidates) {
    std::vector<X509Ptr> ignored;
    KeyPtr key;
    readPem(candidate, ignored, key);
    if (key) return key;
  }
  return nullptr;
}

}  // namespace

CertificateStore::CertificateStore(const std::string& directory)
    : directory_(directory.empty() ? "." : directory) {
  std::error_code error;
  std::vector<std::filesystem::path> files;
  for (std::filesystem::directory_iterator it(directory_, error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_regular_file() && !endsWith(it->path().filename().string(), kKeyExtension)) {
      files.push_back(it->path());
    }
  }
  if (error) {
    throw TlsError("CertOpenSystemStore(" + directory + ") failed: " + error.message());
  }
  std::sort(files.begin(), files.end());
  for (const auto& file : files) {
    std::vector<X509Ptr> certificates;
    KeyPtr key;
    readPem(file, certificates, key);
    if (certificates.empty()) continue;
    StoreEntry entry;
    entry.file = file.string();
    entry.certificate = std::move(certificates.front());
    for (size_t i = 1; i < certificates.size(); ++i)
      entry.chain.push_back(std::move(certificates[i]));
    if (!key) key = readKeyBeside(file);
    if (key && X509_check_private_key(entry.certificate.get(), key.get()) == 1) {
      entry.key = std::move(key);
    }
    ERR_clear_error();
    entry.subject = subjectText(entry.certificate.get());
    entry.thumbprint = thumbprintText(entry.certificate.get());
    entries_.push_back(std::move(entry));
  }
}

const StoreEntry& CertificateStore::find(const std::string& subject,
                                         const std::string& thumbprint) const {
  if (!thumbprint.empty()) {
    std::string digest;
    try {
      encoding::hex::hexDecode(digest, thumbprint.data(), thumbprint.size());
    } catch (const std::exception& e) {
      throw TlsError("Parse certficate thumbprint '" + thumbprint + "' failed: " + e.what());
    }
    std::string wanted;
    encoding::hex::hexEncode(wanted, reinterpret_cast<const uint8_t*>(digest.data()),
                             digest.size());
    for (const StoreEntry& entry : entries_) {
      if (digest.size() == kSha1Length && entry.thumbprint == wanted && entry.key) return entry;
    }
    throw TlsError("Certficate with thumbprint '" + thumbprint + "' not found in store " +
                   directory_);
  }
  const std::string wanted = lowerCase(subject);
  for (const StoreEntry& entry : entries_) {
    if (entry.key && lowerCase(entry.subject).find(wanted) != std::string::npos) return entry;
  }
  throw TlsError("Certficate with subject '" + subject + "' not found in store " + directory_);
}

const StoreEntry* CertificateStore::firstClientCertificate() const {
  for (const StoreEntry& entry : entries_) {
    X509* certificate = entry.certificate.get();
    if (!entry.key || X509_check_purpose(certificate, X509_PURPOSE_SSL_CLIENT, 0) != 1) continue;
    if (X509_cmp_current_time(X509_get0_notBefore(certificate)) >= 0) continue;
    if (X509_cmp_current_time(X509_get0_notAfter(certificate)) <= 0) continue;
    if (X509_check_ca(certificate) != 0) continue;
    return &entry;
  }
  return nullptr;
}

void CertificateStore::addAuthorities(X509_STORE* trust) const {
  for (const StoreEntry& entry : entries_) {
    if (X509_check_ca(entry.certificate.get()) != 0)
      X509_STORE_add_cert(trust, entry.certificate.get());
    for (const X509Ptr& extra : entry.chain) {
      if (X509_check_ca(extra.get()) != 0) X509_STORE_add_cert(trust, extra.get());
    }
  }
  ERR_clear_error();
}

bool CertificateStore::use(SSL_CTX* context, const StoreEntry& entry) {
  if (SSL_CTX_use_certificate(context, entry.certificate.get()) != 1) return false;
  if (SSL_CTX_use_PrivateKey(context, entry.key.get()) != 1) return false;
  for (const X509Ptr& extra : entry.chain) {
    if (SSL_CTX_add1_chain_cert(context, extra.get()) != 1) return false;
  }
  return true;
}

}  // namespace vantrelo::net::tls
