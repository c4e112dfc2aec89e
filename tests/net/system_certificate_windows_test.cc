// Store names and the choice of a certificate by subject, against certificates this test makes
// and adds to the system stores of the local machine and of the current user (under wine, of
// its prefix) for its own duration.
#include "net/system_certificate_windows.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "net/tls_socket.h"
#include "net_test_support.h"

namespace vantrelo::net::tls {
namespace {

using namespace testing;

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

SYSTEMTIME daysFromNow(int days) {
  ULARGE_INTEGER value;
  GetSystemTimeAsFileTime(reinterpret_cast<FILETIME*>(&value));
  value.QuadPart += days * 864000000000LL;  // 100 ns units
  SYSTEMTIME result;
  FileTimeToSystemTime(reinterpret_cast<FILETIME*>(&value), &result);
  return result;
}

// A self-signed certificate valid from `fromDays` to `toDays` from now, added to one system
// store with its key container, or without any key. Deleted again, key and all, on destruction.
class TestCertificate {
 public:
  TestCertificate(DWORD location, const wchar_t* store, const std::wstring& subject, int fromDays,
                  int toDays, bool withKey)
      : store_(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, location, store)),
        container_(L"vantrelo-test-" + std::to_wstring(GetTickCount64()) + L"-" +
                   std::to_wstring(next_++)) {
    HCRYPTPROV provider = 0;
    HCRYPTKEY key = 0;
    BYTE name[256];
    DWORD size = sizeof name;
    if (store_ == nullptr ||
        !CertStrToNameW(X509_ASN_ENCODING, subject.c_str(), CERT_X500_NAME_STR, nullptr, name,
                        &size, nullptr) ||
        !CryptAcquireContextW(&provider, container_.c_str(), nullptr, PROV_RSA_FULL,
                              CRYPT_NEWKEYSET) ||
        !CryptGenKey(provider, AT_KEYEXCHANGE, 2048u << 16, &key)) {
      error = "making a key failed: " + std::to_string(GetLastError());
      return;
    }
    CryptDestroyKey(key);
    CERT_NAME_BLOB blob{size, name};
    CRYPT_KEY_PROV_INFO keyInfo{};
    keyInfo.pwszContainerName = const_cast<wchar_t*>(container_.c_str());
    keyInfo.dwProvType = PROV_RSA_FULL;
    keyInfo.dwKeySpec = AT_KEYEXCHANGE;
    SYSTEMTIME from = daysFromNow(fromDays), to = daysFromNow(toDays);
    PCCERT_CONTEXT made =
        CertCreateSelfSignCertificate(provider, &blob, 0, &keyInfo, nullptr, &from, &to, nullptr);
    CryptReleaseContext(provider, 0);
    // Added from its encoding alone, a certificate carries no reference to its key.
    const BOOL added =
        made != nullptr &&
        (withKey
             ? CertAddCertificateContextToStore(store_, made, CERT_STORE_ADD_NEW, &added_)
             : CertAddEncodedCertificateToStore(store_, X509_ASN_ENCODING, made->pbCertEncoded,
                                                made->cbCertEncoded, CERT_STORE_ADD_NEW, &added_));
    if (!added || !CertControlStore(store_, 0, CERT_STORE_CTRL_COMMIT, nullptr)) {
      error = "adding the certificate failed: " + std::to_string(GetLastError());
    }
    if (made != nullptr) CertFreeCertificateContext(made);
  }
  ~TestCertificate() {
    if (added_ != nullptr) CertDeleteCertificateFromStore(added_);
    if (store_ != nullptr) {
      CertControlStore(store_, 0, CERT_STORE_CTRL_COMMIT, nullptr);
      CertCloseStore(store_, 0);
    }
    HCRYPTPROV provider;
    CryptAcquireContextW(&provider, container_.c_str(), nullptr, PROV_RSA_FULL, CRYPT_DELETEKEYSET);
  }
  TestCertificate(const TestCertificate&) = delete;
  TestCertificate& operator=(const TestCertificate&) = delete;

  bool is(const CertificateContext& found) const {
    return found && added_ != nullptr &&
           CertCompareCertificate(kEncoding, found.get()->pCertInfo, added_->pCertInfo);
  }

  // The SHA-1 thumbprint in upper-case hexadecimal, as the certificate manager shows it.
  std::string thumbprint() const {
    BYTE hash[20] = {};
    DWORD size = sizeof hash;
    CertGetCertificateContextProperty(added_, CERT_SHA1_HASH_PROP_ID, hash, &size);
    std::string text;
    for (BYTE byte : hash) text += {"0123456789ABCDEF"[byte >> 4], "0123456789ABCDEF"[byte & 15]};
    return text;
  }

  std::string error;

 private:
  static inline int next_ = 0;
  HCERTSTORE store_;
  std::wstring container_;
  PCCERT_CONTEXT added_ = nullptr;
};

// Of the certificates whose subject matches, the lookup takes one with a key and within its
// validity period, the one valid longest. The local machine's stores do not hold the current
// user's certificates (the reverse holds only on Windows: wine's user stores include the
// machine's), and a store that does not exist is not made.
TEST(SystemCertificateTest, ChoosesAUsableCertificateFromTheNamedStore) {
  const DWORD machine = CERT_SYSTEM_STORE_LOCAL_MACHINE, user = CERT_SYSTEM_STORE_CURRENT_USER;
  std::vector<std::unique_ptr<TestCertificate>> made;
  auto make = [&](DWORD location, const wchar_t* subject, int from, int to, bool key) {
    made.push_back(std::make_unique<TestCertificate>(location, L"MY", subject, from, to, key));
    return made.back().get();
  };
  make(machine, L"CN=vantrelo-choice", -10, -1, true);  // expired
  make(machine, L"CN=vantrelo-choice", -1, 30, false);  // no key
  make(machine, L"CN=vantrelo-choice", -1, 5, true);    // valid, ends sooner
  const TestCertificate* longest = make(machine, L"CN=vantrelo-choice", -1, 20, true);
  make(machine, L"CN=vantrelo-choice", 3, 40, true);  // not yet valid
  const TestCertificate* own = make(user, L"CN=vantrelo-user", -1, 5, true);
  make(machine, L"CN=vantrelo-keyless", -1, 5, false);
  for (const auto& certificate : made) ASSERT_EQ(certificate->error, "");

  EXPECT_TRUE(longest->is(findCertificate("MY", "vantrelo-choice", "")));
  EXPECT_TRUE(own->is(findCertificate("currentuser\\my", "vantrelo-user", "")));
  // A thumbprint names one certificate, whatever the subject says.
  EXPECT_TRUE(longest->is(findCertificate("MY", "nothing", longest->thumbprint())));

  const struct {
    const char* store;
    std::string subject;  // a thumbprint when the error names one
    std::string error;
  } refusals[] = {
      {"MY", "vantrelo-user", "Certficate with subject 'vantrelo-user' not found in store MY"},
      {"MY", "vantrelo-keyless",
       "Certficate with subject 'vantrelo-keyless' not found in store MY (1 without a private key "
       "or outside its validity period)"},
      {"MY", "0g", "Parse certficate thumbprint '0g' failed: Invalid character in hex string"},
      {"MY", std::string(40, 'a'),
       "Certficate with thumbprint '" + std::string(40, 'a') + "' not found in store MY"},
      {"vantrelo-no-such-store", "x", "CertOpenStore(vantrelo-no-such-store) failed: "},
  };
  for (const auto& c : refusals) {
    const bool byThumbprint = c.error.find("thumbprint") != std::string::npos;
    const std::string error = errorOf([&] {
      findCertificate(c.store, byThumbprint ? "" : c.subject, byThumbprint ? c.subject : "");
    });
    EXPECT_EQ(error.rfind(c.error, 0), 0u) << c.store << ": " << error;
  }
  // Nothing was made by looking.
  HCERTSTORE absent =
      CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, machine | CERT_STORE_OPEN_EXISTING_FLAG,
                    L"vantrelo-no-such-store");
  EXPECT_EQ(absent, nullptr);
  if (absent != nullptr) CertCloseStore(absent, 0);
}

}  // namespace
}  // namespace vantrelo::net::tls
