#include "worker/listener.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "net/fstrm_socket.h"
#include "net/socket.h"
#include "net/tls_socket.h"
#include "net_test_support.h"
#include "worker_test_support.h"

namespace ns::worker::listener {
namespace {

using net::testing::LogRecorder;
using net::testing::loopbackSettings;
using testing::controlFrame;
using testing::drain;
using testing::waitUntil;

ListenerSettings tcpListener() {
  ListenerSettings settings;
  settings.etw = false;
  settings.type = ListenerType::kIpv4;
  settings.socket = loopbackSettings();
  settings.socket.readTimeout = 1;
  settings.socket.keepalive = 5;
  return settings;
}

// A dnstap sender speaking Frame Streams through the net module, as a DNS server would.
struct Sender {
  Sender(const net::SocketSettings& settings, bool bidirectional)
      : socket(7, settings), tls(7, net::tls::TlsSettings{}, socket) {
    net::fstrm::FstrmSettings fstrmSettings;
    fstrmSettings.bidirectional = bidirectional;
    socket.connect();
    fstrm = std::make_unique<net::fstrm::FstrmSocket>(7, fstrmSettings, socket, tls);
    fstrm->open();
  }
  void send(const std::string& payload) {
    const std::string frame = testing::dataFrame(payload);
    fstrm->writeBytes(frame.data(), static_cast<uint32_t>(frame.size()));
  }

  net::Socket socket;
  net::tls::TlsSocket tls;
  std::unique_ptr<net::fstrm::FstrmSocket> fstrm;
};

// A started listener on an ephemeral port, stopped and joined at the end of the test.
struct Running {
  Running(const ListenerSettings& settings)
      : queue(event::queue::QueueOptions{1 << 22, false, ""}), listener(0, settings, queue) {
    listener.start();
    if (!settings.socket.unix) {
      EXPECT_TRUE(waitUntil([&] { return listener.boundPort() != 0; }));
    }
  }
  ~Running() {
    listener.stop();
    listener.join();
  }
  net::SocketSettings target() const {
    net::SocketSettings settings = listener.settings().socket;
    settings.port = listener.boundPort();
    return settings;
  }

  event::queue::EventQueue queue;
  Listener listener;
};

TEST(ListenerTest, RelaysFramesFromBothKindsOfSender) {
  for (bool bidirectional : {true, false}) {
    SCOPED_TRACE(bidirectional ? "bidirectional" : "unidirectional");
    LogRecorder log;
    Running running(tcpListener());
    const std::vector<std::string> payloads = {std::string(100, 'a'), std::string(200, 'b'),
                                               std::string(300, 'c')};
    {
      Sender sender(running.target(), bidirectional);
      for (const std::string& payload : payloads) sender.send(payload);
      format::ListenerMetrics metrics;
      ASSERT_TRUE(waitUntil([&] {
        running.listener.metrics(metrics);
        return metrics.receivers.size() == 1 && metrics.receivers[0].events_received == 3;
      }));
      EXPECT_EQ(metrics.receivers[0].bytes_received, 612u);
      EXPECT_EQ(metrics.receivers[0].host, "127.0.0.1");
      EXPECT_EQ(metrics.active_receivers, 1u);
      // The orderly close (STOP, and FINISH awaited when bidirectional) succeeds.
      sender.fstrm->close();
    }
    EXPECT_TRUE(waitUntil([&] { return running.listener.activeReceivers() == 0; }));
    EXPECT_TRUE(log.contains("I Listener[0]: Receiver[0] Is finished"));
    EXPECT_EQ(running.listener.accepts(), 1u);
    EXPECT_EQ(running.listener.peakReceivers(), 1u);
    EXPECT_EQ(drain(running.queue), payloads);
  }
}

TEST(ListenerTest, RefusesConnectionsBeyondTheLimitByClosing) {
  ListenerSettings settings = tcpListener();
  settings.socket.maxConnections = 2;
  Running running(settings);
  Sender first(running.target(), true);
  Sender second(running.target(), false);
  ASSERT_TRUE(waitUntil([&] { return running.listener.activeReceivers() == 2; }));

  net::Socket third(9, running.target());
  third.connect();
  char byte = 0;
  // Closed without a word: the first read sees the end of the stream (or a reset).
  EXPECT_THROW(third.recv(&byte, 1), net::SocketError);
  EXPECT_EQ(running.listener.accepts(), 2u);
  EXPECT_EQ(running.listener.peakReceivers(), 2u);

  // A place freed by a finished sender is given to the next one.
  first.fstrm->close();
  first.socket.close();
  ASSERT_TRUE(waitUntil([&] { return running.listener.activeReceivers() == 1; }));
  Sender fourth(running.target(), false);
  EXPECT_TRUE(waitUntil([&] { return running.listener.accepts() == 3; }));
  EXPECT_EQ(running.listener.peakReceivers(), 2u);
}

TEST(ListenerTest, ShortConnectionsLeaveNothingBehind) {
  LogRecorder log;  // keeps the thousands of lines off the console
  Running running(tcpListener());
  const int threadsBefore = testing::threadCount();
  const std::string stream = controlFrame(2, true) + controlFrame(3, false);
  constexpr int kConnections = 1000;
  for (int i = 0; i < kConnections; ++i) {
    net::Socket sender(i, running.target());
    sender.connect();
    // Half say a whole (empty) stream, half hang up at once.
    if (i % 2 == 0) sender.send(stream.data(), stream.size());
  }
  ASSERT_TRUE(waitUntil(
      [&] {
        return running.listener.accepts() == kConnections &&
               running.listener.activeReceivers() == 0;
      },
      std::chrono::seconds(60)));
  if (threadsBefore > 0) {
    EXPECT_TRUE(waitUntil([&] { return testing::threadCount() == threadsBefore; }))
        << testing::threadCount() << " threads, " << threadsBefore << " before";
  }
  EXPECT_EQ(running.listener.peakReceivers() <= kConnections, true);
}

TEST(ListenerTest, StopEndsReceiversStillConnected) {
  LogRecorder log;
  auto running = std::make_unique<Running>(tcpListener());
  Sender sender(running->target(), true);
  ASSERT_TRUE(waitUntil([&] { return running->listener.activeReceivers() == 1; }));
  const auto stopped = std::chrono::steady_clock::now();
  running.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(4));
  EXPECT_TRUE(log.contains("I Receiver[0]: Finished process loop"));
  EXPECT_FALSE(log.contains("I Listener[0]: Receiver[0] Is finished"));
  EXPECT_TRUE(log.contains("I Listener[0]: Finished process loop"));
}

TEST(ListenerTest, UnixSocketPeersAreReportedByIdentity) {
  LogRecorder log;
  ListenerSettings settings = tcpListener();
  settings.type = ListenerType::kUnix;
  settings.socket.unix = true;
  settings.socket.path = ::testing::TempDir() + "relay_listener_" +
                         std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                         ".sock";
  std::remove(settings.socket.path.c_str());
  Running running(settings);
  ASSERT_TRUE(waitUntil([&] {
    return log.contains("I Socket[0]: Listening on " + settings.socket.path) ||
           log.contains("I Listener[0]: Finished process loop");
  }));
  if (log.contains("I Listener[0]: Finished process loop")) {
    GTEST_SKIP() << "no Unix-domain sockets here";
  }
  Sender sender(settings.socket, false);
  sender.send("unix");
  format::ListenerMetrics metrics;
  ASSERT_TRUE(waitUntil([&] {
    running.listener.metrics(metrics);
    return metrics.receivers.size() == 1 && metrics.receivers[0].events_received == 1;
  }));
  const testing::PeerIdentity own = testing::ownPeerIdentity();
  EXPECT_TRUE(metrics.is_unix);
  EXPECT_EQ(metrics.path, settings.socket.path);
  EXPECT_TRUE(metrics.receivers[0].is_unix);
  EXPECT_EQ(metrics.receivers[0].uid, own.uid);
  EXPECT_EQ(metrics.receivers[0].gid, own.gid);
  EXPECT_EQ(metrics.receivers[0].pid, own.pid);
  EXPECT_TRUE(
      log.contains("I Receiver[0]: Handling connection from uid=" + std::to_string(own.uid) +
                   " gid=" + std::to_string(own.gid) + " pid=" + std::to_string(own.pid)));
}

TEST(ListenerTest, EtwListenerRunsItsSessionUntilStopped) {
  LogRecorder log;
  ListenerSettings settings;
  settings.etwSettings.windowsVersion = 3;
  event::queue::EventQueue queue(event::queue::QueueOptions{4096, false, ""});
  Listener listener(2, settings, queue);
  listener.start();
  ASSERT_TRUE(waitUntil([&] { return log.contains("I Listener[2]: Starting ETW session"); }));
  listener.stop();
  listener.join();
  EXPECT_TRUE(log.contains("I Listener[2]: Finished process loop"));
  format::ListenerMetrics metrics;
  listener.metrics(metrics);
  EXPECT_TRUE(metrics.is_etw);
  EXPECT_EQ(metrics.id, 2u);
  EXPECT_TRUE(metrics.receivers.empty());
}

}  // namespace
}  // namespace ns::worker::listener
