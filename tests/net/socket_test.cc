#include "net/socket.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "net_test_support.h"

#ifdef _WIN32
#include <winsock2.h>
#else
#include <arpa/inet.h>
#include <unistd.h>
#endif

namespace ns::net {
namespace {

using testing::LogRecorder;
using testing::LoopbackPair;
using testing::loopbackSettings;
using Clock = std::chrono::steady_clock;

std::string errorOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const SocketError& e) {
    return e.what();
  }
  return "(no error)";
}

uint16_t unusedPort() {
  Socket probe(1, loopbackSettings(0));
  probe.listen();
  return probe.localPort();
}

TEST(SocketTest, ConnectFailuresCarryTheirMessages) {
  const uint16_t closedPort = unusedPort();
  struct Case {
    const char* name;
    std::string host;
    bool ipv6;
    std::string expectedPrefix;
  };
  const std::vector<Case> cases = {
      {"refused literal", "127.0.0.1", false, "connect() failed: "},
      {"IPv4 literal with ipv6 set", "127.0.0.1", true, "Parse IPv6 address failed: "},
      {"unresolvable name", "no-such-host.invalid", false,
       "getaddrinfo(no-such-host.invalid/A) failed: "},
  };
  for (const Case& c : cases) {
    SocketSettings settings = loopbackSettings(closedPort);
    settings.host = c.host;
    settings.ipv6 = c.ipv6;
    Socket socket(3, settings);
    std::string message = errorOf([&] { socket.connect(); });
    EXPECT_EQ(message.rfind(c.expectedPrefix, 0), 0u) << c.name << ": " << message;
    EXPECT_EQ(message.find("timed out"), std::string::npos) << c.name;
  }
}

TEST(SocketTest, ResolvedNameConnectsAndLogsAddressWithoutPort) {
  Socket listener(1, loopbackSettings(0));
  listener.listen();
  SocketSettings settings = loopbackSettings(listener.localPort());
  settings.host = "localhost";
  LogRecorder log;
  Socket client(7, settings);
  client.connect();
  EXPECT_TRUE(client.isOpen());
  EXPECT_TRUE(log.contains("I Socket[7]: Connected to 127.0.0.1")) << log.lines().size();
}

TEST(SocketTest, ResolvedAddressesThatRefuseAreLoggedThenAllFail) {
  // Whatever addresses "localhost" has, nothing listens on this port: each one is tried,
  // warned about, and the attempt ends with the summary error.
  const uint16_t port = unusedPort();
  SocketSettings settings = loopbackSettings(port);
  settings.host = "localhost";
  LogRecorder log;
  Socket client(8, settings);
  EXPECT_EQ(errorOf([&] { client.connect(); }), "Failed to connect to any host");
  EXPECT_FALSE(client.isOpen());
  const std::string warning =
      "W Socket[8]: Connect to 127.0.0.1:" + std::to_string(port) + " failed: connect() failed: ";
  bool found = false;
  for (const std::string& line : log.lines()) found |= line.rfind(warning, 0) == 0;
  EXPECT_TRUE(found);
}

TEST(SocketTest, ConnectTimesOutWhenTheListenQueueIsFull) {
#ifdef _WIN32
  GTEST_SKIP() << "Windows refuses connections beyond the backlog instead of ignoring them";
#else
  SocketSettings listenSettings = loopbackSettings(0);
  listenSettings.listenBacklog = 0;
  Socket listener(1, listenSettings);
  listener.listen();
  SocketSettings settings = loopbackSettings(listener.localPort());
  settings.connectTimeout = 1;
  // Fill the accept queue; once full, further connection requests go unanswered.
  std::vector<std::unique_ptr<Socket> > fillers;
  std::string message;
  for (int i = 0; i < 8 && message.empty(); ++i) {
    auto socket = std::make_unique<Socket>(10 + i, settings);
    try {
      socket->connect();
      fillers.push_back(std::move(socket));
    } catch (const SocketError& e) {
      message = e.what();
    }
  }
  EXPECT_EQ(message, "connect() failed: wait() timed out");
#endif
}

TEST(SocketTest, ReadTimeOutsCountWholeSeconds) {
  struct Case {
    uint32_t seconds;
    double minimum;
    double maximum;
  };
  for (const Case& c : std::vector<Case>{{0, 0.0, 0.5}, {1, 0.9, 2.5}}) {
    SocketSettings settings = loopbackSettings();
    settings.readTimeout = c.seconds;
    LoopbackPair pair(settings);
    char byte;
    auto start = Clock::now();
    EXPECT_EQ(errorOf([&] { pair.server->recv(&byte, 1); }), "recv() failed: wait() timed out");
    double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    EXPECT_GE(elapsed, c.minimum) << c.seconds;
    EXPECT_LE(elapsed, c.maximum) << c.seconds;
  }
}

TEST(SocketTest, WriteTimesOutWhenThePeerDoesNotRead) {
  SocketSettings settings = loopbackSettings();
  settings.writeTimeout = 1;
  settings.sendBufferSize = 4096;
  settings.recvBufferSize = 4096;
  LoopbackPair pair(settings);
  std::vector<char> data(16 * 1024 * 1024, 'x');
  EXPECT_EQ(errorOf([&] { pair.client->send(data.data(), data.size()); }),
            "send() failed: wait() timed out");
}

TEST(SocketTest, DataAndPeerCloseArriveInOrder) {
  LoopbackPair pair;
  pair.client->send("", 0);  // nothing to send, nothing sent
  pair.client->send("hello", 5);
  std::string received;
  while (received.size() < 5) {
    char buffer[16];
    received.append(buffer, pair.server->recv(buffer, sizeof buffer));
  }
  EXPECT_EQ(received, "hello");
  EXPECT_EQ(pair.server->bytesAvailable(), 0u);
  pair.client->close();
  pair.client->close();  // closing twice is harmless
  char byte;
  EXPECT_EQ(errorOf([&] { pair.server->recv(&byte, 1); }), "recv() failed: socket closed");
  Socket closed(9, loopbackSettings());
  EXPECT_EQ(closed.bytesAvailable(), 0u);
}

TEST(SocketTest, AcceptReturnsNullWithoutWaitingAndNumbersConnections) {
  LoopbackPair pair;
  EXPECT_EQ(pair.server->id(), 0u);
  auto start = Clock::now();
  EXPECT_EQ(pair.listener->accept(), nullptr);
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - start).count(), 0.5);
  Socket second(201, pair.client->settings());
  second.connect();
  EXPECT_EQ(testing::acceptOne(*pair.listener)->id(), 1u);
}

TEST(SocketTest, PeerReportsNumericHostAndPortInNetworkOrder) {
  LoopbackPair pair;
  PeerAddress atServer = pair.server->peer();
  EXPECT_FALSE(atServer.unix);
  EXPECT_FALSE(atServer.ipv6);
  EXPECT_EQ(atServer.host, "127.0.0.1");
  EXPECT_EQ(atServer.port, htons(pair.client->localPort()));
  PeerAddress atClient = pair.client->peer();
  EXPECT_EQ(atClient.port, htons(pair.listener->localPort()));
}

TEST(SocketTest, ListenNeedsAnAddressLiteral) {
  struct Case {
    std::string host;
    bool ipv6;
    std::string expectedPrefix;
  };
  for (const Case& c : std::vector<Case>{{"localhost", false, "Parse IPv4 address failed: "},
                                         {"localhost", true, "Parse IPv6 address failed: "},
                                         {"::1", false, "Parse IPv4 address failed: "}}) {
    SocketSettings settings = loopbackSettings();
    settings.host = c.host;
    settings.ipv6 = c.ipv6;
    Socket socket(1, settings);
    std::string message = errorOf([&] { socket.listen(); });
    EXPECT_EQ(message.rfind(c.expectedPrefix, 0), 0u) << c.host << ": " << message;
  }
}

class UnixSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = (std::filesystem::temp_directory_path() /
             ("vantrelo-net-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
              "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".sock"))
                .string();
    std::filesystem::remove(path_);
    settings_ = loopbackSettings();
    settings_.unix = true;
    settings_.path = path_;
  }
  void TearDown() override { std::filesystem::remove(path_); }

  // Some systems (older Windows, wine) lack Unix-domain sockets.
  bool supported() {
    Socket probe(1, settings_);
    try {
      probe.listen();
      return true;
    } catch (const SocketError& e) {
      return std::string(e.what()).rfind("socket() failed", 0) != 0;
    }
  }

  std::string path_;
  SocketSettings settings_;
};

TEST_F(UnixSocketTest, ConnectsReportsCredentialsAndRemovesItsFile) {
  if (!supported()) GTEST_SKIP() << "no Unix-domain sockets here";
  LogRecorder log;
  {
    LoopbackPair pair(settings_);
    EXPECT_TRUE(log.contains("I Socket[100]: Listening on " + path_));
    EXPECT_TRUE(log.contains("I Socket[200]: Connected to " + path_));
    PeerAddress peer = pair.server->peer();
    EXPECT_TRUE(peer.unix);
#ifndef _WIN32
    EXPECT_EQ(peer.uid, static_cast<uint32_t>(::getuid()));
    EXPECT_EQ(peer.gid, static_cast<uint32_t>(::getgid()));
    EXPECT_EQ(peer.pid, static_cast<uint32_t>(::getpid()));
#endif
    pair.client->send("ab", 2);
    char buffer[2];
    size_t got = pair.server->recv(buffer, 2);
    if (got == 1) got += pair.server->recv(buffer + 1, 1);
    EXPECT_EQ(std::string(buffer, 2), "ab");
    EXPECT_TRUE(std::filesystem::exists(path_));
  }
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(UnixSocketTest, ReplacesAStaleSocketButNeverARegularFile) {
  if (!supported()) GTEST_SKIP() << "no Unix-domain sockets here";
  Socket first(1, settings_);
  first.listen();
  Socket second(2, settings_);
  second.listen();  // takes over the path of the first
  Socket client(3, settings_);
  client.connect();
  EXPECT_NE(testing::acceptOne(second), nullptr);

  second.close();
  first.close();
  { std::ofstream(path_) << "not a socket"; }
  Socket third(4, settings_);
  EXPECT_EQ(errorOf([&] { third.listen(); }).rfind("bind() failed: ", 0), 0u);
  EXPECT_TRUE(std::filesystem::is_regular_file(path_));
}

}  // namespace
}  // namespace ns::net
