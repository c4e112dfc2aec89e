// Feeds arbitrary bytes, as a peer's stream over a loopback connection, to the receiving side
// of Frame Streams as a receiver drives it. Every input must end in an exception or a clean end
// of stream: never a crash, and never a hang (the peer closes after its bytes, and every read
// has a one-second time-out).
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <thread>

#include "base/log.h"
#include "net/fstrm_socket.h"
#include "net/socket.h"
#include "net/tls_socket.h"

namespace {

using vantrelo::net::Socket;
using vantrelo::net::SocketSettings;
using namespace vantrelo::net::fstrm;

SocketSettings loopback() {
  SocketSettings settings;
  settings.unix = false;
  settings.host = "127.0.0.1";
  settings.port = 0;
  settings.connectTimeout = 1;
  settings.readTimeout = 1;
  settings.writeTimeout = 1;
  return settings;
}

// Connection lines for every input would drown the fuzzer's own output.
class QuietLog : public vantrelo::log::SystemLog {
 public:
  bool write(vantrelo::log::Level, const std::string&) override { return true; }
};

Socket& listener() {
  static Socket* socket = [] {
    static QuietLog quiet;
    vantrelo::log::setSystemLog(&quiet);
    vantrelo::net::startNetworking();
    auto* s = new Socket(0, loopback());
    s->listen();
    return s;
  }();
  return *socket;
}

void receive(FstrmSocket& fstrm) {
  uint32_t type = fstrm.readControl(true, true);
  bool bidirectional = type == kControlReady;
  if (bidirectional) {
    fstrm.writeControl(kControlAccept, true);
    type = fstrm.readControl(true, true);
  }
  if (type != kControlStart) return;
  std::string payload;
  while (uint32_t length = fstrm.readFrameLength(true)) fstrm.readBytes(payload, length);
  if (fstrm.readControl(false, false) == kControlStop && bidirectional) {
    fstrm.writeControl(kControlFinish, false);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Socket& server = listener();
  SocketSettings settings = loopback();
  settings.port = server.localPort();
  Socket client(1, settings);
  client.connect();
  std::unique_ptr<Socket> accepted;
  while (!(accepted = server.accept())) server.wait(true, 1);

  std::thread peer([&] {
    try {
      client.send(data, size);
    } catch (const std::exception&) {
      // The receiver gave up early and closed; the rest of the input does not matter.
    }
    client.close();
  });
  {
    vantrelo::net::tls::TlsSocket tls(accepted->id(), vantrelo::net::tls::TlsSettings(), *accepted);
    FstrmSettings limits;
    limits.controlFrameMaxSize = 512;
    limits.dataFrameMaxSize = 4096;
    FstrmSocket fstrm(accepted->id(), limits, *accepted, tls);
    try {
      receive(fstrm);
    } catch (const std::exception&) {
      // Protocol and socket errors are the expected ends of a malformed stream.
    }
  }
  accepted->close();
  peer.join();
  return 0;
}
