#include "net/system_certificate_windows.h"

#include <cstring>
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

// The store must exist already (CertOpenStore would otherwise make an empty one and every
// lookup would fail with "not found"); nothing here writes to it.
constexpr DWORD kOpenFlags = CERT_STORE_OPEN_EXISTING_FLAG | CERT_STORE_READONLY_FLAG;

// The location prefixes of a store name, compared without regard to case as Windows' own tools
// do; a name without one is the local machine's.
const struct {
  const char* prefix;
  DWORD location;
} kStoreLocations[] = {
    {"CurrentUser\\", CERT_SYSTEM_STORE_CURRENT_USER},
    {"LocalMachine\\", CERT_SYSTEM_STORE_LOCAL_MACHINE},
};

// Any of these properties says that the certificate's private key is at hand: a key container
// named by the import, or a key handle attached in memory.
const DWORD kPrivateKeyProperties[] = {CERT_KEY_PROV_INFO_PROP_ID, CERT_KEY_CONTEXT_PROP_ID,
                                       CERT_NCRYPT_KEY_HANDLE_PROP_ID};

bool hasPrivateKey(PCCERT_CONTEXT certificate) {
  for (DWORD property : kPrivateKeyProperties) {
    DWORD size = 0;
    if (CertGetCertificateContextProperty(certificate, property, nullptr, &size)) return true;
  }
  return false;
}

bool startsWithIgnoringCase(const std::string& text, const char* prefix) {
  const size_t length = std::strlen(prefix);
  return text.size() >= length && _strnicmp(text.c_str(), prefix, length) == 0;
}

// Later is greater: compares two FILETIMEs.
bool laterThan(const FILETIME& a, const FILETIME& b) { return CompareFileTime(&a, &b) > 0; }

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

StoreLocation parseStoreName(const std::string& store) {
  for (const auto& candidate : kStoreLocations) {
    if (startsWithIgnoringCase(store, candidate.prefix)) {
      return {candidate.location, toUtf16(store.substr(std::strlen(candidate.prefix)))};
    }
  }
  return {CERT_SYSTEM_STORE_LOCAL_MACHINE, toUtf16(store)};
}

CertificateContext findCertificate(const std::string& store, const std::string& subject,
                                   const std::string& thumbprint) {
  const StoreLocation location = parseStoreName(store);
  StoreHandle handle(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, location.location | kOpenFlags,
                                   location.name.c_str()));
  if (handle.get() == nullptr) {
    throw TlsError("CertOpenStore(" + store +
                   ") failed: " + error::systemErrorText(error::lastSystemError()));
  }

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
    PCCERT_CONTEXT found = CertFindCertificateInStore(handle.get(), kCertificateEncoding, 0,
                                                      kFindByHash, &blob, nullptr);
    if (found == nullptr) {
      throw TlsError("Certficate with thumbprint '" + thumbprint + "' not found in store " + store);
    }
    // The find call's context belongs to the store's enumeration; keep a reference of our own.
    CertificateContext result(CertDuplicateCertificateContext(found));
    CertFreeCertificateContext(found);
    return result;
  }

  // A subject may match an expired certificate beside its renewal, or a certificate imported
  // without its key: take the usable one that stays valid longest.
  const std::wstring wide = toUtf16(subject);
  CertificateContext best;
  int passedOver = 0;
  PCCERT_CONTEXT found = nullptr;
  while ((found = CertFindCertificateInStore(handle.get(), kCertificateEncoding, 0, kFindBySubject,
                                             wide.c_str(), found)) != nullptr) {
    if (!hasPrivateKey(found) || CertVerifyTimeValidity(nullptr, found->pCertInfo) != 0) {
      ++passedOver;
      continue;
    }
    if (!best || laterThan(found->pCertInfo->NotAfter, best.get()->pCertInfo->NotAfter)) {
      if (best) ++passedOver;
      best = CertificateContext(CertDuplicateCertificateContext(found));
    } else {
      ++passedOver;
    }
  }
  if (!best) {
    std::string message = "Certficate with subject '" + subject + "' not found in store " + store;
    if (passedOver > 0) {
      message += " (" + std::to_string(passedOver) +
                 " without a private key or outside its validity period)";
    }
    throw TlsError(message);
  }
  return best;
}

void verifyClientCertificateChain(PCCERT_CONTEXT certificate) {
  char clientAuthentication[] = szOID_PKIX_KP_CLIENT_AUTH;
  LPSTR usages[] = {clientAuthentication};
  CERT_CHAIN_PARA chainPara{};
  chainPara.cbSize = sizeof chainPara;
  chainPara.RequestedUsage.dwType = USAGE_MATCH_TYPE_AND;
  chainPara.RequestedUsage.Usage.cUsageIdentifier = 1;
  chainPara.RequestedUsage.Usage.rgpszUsageIdentifier = usages;
  PCCERT_CHAIN_CONTEXT chain = nullptr;
  // The certificate's own store holds the intermediates the sender sent with it.
  if (!CertGetCertificateChain(nullptr, certificate, nullptr, certificate->hCertStore, &chainPara,
                               0, nullptr, &chain)) {
    throw TlsError("CertGetCertificateChain() failed: " +
                   error::systemErrorText(error::lastSystemError()));
  }
  HTTPSPolicyCallbackData ssl{};
  ssl.cbSize = sizeof ssl;
  ssl.dwAuthType = AUTHTYPE_CLIENT;
  CERT_CHAIN_POLICY_PARA policy{};
  policy.cbSize = sizeof policy;
  policy.pvExtraPolicyPara = &ssl;
  CERT_CHAIN_POLICY_STATUS result{};
  result.cbSize = sizeof result;
  const BOOL checked =
      CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain, &policy, &result);
  const DWORD failure = checked ? result.dwError : error::lastSystemError();
  CertFreeCertificateChain(chain);
  if (failure != 0) {
    throw TlsError("CertVerifyCertificateChainPolicy() failed: " + error::systemErrorText(failure));
  }
}

}  // namespace vantrelo::net::tls
