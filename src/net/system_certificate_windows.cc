#include "net/system_certificate_windows.h"

#include <string>

#include "base/error.h"
#include "encoding/text_encoding.h"
#include "net/tls_socket.h"

namespace vantrelo::net::tls {

namespace {

// X.509 ASN.1 and PKCS #7 ASN.1: the encodings a system store holds.
constexpr DWORD kCertificateEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
static_assert(kCertificateEncoding == 0x00010001);
// Search by SHA-1 hash, or by a substring of the subject in its UTF-16 text form.
constexpr DWORD kFindByHash = CERT_FIND_HASH;
constexpr DWORD kFindBySubject = CERT_FIND_SUBJECT_STR_W;
static_assert(kFindByHash == 0x00010000 && kFindBySubject == 0x00080007);

// Closes the store however the search ends; the certificate found is duplicated first, so it
// outlives the store.
class StoreHandle {
 public:
  explicit StoreHandle(HCERTSTORE store) : store_(store) {}
  ~StoreHandle() {
    if (store_ != nullptr) CertCloseStore(store_, 0);
  }
  StoreHandle(const StoreHandle&) = delete;
  StoreHandle& operator=(const StoreHandle&) = delete;
  HCERTSTORE get() const { return store_; }

 private:
  HCERTSTORE store_;
};

std::wstring toUtf16(const std::string& text) {
  if (text.empty()) return std::wstring();
  const int size = static_cast<int>(text.size());
  int length = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
  if (length <= 0) {
    // Not UTF-8: take the bytes in the system's code page, as the store's own tools would.
    length = MultiByteToWideChar(CP_ACP, 0, text.data(), size, nullptr, 0);
    std::wstring wide(static_cast<size_t>(length), L'\0');
    MultiByteToWideChar(CP_ACP, 0, text.data(), size, wide.data(), length);
    return wide;
  }
  std::wstring wide(static_cast<size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), length);
  return wide;
}

}  // namespace

CertificateContext findCertificate(const std::string& store, const std::string& subject,
                                   const std::string& thumbprint) {
  StoreHandle handle(CertOpenSystemStoreA(0, store.c_str()));
  if (handle.get() == nullptr) {
    throw TlsError("CertOpenSystemStore(" + store +
                   ") failed: " + error::systemErrorText(error::lastSystemError()));
  }

  PCCERT_CONTEXT found = nullptr;
  if (!thumbprint.empty()) {
    std::string hash;
    try {
      encoding::hex::hexDecode(hash, thumbprint.data(), thumbprint.size());
    } catch (const std::exception& e) {
      throw TlsError("Parse certficate thumbprint '" + thumbprint + "' failed: " + e.what());
    }
    CRYPT_HASH_BLOB blob;
    blob.cbData = static_cast<DWORD>(hash.size());
    blob.pbData = reinterpret_cast<BYTE*>(hash.data());
    found = CertFindCertificateInStore(handle.get(), kCertificateEncoding, 0, kFindByHash, &blob,
                                       nullptr);
    if (found == nullptr) {
      throw TlsError("Certficate with thumbprint '" + thumbprint + "' not found in store " + store);
    }
  } else {
    const std::wstring wide = toUtf16(subject);
    found = CertFindCertificateInStore(handle.get(), kCertificateEncoding, 0, kFindBySubject,
                                       wide.c_str(), nullptr);
    if (found == nullptr) {
      throw TlsError("Certficate with subject '" + subject + "' not found in store " + store);
    }
  }
  // The find call's context belongs to the store's enumeration; keep a reference of our own.
  CertificateContext result(CertDuplicateCertificateContext(found));
  CertFreeCertificateContext(found);
  return result;
}

}  // namespace vantrelo::net::tls
