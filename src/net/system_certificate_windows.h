// Certificates of the Windows system certificate stores, for the TLS credentials.
//
// CertificateContext owns one reference to a certificate context and frees it on destruction;
// findCertificate opens a system store, searches it and closes it again before returning, so
// the context it hands out lives on its own. Windows build only. A CertificateContext is used
// by one thread; findCertificate keeps no state and may run on any thread.
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

// The first certificate of system store `store` whose SHA-1 thumbprint is `thumbprint`
// (hexadecimal) or, when the thumbprint is empty, whose subject contains `subject`. Throws
// TlsError "CertOpenSystemStore(<store>) failed: ...", "Parse certficate thumbprint '...'
// failed: ..." or "Certficate with thumbprint|subject '...' not found in store <store>".
CertificateContext findCertificate(const std::string& store, const std::string& subject,
                                   const std::string& thumbprint);

}  // namespace vantrelo::net::tls
