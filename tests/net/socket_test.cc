#include "net/socket.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "net_test_support.h"

#ifdef _WIN32
#include <winsock2.h>
#else
#include <arpa/inet.h>
#endif

namespace vantrelo::net {
namespace {

using namespace testing;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(SocketTest, ConnectAndListenOutcomes) {
  Socket open(1, loopbackSettings());
  open.listen();
  const uint16_t closed = unusedPort();
  const struct {
    std::string host;
    bool ipv6, listen, refused;
    std::string error;    // prefix; "(no error)" for success
    std::string logLine;  // prefix of a line that must be logged, if any
  } cases[] = {
      {"127.0.0.1", false, false, true, "connect() failed: ", ""},
      {"127.0.0.1", true, false, true, "Parse IPv6 address failed: ", ""},
      {"no-such-host.invalid", false, false, true,
       "getaddrinfo(no-such-host.invalid/A) failed: ", ""},
      // A name is resolved and every address tried; each refusal is a warning.
      {"localhost", false, false, true, "Failed to connect to any host",
       "W Socket[7]: Connect to 127.0.0.1:" + std::to_string(closed) +
           " failed: connect() failed: "},
      // The log shows the address connected to, without the port.
      {"localhost", false, false, false, "(no error)", "I Socket[7]: Connected to 127.0.0.1"},
      // A listener needs an address literal of its family.
      {"localhost", false, true, false, "Parse IPv4 address failed: ", ""},
      // A second listener on a port must fail to bind, not share the port and take some of its
      // connections (another agent started beside the service).
      {"127.0.0.1", false, true, false, "bind() failed: ", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.host + " " + c.error);
    SocketSettings settings = loopbackSettings(c.refused ? closed : open.localPort());
    settings.host = c.host;
    settings.ipv6 = c.ipv6;
    LogRecorder log;
    Socket socket(7, settings);
    const std::string error = errorOf([&] { c.listen ? socket.listen() : socket.connect(); });
    EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
    EXPECT_EQ(error.find("timed out"), std::string::npos);
    EXPECT_TRUE(c.error != "(no error)" || socket.isOpen());
    EXPECT_TRUE(c.logLine.empty() || log.contains(c.logLine)) << c.logLine;
  }
}

// A wait ends after whole seconds of time-out, or at a stop request on a patient socket: at
// once, or only once a pass finds nothing to read, so that a peer still answering is heard out.
TEST(SocketTest, TimeOutsAndStopRequestsEndWaits) {
  const struct {
    bool write;
    uint32_t seconds;
    const char* stop;  // "" none, "now" at once, "blocked" when blocked
    bool dataPending;
    std::string error;
    double minimum, maximum;
  } cases[] = {
      {false, 0, "", false, "recv() failed: wait() timed out", 0.0, 0.5},
      {false, 1, "", false, "recv() failed: wait() timed out", 0.9, 2.5},
      {true, 1, "", false, "send() failed: wait() timed out", 0.9, 3.5},
      {false, 120, "now", true, kStopRequested, 0.0, 3.0},
      {false, 120, "now", false, kStopRequested, 0.0, 3.0},
      {false, 120, "blocked", true, "(no error)", 0.0, 3.0},
      {false, 120, "blocked", false, kStopRequested, 0.0, 3.0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error + " after " + std::to_string(c.seconds) + " " + c.stop);
    SocketSettings settings = loopbackSettings();
    settings.readTimeout = settings.writeTimeout = c.seconds;
    settings.sendBufferSize = settings.recvBufferSize = 4096;
    LoopbackPair pair(settings);
    const std::atomic<bool> stop{true};
    if (*c.stop)
      pair.server->stopOn(&stop, *c.stop == 'n' ? StopMode::kAtOnce : StopMode::kWhenBlocked);
    std::vector<char> data(c.write ? 16 << 20 : 1, 'x');  // far more than the buffers take
    if (c.dataPending) pair.client->send(data.data(), 1);
    const auto start = Clock::now();
    EXPECT_EQ(errorOf([&] {
                c.write ? pair.client->send(data.data(), data.size())
                        : (void)pair.server->recv(data.data(), 1);
              }),
              c.error);
    EXPECT_GE(secondsSince(start), c.minimum);
    EXPECT_LE(secondsSince(start), c.maximum);
  }
}

// The peer's TCP acknowledges what its receive buffer takes, read or not: the count of bytes
// still unacknowledged falls to 0 before the peer reads. Closing forgets the counts.
TEST(SocketTest, OneConnectionFromAcceptToClose) {
  LoopbackPair pair;
  EXPECT_EQ(pair.server->id(), 0u);  // accepted connections are numbered from 0
  const auto start = Clock::now();
  EXPECT_EQ(pair.listener->accept(), nullptr);
  EXPECT_LT(secondsSince(start), 0.5);
  const PeerAddress atServer = pair.server->peer();
  EXPECT_FALSE(atServer.unix || atServer.ipv6);
  EXPECT_EQ(atServer.host, "127.0.0.1");
  EXPECT_EQ(atServer.port, htons(pair.client->localPort()));  // in network byte order
  EXPECT_EQ(pair.client->peer().port, htons(pair.listener->localPort()));
  const std::string data(50000, 'x');
  pair.client->send("", 0);
  pair.client->send(data.data(), data.size());
  EXPECT_EQ(pair.client->bytesWritten(), data.size());
  int64_t pending = pair.client->unacknowledgedBytes();  // -1: the system does not tell
  EXPECT_LE(pending, static_cast<int64_t>(data.size()));
  while (pending > 0 && secondsSince(start) < 10) pending = pair.client->unacknowledgedBytes();
  EXPECT_LE(pending, 0);
  std::string received;
  for (char buffer[4096]; received.size() < data.size();) {
    received.append(buffer, pair.server->recv(buffer, sizeof buffer));
  }
  EXPECT_EQ(received, data);
  EXPECT_EQ(pair.server->bytesAvailable(), 0u);
  pair.client->close();
  pair.client->close();  // closing twice is harmless
  EXPECT_EQ(pair.client->bytesWritten(), 0u);
  EXPECT_EQ(pair.client->unacknowledgedBytes(), -1);
  EXPECT_EQ(errorOf([&] { pair.server->recv(received.data(), 1); }),
            "recv() failed: socket closed");
  Socket second(201, pair.client->settings());
  second.connect();
  EXPECT_EQ(acceptOne(*pair.listener)->id(), 1u);
}

// The peer's credentials over a Unix-domain socket are checked by the listener's tests.
TEST(SocketTest, UnixListenersOwnTheirSocketFile) {
  SocketSettings settings = loopbackSettings();
  settings.unix = true;
  settings.path = ::testing::TempDir() + "vantrelo-net-" + std::to_string(::getpid()) + ".sock";
  std::filesystem::remove(settings.path);
  LogRecorder log;
  {
    Socket probe(1, settings);  // older Windows and wine lack Unix-domain sockets
    if (errorOf([&] { probe.listen(); }).rfind("socket() failed", 0) == 0) GTEST_SKIP();
    // A second listener takes over the path of the first.
    LoopbackPair pair(settings);
    EXPECT_TRUE(log.contains("I Socket[200]: Connected to " + settings.path));
    EXPECT_TRUE(pair.server->peer().unix);
  }
  EXPECT_FALSE(std::filesystem::exists(settings.path));  // removed by its listener's close
  std::ofstream(settings.path) << "not a socket";
  Socket third(4, settings);
  EXPECT_EQ(errorOf([&] { third.listen(); }).rfind("bind() failed: ", 0), 0u);
  EXPECT_TRUE(std::filesystem::is_regular_file(settings.path));
  std::filesystem::remove(settings.path);
}

}  // namespace
}  // namespace vantrelo::net
