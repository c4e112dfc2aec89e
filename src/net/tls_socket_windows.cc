// TlsSocket on Schannel through SSPI. Schannel works on byte buffers only; this file moves the
// bytes between those buffers and the Socket, so every wait, time-out and socket error is the
// Socket's own. The input, plaintext and output buffers live as long as the TlsSocket and are
// reused for every record.
#include <windows.h>
#include <winsock2.h>

// The SSPI headers declare the user-mode interface only with this defined; schannel.h declares
// SCH_CREDENTIALS and TLS_PARAMETERS only with the other.
#define SECURITY_WIN32
#define SCHANNEL_USE_BLACKLISTS
// UNICODE_STRING, which those use, comes from here.
#include <subauth.h>
// Schannel's credentials and the user-mode SSPI interface.
#include <schannel.h>
#include <security.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/error.h"
#include "base/log.h"
#include "net/system_certificate_windows.h"
#include "net/tls_socket.h"

namespace vantrelo::net::tls {

namespace {

constexpr size_t kReadChunk = 16384;

// Sequence and replay detection, confidentiality, SSPI-allocated output, extended errors (the
// alert that explains a refusal) and stream mode.
constexpr ULONG kClientRequest = ISC_REQ_SEQUENCE_DETECT | ISC_REQ_REPLAY_DETECT |
                                 ISC_REQ_CONFIDENTIALITY | ISC_REQ_ALLOCATE_MEMORY |
                                 ISC_REQ_EXTENDED_ERROR | ISC_REQ_STREAM;
constexpr ULONG kServerRequest = ASC_REQ_SEQUENCE_DETECT | ASC_REQ_REPLAY_DETECT |
                                 ASC_REQ_CONFIDENTIALITY | ASC_REQ_ALLOCATE_MEMORY |
                                 ASC_REQ_EXTENDED_ERROR | ASC_REQ_STREAM;
// Mutual authentication: the server asks the client for a certificate.
constexpr ULONG kServerRequestValidate = kServerRequest | ASC_REQ_MUTUAL_AUTH;
static_assert(kClientRequest == 0xC11C);
static_assert(kServerRequest == 0x1811C && kServerRequestValidate == 0x1811E);

constexpr DWORD kStrongCrypto = SCH_USE_STRONG_CRYPTO;
constexpr DWORD kAutoValidation = SCH_CRED_AUTO_CRED_VALIDATION;
constexpr DWORD kManualValidation = SCH_CRED_MANUAL_CRED_VALIDATION;
constexpr DWORD kNoDefaultCredentials = SCH_CRED_NO_DEFAULT_CREDS;
constexpr DWORD kUseDefaultCredentials = SCH_CRED_USE_DEFAULT_CREDS;
static_assert(kStrongCrypto == 0x00400000 && kAutoValidation == 0x20 && kManualValidation == 0x08 &&
              kNoDefaultCredentials == 0x10 && kUseDefaultCredentials == 0x40);

// Nothing below TLS 1.2, and TLS 1.3 where the system has it. SCH_CREDENTIALS names what to
// leave out, so everything but 1.2 and 1.3 is disabled; the older SCHANNEL_CRED, for systems
// that do not know SCH_CREDENTIALS (before Windows Server 2019) and have no TLS 1.3, names
// what to use.
constexpr DWORD kDisabledProtocols = ~static_cast<DWORD>(SP_PROT_TLS1_2 | SP_PROT_TLS1_3);
constexpr DWORD kLegacyServerProtocols = SP_PROT_TLS1_2_SERVER;
constexpr DWORD kLegacyClientProtocols = SP_PROT_TLS1_2_CLIENT;

// A client that has no certificate to give a server asking for one goes on without it: the
// server decides whether it needs one.
constexpr ULONG kClientRequestWithoutCertificate = kClientRequest | ISC_REQ_USE_SUPPLIED_CREDS;

constexpr SECURITY_STATUS kContinueNeeded = SEC_I_CONTINUE_NEEDED;
constexpr SECURITY_STATUS kIncompleteMessage = SEC_E_INCOMPLETE_MESSAGE;
constexpr SECURITY_STATUS kContextExpired = SEC_I_CONTEXT_EXPIRED;
constexpr SECURITY_STATUS kRenegotiate = SEC_I_RENEGOTIATE;
constexpr SECURITY_STATUS kIncompleteCredentials = SEC_I_INCOMPLETE_CREDENTIALS;
static_assert(kContinueNeeded == 0x00090312 && kContextExpired == 0x00090317 &&
              kRenegotiate == 0x00090321 && kIncompleteCredentials == 0x00090320);

std::string statusText(SECURITY_STATUS status) {
  return error::systemErrorText(static_cast<uint32_t>(status));
}

[[noreturn]] void fail(const char* call, SECURITY_STATUS status) {
  throw TlsError(std::string(call) + "() failed: " + statusText(status));
}

// A token that SSPI allocated (ISC_REQ_ALLOCATE_MEMORY); freed when the holder goes away.
struct OutputToken {
  SecBuffer buffer{0, SECBUFFER_TOKEN, nullptr};
  SecBufferDesc desc{SECBUFFER_VERSION, 1, &buffer};
  OutputToken() = default;
  ~OutputToken() {
    if (buffer.pvBuffer != nullptr) FreeContextBuffer(buffer.pvBuffer);
  }
  OutputToken(const OutputToken&) = delete;
  OutputToken& operator=(const OutputToken&) = delete;
};

// Sends a handshake or alert token, whole.
void sendToken(Socket& socket, const OutputToken& token) {
  if (token.buffer.pvBuffer != nullptr && token.buffer.cbBuffer > 0) {
    socket.send(token.buffer.pvBuffer, token.buffer.cbBuffer);
  }
}

// A listener that validates accepts only senders with a certificate that chains to a trusted
// root and may be used for client authentication. Schannel's mutual authentication only asks
// for the certificate; a sender may still send none.
void verifyClientCertificate(CtxtHandle& context) {
  PCCERT_CONTEXT remote = nullptr;
  SECURITY_STATUS status =
      QueryContextAttributesA(&context, SECPKG_ATTR_REMOTE_CERT_CONTEXT, &remote);
  CertificateContext owned(remote);
  if (status != SEC_E_OK || remote == nullptr) {
    throw TlsError(
        "QueryContextAttributes(SECPKG_ATTR_REMOTE_CERT_CONTEXT) failed: the sender "
        "sent no certificate");
  }
  verifyClientCertificateChain(remote);
}

}  // namespace

// One TLS session: the credentials and the security context (both owned, freed by reset()),
// the certificate given as credential, and the three reusable buffers. `inputLength` bytes of
// `input` are encrypted data not yet consumed; `inputIncomplete` says that they end in a
// partial record, so that only more bytes from the socket can help.
struct TlsSocket::Session {
  TlsSocket& owner;
  CredHandle credentials{};
  CtxtHandle context{};
  bool hasCredentials = false;
  bool hasContext = false;
  bool complete = false;
  ULONG attributes = 0;
  ULONG clientRequest = kClientRequest;
  CertificateContext certificate;
  SecPkgContext_StreamSizes sizes{};
  std::vector<uint8_t> input;
  size_t inputLength = 0;
  bool inputIncomplete = false;
  std::vector<uint8_t> plaintext;
  size_t plaintextOffset = 0;
  std::vector<uint8_t> output;

  explicit Session(TlsSocket& socket) : owner(socket) {}
  ~Session() { reset(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const TlsSettings& settings() const { return owner.settings_; }
  Socket& socket() const { return owner.socket_; }
  bool server() const { return owner.settings_.server_role; }

  // Frees the handles and forgets buffered bytes; the buffers keep their memory.
  void reset() {
    if (hasContext) DeleteSecurityContext(&context);
    if (hasCredentials) FreeCredentialsHandle(&credentials);
    hasContext = false;
    hasCredentials = false;
    complete = false;
    attributes = 0;
    clientRequest = kClientRequest;
    certificate.reset();
    inputLength = 0;
    inputIncomplete = false;
    plaintext.clear();
    plaintextOffset = 0;
  }

  bool hasPlaintext() const { return plaintextOffset < plaintext.size(); }

  // Reads up to `count` more bytes from the socket behind what the input holds.
  void receive(size_t count) {
    if (input.size() < inputLength + count) input.resize(inputLength + count);
    inputLength += socket().recv(input.data() + inputLength, count);
    inputIncomplete = false;
  }

  // Keeps the last `extra` input bytes (moved to the front) or, with none, empties the input.
  void keepExtra(const SecBuffer* extra) {
    if (extra != nullptr && extra->cbBuffer > 0 && extra->cbBuffer <= inputLength) {
      std::memmove(input.data(), input.data() + inputLength - extra->cbBuffer, extra->cbBuffer);
      inputLength = extra->cbBuffer;
    } else {
      inputLength = 0;
    }
    inputIncomplete = false;
  }

  void acquireCredentials() {
    const TlsSettings& s = settings();
    DWORD flags = kStrongCrypto;
    bool useCertificate = false;
    if (server()) {
      useCertificate = true;
    } else {
      flags |= s.validate ? kAutoValidation : kManualValidation;
      if (!s.client_certificate) {
        flags |= kNoDefaultCredentials;
      } else if (s.client_certificate_auto) {
        flags |= kUseDefaultCredentials;
      } else {
        useCertificate = true;
      }
    }
    PCCERT_CONTEXT credentialsCertificates[1] = {};
    if (useCertificate) {
      certificate = findCertificate(s.store, s.subject, s.thumbprint);
      credentialsCertificates[0] = certificate.get();
    }
    const DWORD count = useCertificate ? 1 : 0;

    TLS_PARAMETERS parameters{};
    parameters.grbitDisabledProtocols = kDisabledProtocols;
    SCH_CREDENTIALS data{};
    data.dwVersion = SCH_CREDENTIALS_VERSION;
    data.dwFlags = flags;
    data.cCreds = count;
    data.paCred = credentialsCertificates;
    data.cTlsParameters = 1;
    data.pTlsParameters = &parameters;
    if (acquire(&data) == SEC_E_OK) return;

    SCHANNEL_CRED legacy{};
    legacy.dwVersion = SCHANNEL_CRED_VERSION;
    legacy.dwFlags = flags;
    legacy.cCreds = count;
    legacy.paCred = credentialsCertificates;
    legacy.grbitEnabledProtocols = server() ? kLegacyServerProtocols : kLegacyClientProtocols;
    SECURITY_STATUS status = acquire(&legacy);
    if (status != SEC_E_OK) fail("AcquireCredentialsHandle", status);
  }

  SECURITY_STATUS acquire(void* data) {
    TimeStamp expiry;
    SECURITY_STATUS status =
        AcquireCredentialsHandleA(nullptr, const_cast<char*>(UNISP_NAME_A),
                                  server() ? SECPKG_CRED_INBOUND : SECPKG_CRED_OUTBOUND, nullptr,
                                  data, nullptr, nullptr, &credentials, &expiry);
    hasCredentials = status == SEC_E_OK;
    return status;
  }

  // One handshake call of this side's role: with `in` as input (null for the client's first
  // call) and `token` receiving the output. `flags` replaces the request flags when not 0.
  SECURITY_STATUS step(SecBufferDesc* in, OutputToken& token, ULONG flags = 0) {
    TimeStamp expiry;
    if (server()) {
      if (flags == 0) flags = settings().validate ? kServerRequestValidate : kServerRequest;
      SECURITY_STATUS status =
          AcceptSecurityContext(&credentials, hasContext ? &context : nullptr, in, flags,
                                SECURITY_NATIVE_DREP, &context, &token.desc, &attributes, &expiry);
      if (status == SEC_E_OK || status == kContinueNeeded) hasContext = true;
      return status;
    }
    if (flags == 0) flags = clientRequest;
    const std::string& name = settings().server_name;
    SEC_CHAR* target = name.empty() ? nullptr : const_cast<SEC_CHAR*>(name.c_str());
    SECURITY_STATUS status = InitializeSecurityContextA(
        &credentials, hasContext ? &context : nullptr, target, flags, 0, SECURITY_NATIVE_DREP, in,
        0, &context, &token.desc, &attributes, &expiry);
    if (status == SEC_E_OK || status == kContinueNeeded) hasContext = true;
    return status;
  }

  const char* stepCall() const {
    return server() ? "AcceptSecurityContext" : "InitializeSecurityContext";
  }

  // Sends the output token of a handshake call and raises its failure. A refusal's token is
  // the alert that tells the peer why; it goes out if the connection still takes it.
  void finishStep(SECURITY_STATUS status, const OutputToken& token) {
    if (status == SEC_E_OK || status == kContinueNeeded || status == kIncompleteMessage) {
      sendToken(socket(), token);
      return;
    }
    try {
      sendToken(socket(), token);
    } catch (const std::exception&) {
    }
    fail(stepCall(), status);
  }

  // A server that asks for a client certificate this client does not have: the same input
  // goes once more to Schannel, told to go on without one.
  bool retryWithoutCertificate(SECURITY_STATUS status) {
    if (server() || status != kIncompleteCredentials || clientRequest != kClientRequest) {
      return false;
    }
    clientRequest = kClientRequestWithoutCertificate;
    return true;
  }

  // Exchanges handshake messages until Schannel reports the context complete. Bytes that
  // arrive behind the last handshake message stay in the input for the first decrypt. With
  // `readFirst` false the first call takes the input as it is, even empty: a post-handshake
  // message has been read already.
  void handshakeLoop(bool readFirst = true) {
    for (;;) {
      if (inputLength == 0 && readFirst) receive(kReadChunk);
      readFirst = true;
      SECURITY_STATUS status;
      SecBuffer in[2];
      for (;;) {
        in[0] = {static_cast<ULONG>(inputLength), SECBUFFER_TOKEN, input.data()};
        in[1] = {0, SECBUFFER_EMPTY, nullptr};
        SecBufferDesc inDesc{SECBUFFER_VERSION, 2, in};
        OutputToken token;
        status = step(&inDesc, token);
        if (retryWithoutCertificate(status)) continue;
        finishStep(status, token);
        if (status != kIncompleteMessage) break;
        receive(kReadChunk);
      }
      keepExtra(in[1].BufferType == SECBUFFER_EXTRA ? &in[1] : nullptr);
      if (status == SEC_E_OK) return;
    }
  }

  void handshake() {
    acquireCredentials();
    if (!server()) {
      OutputToken token;
      SECURITY_STATUS status = step(nullptr, token);
      finishStep(status, token);
      if (status != SEC_E_OK) handshakeLoop();
    } else {
      handshakeLoop();
      if (settings().validate) verifyClientCertificate(context);
    }
    SECURITY_STATUS status = QueryContextAttributesA(&context, SECPKG_ATTR_STREAM_SIZES, &sizes);
    if (status != SEC_E_OK) fail("QueryContextAttributes", status);
    complete = true;
  }

  // Decrypts one record of the input, if the input holds a whole one. Returns whether
  // plaintext is waiting.
  bool decrypt() {
    if (inputLength == 0 || inputIncomplete) return hasPlaintext();
    SecBuffer buffers[4];
    buffers[0] = {static_cast<ULONG>(inputLength), SECBUFFER_DATA, input.data()};
    for (int i = 1; i < 4; ++i) buffers[i] = {0, SECBUFFER_EMPTY, nullptr};
    SecBufferDesc desc{SECBUFFER_VERSION, 4, buffers};
    SECURITY_STATUS status = DecryptMessage(&context, &desc, 0, nullptr);
    const SecBuffer* data = nullptr;
    const SecBuffer* extra = nullptr;
    for (const SecBuffer& buffer : buffers) {
      if (buffer.BufferType == SECBUFFER_DATA && data == nullptr) data = &buffer;
      if (buffer.BufferType == SECBUFFER_EXTRA && extra == nullptr) extra = &buffer;
    }
    if (status == kIncompleteMessage) {
      inputIncomplete = true;
    } else if (status == kContextExpired) {
      throw TlsError("DecryptMessage() failed: TLS context expired: " + statusText(status));
    } else if (status == SEC_E_OK || status == kRenegotiate) {
      if (data != nullptr && data->cbBuffer > 0) {
        if (!hasPlaintext()) {
          plaintext.clear();
          plaintextOffset = 0;
        }
        const uint8_t* bytes = static_cast<const uint8_t*>(data->pvBuffer);
        plaintext.insert(plaintext.end(), bytes, bytes + data->cbBuffer);
      }
      keepExtra(extra);
      // The peer sent handshake messages: a renegotiation, or TLS 1.3's post-handshake
      // messages (session tickets, key updates). Schannel takes them from the extra bytes,
      // possibly none, before anything more is read from the socket.
      if (status == kRenegotiate) handshakeLoop(false);
    } else {
      fail("DecryptMessage", status);
    }
    return hasPlaintext();
  }

  // Decrypts every whole record of the input.
  void decryptAll() {
    while (inputLength > 0 && !inputIncomplete) decrypt();
  }

  void encryptAndSend(const uint8_t* bytes, uint32_t length) {
    const size_t total = sizes.cbHeader + length + sizes.cbTrailer;
    if (output.size() < total) output.resize(total);
    uint8_t* header = output.data();
    uint8_t* body = header + sizes.cbHeader;
    uint8_t* trailer = body + length;
    std::memcpy(body, bytes, length);
    SecBuffer buffers[4];
    buffers[0] = {sizes.cbHeader, SECBUFFER_STREAM_HEADER, header};
    buffers[1] = {length, SECBUFFER_DATA, body};
    buffers[2] = {sizes.cbTrailer, SECBUFFER_STREAM_TRAILER, trailer};
    buffers[3] = {0, SECBUFFER_EMPTY, nullptr};
    SecBufferDesc desc{SECBUFFER_VERSION, 4, buffers};
    SECURITY_STATUS status = EncryptMessage(&context, 0, &desc, 0);
    if (status != SEC_E_OK) fail("EncryptMessage", status);
    socket().send(header, buffers[0].cbBuffer + buffers[1].cbBuffer + buffers[2].cbBuffer);
  }

  // Produces the close alert and sends it. Socket failures are ignored: the connection is
  // going away, and a peer that cannot take the alert changes nothing.
  void sendCloseAlert() {
    DWORD type = SCHANNEL_SHUTDOWN;
    SecBuffer control{sizeof type, SECBUFFER_TOKEN, &type};
    SecBufferDesc controlDesc{SECBUFFER_VERSION, 1, &control};
    SECURITY_STATUS status = ApplyControlToken(&context, &controlDesc);
    if (status != SEC_E_OK) fail("ApplyControlToken", status);
    OutputToken token;
    status = step(nullptr, token, server() ? kServerRequest : kClientRequest);
    if (status != SEC_E_OK && status != kContinueNeeded) fail(stepCall(), status);
    try {
      sendToken(socket(), token);
    } catch (const std::exception&) {
    }
  }
};

TlsSocket::TlsSocket(const std::string& name, const TlsSettings& settings, Socket& socket)
    : name_(name), settings_(settings), socket_(socket) {}

TlsSocket::TlsSocket(uint32_t id, const TlsSettings& settings, Socket& socket)
    : TlsSocket(std::to_string(id), settings, socket) {}

TlsSocket::~TlsSocket() = default;

void TlsSocket::handshake() {
  if (!settings_.enabled) return;
  shutdown();
  if (session_) {
    session_->reset();
  } else {
    session_ = std::make_unique<Session>(*this);
  }
  try {
    session_->handshake();
  } catch (const std::exception& e) {
    session_->reset();
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
  const uint8_t* next = static_cast<const uint8_t*>(bytes);
  while (length > 0) {
    // Take in whatever the peer sent meanwhile, so that its close alert is noticed and its
    // socket buffers never fill while this side only writes. A receiving server keeps what came
    // early; a client has no reader for it.
    while (socket_.bytesAvailable() > 0) {
      session.receive(std::max(socket_.bytesAvailable(), kReadChunk));
      session.decryptAll();
      if (!settings_.server_role) {
        session.plaintext.clear();
        session.plaintextOffset = 0;
      }
    }
    const uint32_t chunk = std::min<uint32_t>(length, session.sizes.cbMaximumMessage);
    session.encryptAndSend(next, chunk);
    next += chunk;
    length -= chunk;
  }
}

uint32_t TlsSocket::read(void* buffer, uint32_t length) {
  if (!settings_.enabled) return static_cast<uint32_t>(socket_.recv(buffer, length));
  if (!session_ || !session_->complete) throw TlsError("TLS handshake not complete");
  Session& session = *session_;
  if (length == 0) return 0;
  while (!session.hasPlaintext()) {
    if (session.inputLength == 0 || session.inputIncomplete) session.receive(kReadChunk);
    session.decrypt();
  }
  const size_t count = std::min<size_t>(length, session.plaintext.size() - session.plaintextOffset);
  std::memcpy(buffer, session.plaintext.data() + session.plaintextOffset, count);
  session.plaintextOffset += count;
  if (!session.hasPlaintext()) {
    session.plaintext.clear();
    session.plaintextOffset = 0;
  }
  return static_cast<uint32_t>(count);
}

bool TlsSocket::hasBufferedData() const {
  if (!settings_.enabled || !session_) return false;
  return session_->hasPlaintext() || (session_->inputLength > 0 && !session_->inputIncomplete);
}

void TlsSocket::shutdown() {
  if (!session_ || !session_->complete) return;
  session_->complete = false;
  try {
    session_->sendCloseAlert();
  } catch (const std::exception& e) {
    log::warning(prefix() + e.what());
  }
}

}  // namespace vantrelo::net::tls
