#include "worker/listener.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "net_test_support.h"
#include "worker_test_support.h"

namespace ns::worker::listener {
namespace {

using net::testing::LogRecorder;
using testing::loopbackListener;
using testing::RunningListener;
using testing::Sender;
using testing::waitUntil;

TEST(ListenerTest, RelaysFramesFromBothKindsOfSender) {
  for (bool bidirectional : {true, false}) {
    SCOPED_TRACE(bidirectional ? "bidirectional" : "unidirectional");
    LogRecorder log;
    RunningListener running(loopbackListener());
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
    EXPECT_EQ(testing::drain(running.queue), payloads);
  }
}

// A stop ends the receivers still connected, promptly.
TEST(ListenerTest, RefusesConnectionsBeyondTheLimitByClosingAndStopsPromptly) {
  LogRecorder log;
  ListenerSettings settings = loopbackListener();
  settings.socket.maxConnections = 2;
  auto running = std::make_unique<RunningListener>(settings);
  Listener& listener = running->listener;
  Sender first(running->target(), true), second(running->target(), false);
  ASSERT_TRUE(waitUntil([&] { return listener.activeReceivers() == 2; }));
  net::Socket third(9, running->target());
  third.connect();
  char byte = 0;
  // Closed without a word: the first read sees the end of the stream (or a reset).
  EXPECT_THROW(third.recv(&byte, 1), net::SocketError);
  EXPECT_EQ(listener.accepts(), 2u);
  // A place freed by a finished sender is given to the next one.
  first.fstrm->close();
  first.socket.close();
  ASSERT_TRUE(waitUntil([&] { return listener.activeReceivers() == 1; }));
  Sender fourth(running->target(), false);
  EXPECT_TRUE(
      waitUntil([&] { return listener.accepts() == 3 && listener.activeReceivers() == 2; }));
  EXPECT_EQ(listener.peakReceivers(), 2u);
  const auto stopped = std::chrono::steady_clock::now();
  running.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(3));
  EXPECT_TRUE(log.contains("I Receiver[3]: Finished process loop"));
  // A receiver told to stop does not report itself finished to a listener tearing it down.
  EXPECT_FALSE(log.contains("I Listener[0]: Receiver[3] Is finished"));
  EXPECT_TRUE(log.contains("I Listener[0]: Finished process loop"));
}

TEST(ListenerTest, ShortConnectionsLeaveNothingBehind) {
  LogRecorder log;  // keeps the thousands of lines off the console
  RunningListener running(loopbackListener());
  const int threadsBefore = testing::threadCount();
  const std::string stream = testing::controlFrame(2, true) + testing::controlFrame(3, false);
  constexpr int kConnections = 500;
  for (int i = 0; i < kConnections; ++i) {
    net::Socket sender(i, running.target());
    sender.connect();
    // Half send a whole (empty) stream, half hang up at once.
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
}

TEST(ListenerTest, UnixSocketPeersAreReportedByIdentity) {
  LogRecorder log;
  const std::string path = ::testing::TempDir() + "relay_listener_" +
                           std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
                           ".sock";
  std::remove(path.c_str());
  RunningListener running(parse("unix " + path + " read-timeout=1"));
  ASSERT_TRUE(waitUntil([&] {
    return log.contains("I Socket[0]: Listening on " + path) ||
           log.contains("I Listener[0]: Finished process loop");
  }));
  if (log.contains("I Listener[0]: Finished process loop")) {
    GTEST_SKIP() << "no Unix-domain sockets here";
  }
  Sender sender(running.target(), false);
  sender.send("unix");
  format::ListenerMetrics metrics;
  ASSERT_TRUE(waitUntil([&] {
    running.listener.metrics(metrics);
    return metrics.receivers.size() == 1 && metrics.receivers[0].events_received == 1;
  }));
  const testing::PeerIdentity own = testing::ownPeerIdentity();
  const auto& peer = metrics.receivers[0];
  EXPECT_EQ(
      std::make_tuple(metrics.is_unix, metrics.path, peer.is_unix, peer.uid, peer.gid, peer.pid),
      std::make_tuple(true, path, true, own.uid, own.gid, own.pid));
  EXPECT_TRUE(
      log.contains("I Receiver[0]: Handling connection from uid=" + std::to_string(own.uid) +
                   " gid=" + std::to_string(own.gid) + " pid=" + std::to_string(own.pid)));
}

}  // namespace
}  // namespace ns::worker::listener
