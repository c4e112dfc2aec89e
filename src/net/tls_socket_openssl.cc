// TlsSocket on OpenSSL. The session talks to two memory BIOs rather than to the descriptor, and
// this file moves bytes between them and the Socket, so every wait, time-out and socket error
// is the Socket's own. Failures carry the same message prefixes on every platform, followed by
// OpenSSL's reason.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/log.h"
#include "net/certificate_store.h"
#include "net/socket_platform.h"
#include "net/tls_socket.h"

namespace vantrelo::net::tls {

namespace {

constexpr size_t kReadChunk = 16384;
constexpr int kMaxRecordPlaintext = 16384;
constexpr const char* kCloseAlertText = "The peer sent the TLS close alert";

// OpenSSL's reason for the failure of the last call: a certificate verification result first
// (it says why far better than the generic "certificate verify failed"), then the error queue.
std::string failureText(SSL* ssl, int sslError) {
  std::string text;
  unsigned long code = ERR_peek_error();
  if (code != 0) {
    const char* reason = ERR_reason_error_string(code);
    text = reason != nullptr ? reason : "error " + std::to_string(code);
  }
  if (ssl != nullptr) {
    long verify = SSL_get_verify_result(ssl);
    if (verify != X509_V_OK) {
      text += (text.empty() ? "" : ": ") + std::string(X509_verify_cert_error_string(verify));
    }
  }
  ERR_clear_error();
  if (!text.empty()) return text;
  if (sslError == SSL_ERROR_SYSCALL) return "unexpected end of the TLS stream";
  return "SSL error " + std::to_string(sslError);
}

std::string queueText() { return failureText(nullptr, SSL_ERROR_SSL); }

struct ContextDeleter {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct SslDeleter {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};

}  // namespace

// One TLS session: the context with its credentials, the connection and its two BIOs (owned by
// the connection), the reusable socket buffer and plaintext that arrived while writing.
struct TlsSocket::Session {
  std::unique_ptr<SSL_CTX, ContextDeleter> context;
  std::unique_ptr<SSL, SslDeleter> ssl;
  BIO* input = nullptr;   // socket -> TLS
  BIO* output = nullptr;  // TLS -> socket
  bool complete = false;
  std::vector<uint8_t> io = std::vector<uint8_t>(kReadChunk);
  std::vector<uint8_t> plaintext;
  size_t plaintextOffset = 0;
};

namespace {

bool isAddressLiteral(const std::string& host) {
  SocketAddress probe;
  return sys::makeIpAddress(probe, false, host, 0) || sys::makeIpAddress(probe, true, host, 0);
}

void sendOutput(TlsSocket::Session& session, Socket& socket) {
  while (BIO_ctrl_pending(session.output) > 0) {
    int count = BIO_read(session.output, session.io.data(), static_cast<int>(session.io.size()));
    if (count <= 0) break;
    socket.send(session.io.data(), static_cast<size_t>(count));
  }
}

void receiveInput(TlsSocket::Session& session, Socket& socket) {
  size_t count = socket.recv(session.io.data(), session.io.size());
  BIO_write(session.input, session.io.data(), static_cast<int>(count));
}

}  // namespace

TlsSocket::TlsSocket(const std::string& name, const TlsSettings& settings, Socket& socket)
    : name_(name), settings_(settings), socket_(socket) {}

TlsSocket::TlsSocket(uint32_t id, const TlsSettings& settings, Socket& socket)
    : TlsSocket(std::to_string(id), settings, socket) {}

TlsSocket::~TlsSocket() = default;

void TlsSocket::handshake() {
  if (!settings_.enabled) return;
  shutdown();
  session_.reset();
  const bool server = settings_.server_role;
  try {
    auto session = std::make_unique<Session>();
    ERR_clear_error();
    session->context.reset(SSL_CTX_new(server ? TLS_server_method() : TLS_client_method()));
    SSL_CTX* context = session->context.get();
    if (context == nullptr) throw TlsError("AcquireCredentialsHandle() failed: " + queueText());
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    // TLS 1.2 renegotiation is refused: a peer could otherwise restart the handshake mid-stream.
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_mode(context, SSL_MODE_AUTO_RETRY);

    // A validating client reads its store for the CA certificates it trusts, also when no store
    // is named: the empty name is the configuration directory, as for every other store use.
    const bool needStore = server || settings_.client_certificate || settings_.validate;
    std::unique_ptr<CertificateStore> store;
    if (needStore) store = std::make_unique<CertificateStore>(settings_.store);
    const StoreEntry* certificate = nullptr;
    if (server || (settings_.client_certificate && !settings_.client_certificate_auto)) {
      certificate = &store->find(settings_.subject, settings_.thumbprint);
    } else if (settings_.client_certificate) {
      certificate = store->firstClientCertificate();
    }
    if (certificate != nullptr && !CertificateStore::use(context, *certificate)) {
      throw TlsError("AcquireCredentialsHandle() failed: " + queueText());
    }
    if (settings_.validate) {
      if (SSL_CTX_set_default_verify_paths(context) != 1) {
        throw TlsError("AcquireCredentialsHandle() failed: " + queueText());
      }
      if (store) store->addAuthorities(SSL_CTX_get_cert_store(context));
      int mode = SSL_VERIFY_PEER | (server ? SSL_VERIFY_FAIL_IF_NO_PEER_CERT : 0);
      SSL_CTX_set_verify(context, mode, nullptr);
    } else {
      SSL_CTX_set_verify(context, SSL_VERIFY_NONE, nullptr);
    }

    session->ssl.reset(SSL_new(context));
    SSL* ssl = session->ssl.get();
    if (ssl == nullptr) throw TlsError("AcquireCredentialsHandle() failed: " + queueText());
    session->input = BIO_new(BIO_s_mem());
    session->output = BIO_new(BIO_s_mem());
    SSL_set_bio(ssl, session->input, session->output);
    if (server) {
      SSL_set_accept_state(ssl);
    } else {
      SSL_set_connect_state(ssl);
      const std::string& name = settings_.server_name;
      const bool literal = isAddressLiteral(name);
      if (!literal && !name.empty()) SSL_set_tlsext_host_name(ssl, name.c_str());
      if (settings_.validate) {
        X509_VERIFY_PARAM* param = SSL_get0_param(ssl);
        int ok = literal ? X509_VERIFY_PARAM_set1_ip_asc(param, name.c_str())
                         : X509_VERIFY_PARAM_set1_host(param, name.c_str(), name.size());
        if (ok != 1) throw TlsError("InitializeSecurityContext() failed: " + queueText());
      }
    }

    const char* call =
        server ? "AcceptSecurityContext() failed: " : "InitializeSecurityContext() failed: ";
    for (;;) {
      ERR_clear_error();
      int result = SSL_do_handshake(ssl);
      if (result == 1) {
        sendOutput(*session, socket_);
        break;
      }
      int error = SSL_get_error(ssl, result);
      if (error == SSL_ERROR_WANT_READ) {
        sendOutput(*session, socket_);
        receiveInput(*session, socket_);
        continue;
      }
      std::string text = failureText(ssl, error);
      // Let the peer see the alert that explains the refusal, if the connection still stands.
      try {
        sendOutput(*session, socket_);
      } catch (const std::exception&) {
      }
      throw TlsError(call + text);
    }
    session->complete = true;
    session_ = std::move(session);
  } catch (const std::exception& e) {
    throw TlsError(std::string("TLS handshake failed: ") + e.what());
  }
  log::info(prefix() + "TLS handshake complete");
}

void TlsSocket::write(const void* bytes, uint32_t length) {
  if (!settings_.enabled) {
    socket_.send(bytes, length);
    return;
  }
  if (!session_ || !session_->complete) throw TlsError("TLS handshake not complete");
  Session& session = *session_;
  SSL* ssl = session.ssl.get();
  const uint8_t* next = static_cast<const uint8_t*>(bytes);
  while (length > 0) {
    // Take in whatever the peer sent meanwhile, so that its close alert is noticed and its
    // socket buffers never fill while this side only writes.
    while (socket_.bytesAvailable() > 0) {
      receiveInput(session, socket_);
      for (;;) {
        ERR_clear_error();
        int count = SSL_read(ssl, session.io.data(), static_cast<int>(session.io.size()));
        if (count > 0) {
          // A receiving server keeps what came early; a client has no reader for it.
          if (settings_.server_role) {
            session.plaintext.insert(session.plaintext.end(), session.io.data(),
                                     session.io.data() + count);
          }
          continue;
        }
        int error = SSL_get_error(ssl, count);
        if (error == SSL_ERROR_WANT_READ) break;
        if (error == SSL_ERROR_ZERO_RETURN) {
          throw TlsError(std::string("DecryptMessage() failed: TLS context expired: ") +
                         kCloseAlertText);
        }
        throw TlsError("DecryptMessage() failed: " + failureText(ssl, error));
      }
      sendOutput(session, socket_);
    }
    int chunk = static_cast<int>(std::min<uint32_t>(length, kMaxRecordPlaintext));
    ERR_clear_error();
    int count = SSL_write(ssl, next, chunk);
    if (count <= 0) {
      throw TlsError("EncryptMessage() failed: " + failureText(ssl, SSL_get_error(ssl, count)));
    }
    sendOutput(session, socket_);
    next += count;
    length -= static_cast<uint32_t>(count);
  }
}

uint32_t TlsSocket::read(void* buffer, uint32_t length) {
  if (!settings_.enabled) return static_cast<uint32_t>(socket_.recv(buffer, length));
  if (!session_ || !session_->complete) throw TlsError("TLS handshake not complete");
  Session& session = *session_;
  if (length == 0) return 0;
  if (session.plaintextOffset < session.plaintext.size()) {
    size_t count = std::min<size_t>(length, session.plaintext.size() - session.plaintextOffset);
    std::memcpy(buffer, session.plaintext.data() + session.plaintextOffset, count);
    session.plaintextOffset += count;
    if (session.plaintextOffset == session.plaintext.size()) {
      session.plaintext.clear();
      session.plaintextOffset = 0;
    }
    return static_cast<uint32_t>(count);
  }
  SSL* ssl = session.ssl.get();
  for (;;) {
    ERR_clear_error();
    int count = SSL_read(ssl, buffer, static_cast<int>(std::min<uint32_t>(length, INT32_MAX)));
    if (count > 0) return static_cast<uint32_t>(count);
    int error = SSL_get_error(ssl, count);
    if (error == SSL_ERROR_WANT_READ) {
      // Post-handshake messages (TLS 1.3 key updates) may need an answer before more arrives.
      sendOutput(session, socket_);
      receiveInput(session, socket_);
      continue;
    }
    if (error == SSL_ERROR_ZERO_RETURN) {
      throw TlsError(std::string("DecryptMessage() failed: TLS context expired: ") +
                     kCloseAlertText);
    }
    throw TlsError("DecryptMessage() failed: " + failureText(ssl, error));
  }
}

bool TlsSocket::hasBufferedData() const {
  if (!settings_.enabled || !session_) return false;
  return session_->plaintextOffset < session_->plaintext.size() ||
         SSL_pending(session_->ssl.get()) > 0 || BIO_ctrl_pending(session_->input) > 0;
}

void TlsSocket::shutdown() {
  if (!session_ || !session_->complete) return;
  session_->complete = false;
  ERR_clear_error();
  SSL_shutdown(session_->ssl.get());
  ERR_clear_error();
  try {
    sendOutput(*session_, socket_);
  } catch (const std::exception&) {
    // The connection is going away; a peer that cannot take the alert changes nothing.
  }
}

}  // namespace vantrelo::net::tls
