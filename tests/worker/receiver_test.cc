// Receivers are driven through a running listener, which accepts the connections, reaps the
// receivers that end and must keep serving everyone else.
#include "worker/receiver.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "net_test_support.h"
#include "worker_test_support.h"

namespace vantrelo::worker::receiver {
namespace {

using net::testing::LogRecorder;
using testing::controlFrame;
using testing::dataFrame;
using testing::waitUntil;

constexpr uint32_t kAccept = 1, kStart = 2, kStop = 3, kReady = 4;

// Everything the peer writes until it closes the connection.
std::string readToEnd(net::Socket& socket) {
  std::string out;
  char buffer[256];
  try {
    for (;;) out.append(buffer, socket.recv(buffer, sizeof buffer));
  } catch (const net::SocketError&) {
  }
  return out;
}

// Garbage, an oversized frame, a close mid-frame and a silent sender (keepalive + 1 read
// time-outs) are each a bad sender of relay_sender_faults_test.py, next to a good one that loses
// nothing; fstrm_socket_test.cc checks their texts on both platforms. (A bidirectional sender's
// ACCEPT and FINISH are listener_test.cc's.)
TEST(ReceiverTest, StreamsEndAsTheSenderDrivesThemAndOnlyTheirOwnConnection) {
  const std::string start = controlFrame(kStart, true);
  const std::string stop = controlFrame(kStop, false);  // its escape ends the data phase
  const std::string f100(100, '1'), f200(200, '2'), f300(300, '3');
  struct Case {
    const char* name;
    std::string input;
    std::vector<std::string> events;
    std::string replies;
    std::string failure;  // empty: the stream ends cleanly
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"unidirectional gets no replies", start + dataFrame(f100) + dataFrame(f200) +
           dataFrame(f300) + stop, {f100, f200, f300}, "", ""},
      {"START without content type", controlFrame(kStart, false), {}, "",
           "Expected content type of protobuf:dnstap.Dnstap but did not get it"},
      {"READY followed by STOP", controlFrame(kReady, true) + controlFrame(kStop, true), {},
           controlFrame(kAccept, true), "Unexpected control message type 3"},
      {"READY instead of STOP", start + dataFrame("q") + controlFrame(kReady, false), {"q"}, "",
           "Unexpected control message type 4"},
  };
  // clang-format on
  LogRecorder log;
  testing::RunningListener running(testing::loopbackListener(30));
  testing::Sender bystander(running.target(), true);  // receiver 0, idle throughout
  for (uint32_t id = 1; id <= cases.size(); ++id) {
    const Case& c = cases[id - 1];
    SCOPED_TRACE(c.name);
    net::Socket sender(id, net::testing::loopbackSettings(running.target().port));
    sender.connect();
    const uint16_t port = sender.localPort();
    sender.send(c.input.data(), c.input.size());
    const std::string prefix = "Receiver[" + std::to_string(id) + "]";
    ASSERT_TRUE(
        waitUntil([&] { return log.contains("I Listener[0]: " + prefix + " Is finished"); }));
    EXPECT_EQ(readToEnd(sender), c.replies);
    // The port is shown as the socket address holds it, in network byte order.
    EXPECT_TRUE(log.contains("I " + prefix + ": Handling connection from 127.0.0.1:" +
                             std::to_string(static_cast<uint16_t>((port >> 8) | (port << 8)))));
    EXPECT_EQ(testing::drain(running.queue), c.events);
    std::vector<std::string> expected;
    if (!c.failure.empty()) {
      expected.push_back("E " + prefix + ": Process loop failed: " + c.failure);
    }
    EXPECT_EQ(testing::linesStartingWith(log, "E " + prefix), expected);
  }
  bystander.send("still served");
  EXPECT_TRUE(waitUntil([&] { return running.queue.count() == 1; }));
  EXPECT_EQ(running.listener.activeReceivers(), 1u);
  // A stop ends the receivers still connected, promptly; one told to stop does not report itself
  // finished to a listener tearing it down.
  const auto stopped = std::chrono::steady_clock::now();
  running.listener.stop();
  running.listener.join();
  // Well short of the 31 s a silent connection is given, with room for a loaded machine.
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(10));
  EXPECT_TRUE(log.contains("I Receiver[0]: Finished process loop"));
  EXPECT_FALSE(log.contains("I Listener[0]: Receiver[0] Is finished"));
  EXPECT_TRUE(log.contains("I Listener[0]: Finished process loop"));
}

}  // namespace
}  // namespace vantrelo::worker::receiver
