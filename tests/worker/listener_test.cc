#include "worker/listener.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "net_test_support.h"
#include "worker_test_support.h"

namespace vantrelo::worker::listener {
namespace {

using net::testing::LogRecorder;
using testing::loopbackListener;
using testing::RunningListener;
using testing::Sender;
using testing::waitUntil;

// Both kinds of Frame Streams sender over TCP, and a Unix-domain peer reported by identity.
TEST(ListenerTest, RelaysFramesFromBothKindsOfSender) {
  // Unique per run: test processes running side by side must not share the socket.
  const std::string path =
      ::testing::TempDir() + "relay_listener_" + std::to_string(std::random_device()()) + ".sock";
  for (const std::string kind : {"bidirectional", "unidirectional", "unix"}) {
    SCOPED_TRACE(kind);
    const bool isUnix = kind == "unix";
    LogRecorder log;
    std::remove(path.c_str());
    RunningListener running(isUnix ? parse("unix " + path + " read-timeout=1")
                                   : loopbackListener());
    ASSERT_TRUE(waitUntil([&] {
      return !isUnix || log.contains("I Socket[0]: Listening on " + path) ||
             log.contains("I Listener[0]: Finished process loop");
    }));
    if (isUnix && !log.contains("I Socket[0]: Listening on " + path)) {
      RecordProperty("unix", "no Unix-domain sockets here");
      continue;
    }
    const std::vector<std::string> payloads = {std::string(100, 'a'), std::string(200, 'b'),
                                               std::string(300, 'c')};
    const testing::PeerIdentity own = isUnix ? testing::ownPeerIdentity() : testing::PeerIdentity{};
    {
      Sender sender(running.target(), kind == "bidirectional");
      for (const std::string& payload : payloads) sender.send(payload);
      format::ListenerMetrics metrics;
      ASSERT_TRUE(waitUntil([&] {
        running.listener.metrics(metrics);
        return metrics.receivers.size() == 1 && metrics.receivers[0].events_received == 3;
      }));
      const format::ReceiverMetrics& peer = metrics.receivers[0];
      EXPECT_EQ(std::make_tuple(peer.bytes_received, metrics.active_receivers, metrics.is_unix,
                                peer.is_unix, peer.uid, peer.gid, peer.pid),
                std::make_tuple(612u, 1u, isUnix, isUnix, own.uid, own.gid, own.pid));
      EXPECT_EQ(isUnix ? metrics.path : peer.host, isUnix ? path : "127.0.0.1");
      // The orderly close (STOP, and FINISH awaited when bidirectional) succeeds.
      sender.fstrm->close();
    }
    EXPECT_TRUE(waitUntil([&] { return running.listener.activeReceivers() == 0; }));
    EXPECT_EQ(running.listener.accepts(), 1u);
    EXPECT_EQ(testing::drain(running.queue), payloads);
  }
}

// Many short connections, half of them hung up at once: every receiver is reaped and its thread
// ends. (Refusals beyond max-connections are relay_peer_faults_test.py's.)
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

}  // namespace
}  // namespace vantrelo::worker::listener
