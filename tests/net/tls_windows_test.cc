// TlsSocket on Schannel, run under wine or on Windows. OpensslPeerTest needs the peers that
// tls_windows_peer.py starts on 127.0.0.1: an `openssl s_server -rev` (it answers every line
// reversed and sends the close alert on a line "CLOSE") at VANTRELO_TLS_PEER_PORT, and an
// `openssl s_server` that logs what it receives to VANTRELO_TLS_SINK_LOG at
// VANTRELO_TLS_SINK_PORT.
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "net/tls_socket.h"
#include "net_test_support.h"

namespace ns::net::tls {
namespace {

using namespace testing;

TEST(TlsWindowsTest, CertificateLookupFailuresComeBeforeAnyMessage) {
  const std::string absent(40, 'a'), prefix = "TLS handshake failed: ";
  const struct {
    bool server;
    std::string subject, thumbprint, error;
  } cases[] = {
      {true, "", "0g", "Parse certficate thumbprint '0g' failed: Invalid character in hex string"},
      {false, "", "abc", "Parse certficate thumbprint 'abc' failed: Hex string length"},
      {true, "CN=whatever", absent,  // the thumbprint wins over the subject
       "Certficate with thumbprint '" + absent + "' not found in store MY"},
      {false, "CN=vantrelo-no-such-subject", "",
       "Certficate with subject 'CN=vantrelo-no-such-subject' not found in store MY"},
  };
  for (const auto& c : cases) {
    LoopbackPair pair;
    TlsSettings settings;
    settings.enabled = true;
    settings.server_role = c.server;
    settings.client_certificate = !c.server;  // "manual": the client looks its certificate up
    settings.store = "MY";
    settings.subject = c.subject;
    settings.thumbprint = c.thumbprint;
    TlsSocket tls("lookup", settings, c.server ? *pair.server : *pair.client);
    const std::string error = errorOf([&] { tls.handshake(); });
    EXPECT_EQ(error.rfind(prefix + c.error, 0), 0u) << error;
    EXPECT_EQ((c.server ? *pair.client : *pair.server).bytesAvailable(), 0u);
  }
}

TEST(TlsWindowsTest, BeforeTheHandshakeAndDisabled) {
  LoopbackPair pair;
  TlsSettings settings;
  settings.enabled = true;
  TlsSocket early("early", settings, *pair.client);
  char byte = 'x';
  EXPECT_EQ(errorOf([&] { early.write(&byte, 1); }), "TLS handshake not complete");
  EXPECT_EQ(errorOf([&] { early.read(&byte, 1); }), "TLS handshake not complete");
  EXPECT_FALSE(early.hasBufferedData());
  early.shutdown();  // nothing to close: no alert, no exception
  EXPECT_EQ(pair.server->bytesAvailable(), 0u);
  TlsSocket plain("plain", TlsSettings(), *pair.client), peer("peer", TlsSettings(), *pair.server);
  plain.handshake();
  plain.write("q", 1);
  EXPECT_EQ(peer.read(&byte, 1), 1u);
  EXPECT_EQ(byte, 'q');
}

// A client session, the server's certificate not validated: the wine trust store does not hold
// the throwaway CA. Null when the peer is not there.
std::unique_ptr<TlsSocket> connectTo(const char* variable, uint32_t id,
                                     std::unique_ptr<Socket>& socket) {
  const char* port = std::getenv(variable);
  if (port == nullptr) return nullptr;
  SocketSettings socketSettings = loopbackSettings(static_cast<uint16_t>(std::atoi(port)));
  socketSettings.readTimeout = 3;
  socket = std::make_unique<Socket>(id, socketSettings);
  socket->connect();
  TlsSettings settings;
  settings.enabled = true;
  settings.validate = false;
  settings.server_name = "localhost";
  auto tls = std::make_unique<TlsSocket>(id, settings, *socket);
  tls->handshake();
  return tls;
}

TEST(OpensslPeerTest, LinesComeBackReversedThenTheCloseAlert) {
  std::unique_ptr<Socket> socket;
  LogRecorder log;
  auto tls = connectTo("VANTRELO_TLS_PEER_PORT", 7, socket);
  if (!tls) GTEST_SKIP() << "no TLS peer (run through tls_windows_peer.py)";
  EXPECT_TRUE(log.contains("I TlsSocket[7]: TLS handshake complete"));
  tls->write("", 0);  // sends nothing: the first answer is the first line's
  for (const std::string& word :
       {std::string("one"), std::string("second line"), std::string(3000, 'x') + "y"}) {
    const std::string line = word + "\n";
    tls->write(line.data(), static_cast<uint32_t>(line.size()));
    std::string answer(line.size(), '\0');
    for (size_t count = 0; count < answer.size();) {
      count += tls->read(answer.data() + count, static_cast<uint32_t>(answer.size() - count));
    }
    EXPECT_EQ(answer, std::string(word.rbegin(), word.rend()) + "\n");
  }
  tls->write("CLOSE\n", 6);
  char byte;
  const std::string closing = errorOf([&] { tls->read(&byte, 1); });
  // Wine's Schannel decrypts the close alert as an empty record instead of reporting the context
  // expired, so there the read goes on waiting for data that never comes.
  HMODULE ntdll = GetModuleHandleA("ntdll.dll");
  const bool wine = ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr;
  EXPECT_EQ(closing.rfind(wine ? "recv() failed: wait() timed out"
                               : "DecryptMessage() failed: TLS context expired: ",
                          0),
            0u)
      << closing;
}

TEST(OpensslPeerTest, LargeWriteArrivesWholeInSeveralRecords) {
  std::string message = "<<BULK\n";
  for (size_t n = 0; message.size() < 70000; ++n)
    message += std::to_string(n * 7919) + (n % 13 == 0 ? '\n' : ' ');
  message += "\nBULK>>\n";
  {
    std::unique_ptr<Socket> socket;
    auto tls = connectTo("VANTRELO_TLS_SINK_PORT", 8, socket);
    if (!tls) GTEST_SKIP() << "no TLS sink (run through tls_windows_peer.py)";
    tls->write(message.data(), static_cast<uint32_t>(message.size()));
    tls->shutdown();
  }
  // The sink writes what it receives to its log; wait until all of it is there.
  std::string received;
  for (int attempt = 0; attempt < 100 && received.find("BULK>>") == std::string::npos; ++attempt) {
    Sleep(100);
    std::ifstream in(std::getenv("VANTRELO_TLS_SINK_LOG"), std::ios::binary);
    received.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  const size_t begin = received.find("<<BULK\n");
  ASSERT_NE(begin, std::string::npos) << received;
  EXPECT_EQ(received.substr(begin, message.size()), message);
}

}  // namespace
}  // namespace ns::net::tls
