// TlsSocket on Schannel against real peers, run under wine or on Windows (skipped without the
// peers). It needs what tls_windows_peer.py provides on 127.0.0.1: an `openssl s_server -rev` at
// VANTRELO_TLS_PEER_PORT, another that asks for an optional client certificate at
// VANTRELO_TLS_ASK_PORT, an `openssl s_server` at VANTRELO_TLS_SINK_PORT that logs what it
// receives to VANTRELO_TLS_SINK_LOG. (Pre-handshake use and failed certificate lookups are the
// POSIX TLS test's and the system certificate test's.)
#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <string>

#include "net/tls_socket.h"
#include "net_test_support.h"

namespace vantrelo::net::tls {
namespace {

using namespace testing;

// A client that does not validate: the wine trust store does not hold the peers' certificate.
TlsSettings clientSettings() {
  TlsSettings settings;
  settings.enabled = true;
  settings.validate = false;
  settings.server_name = "localhost";
  return settings;
}

// A client session with one of the harness's s_server peers.
struct PeerSession {
  PeerSession(uint32_t id, const char* port)
      : socket(id, loopbackSettings(static_cast<uint16_t>(std::atoi(port)), 3)),
        tls(id, clientSettings(), socket) {
    connectWithRetry(socket);  // s_server may still be starting
    tls.handshake();
  }
  Socket socket;
  TlsSocket tls;
};

// `openssl s_server -rev` answers each line reversed and sends its close alert on a line "CLOSE".
// The second peer asks for a client certificate without requiring one (`s_server -verify`): the
// session goes on without one. Windows' Schannel first reports the certificate missing and is
// asked again to go on without; wine's goes on by itself.
TEST(TlsWindowsTest, LinesComeBackReversedThenTheCloseAlert) {
  for (const char* variable : {"VANTRELO_TLS_PEER_PORT", "VANTRELO_TLS_ASK_PORT"}) {
    SCOPED_TRACE(variable);
    const char* port = std::getenv(variable);
    if (port == nullptr) GTEST_SKIP() << "no TLS peer (run through tls_windows_peer.py)";
    LogRecorder log;
    PeerSession peer(7, port);
    EXPECT_TRUE(log.contains("I TlsSocket[7]: TLS handshake complete"));
    peer.tls.write("", 0);  // sends nothing: the first answer is the first line's
    for (const std::string& word :
         {std::string("one"), std::string("second line"), std::string(3000, 'x') + "y"}) {
      const std::string line = word + "\n";
      peer.tls.write(line.data(), static_cast<uint32_t>(line.size()));
      std::string answer(line.size(), '\0');
      for (size_t count = 0; count < answer.size();) {
        count += peer.tls.read(answer.data() + count, static_cast<uint32_t>(answer.size() - count));
      }
      EXPECT_EQ(answer, std::string(word.rbegin(), word.rend()) + "\n");
    }
    peer.tls.write("CLOSE\n", 6);
    char byte;
    const std::string closing = errorOf([&] { peer.tls.read(&byte, 1); });
    // Wine's Schannel decrypts the close alert as an empty record instead of reporting the
    // context expired, so there the read goes on waiting for data that never comes.
    HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    const std::string expected = GetProcAddress(ntdll, "wine_get_version") != nullptr
                                     ? "recv() failed: wait() timed out"
                                     : "DecryptMessage() failed: TLS context expired: ";
    EXPECT_EQ(closing.rfind(expected, 0), 0u) << closing;
  }
}

// The other s_server writes what it receives to its log.
TEST(TlsWindowsTest, LargeWriteArrivesWholeInSeveralRecords) {
  const char* port = std::getenv("VANTRELO_TLS_SINK_PORT");
  if (port == nullptr) GTEST_SKIP() << "no TLS sink (run through tls_windows_peer.py)";
  std::string message = "<<BULK\n";
  for (size_t n = 0; message.size() < 70000; ++n) message += std::to_string(n * 7919) + "\n ";
  message += "\nBULK>>\n";
  {
    PeerSession sink(8, port);
    sink.tls.write(message.data(), static_cast<uint32_t>(message.size()));
    sink.tls.shutdown();
  }
  std::string received;
  for (int attempt = 0; attempt < 100 && received.find("BULK>>") == std::string::npos; ++attempt) {
    Sleep(100);
    received = readFile(std::getenv("VANTRELO_TLS_SINK_LOG"));
  }
  const size_t begin = received.find("<<BULK\n");
  ASSERT_NE(begin, std::string::npos) << received;
  EXPECT_EQ(received.substr(begin, message.size()), message);
}

}  // namespace
}  // namespace vantrelo::net::tls
