#include "worker/receiver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "net_test_support.h"
#include "worker_test_support.h"

namespace ns::worker::receiver {
namespace {

using net::testing::LogRecorder;
using net::testing::LoopbackPair;
using net::testing::loopbackSettings;
using testing::controlFrame;
using testing::dataFrame;
using testing::drain;
using testing::waitUntil;

constexpr uint32_t kReady = 4, kStart = 2, kStop = 3, kAccept = 1, kFinish = 5;

struct Finished {
  std::atomic<int> calls{0};
  static void callback(Receiver&, void* context) { ++static_cast<Finished*>(context)->calls; }
};

// One accepted loopback connection served by a Receiver; the test drives the client side.
struct Connection {
  explicit Connection(const ReceiverSettings& settings)
      : queue(event::queue::QueueOptions{1 << 20, false, ""}), pair(settings.socket) {
    receiver = std::make_unique<Receiver>(settings, &Finished::callback, &finished, queue,
                                          std::move(pair.server));
  }
  ~Connection() {
    if (receiver) {
      receiver->stop();
      receiver->join();
    }
  }
  // Everything the receiver wrote back, read once it is gone and its socket closed.
  std::string replies() {
    receiver->join();
    receiver.reset();
    std::string out;
    char buffer[256];
    try {
      for (;;) out.append(buffer, pair.client->recv(buffer, sizeof buffer));
    } catch (const net::SocketError&) {
    }
    return out;
  }
  std::string failureLine(const std::string& text) const {
    return "E Receiver[" + std::to_string(id) + "]: Process loop failed: " + text;
  }

  event::queue::EventQueue queue;
  LoopbackPair pair;
  Finished finished;
  std::unique_ptr<Receiver> receiver;
  uint32_t id = 0;
};

std::vector<std::string> errorLines(const LogRecorder& log) {
  std::vector<std::string> errors;
  for (const std::string& line : log.lines()) {
    if (line.rfind("E ", 0) == 0) errors.push_back(line);
  }
  return errors;
}

ReceiverSettings shortTimeouts() {
  ReceiverSettings settings;
  settings.socket = loopbackSettings();
  settings.socket.readTimeout = 1;
  settings.socket.keepalive = 2;
  return settings;
}

TEST(ReceiverTest, StreamsEndAsTheSenderDrivesThem) {
  const std::string start = controlFrame(kStart, true);
  const std::string stop = controlFrame(kStop, false);  // its escape ends the data phase
  const std::string f100(100, '1'), f200(200, '2'), f300(300, '3');
  struct Case {
    const char* name;
    std::string input;
    bool hangUp;  // the sender closes right after its input
    std::vector<std::string> events;
    std::string replies;
    std::string failure;  // empty: the stream ends cleanly
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"unidirectional gets no replies", start + dataFrame(f100) + dataFrame(f200) +
           dataFrame(f300) + stop, false, {f100, f200, f300}, "", ""},
      {"bidirectional gets ACCEPT and FINISH", controlFrame(kReady, true) + start +
           dataFrame("xyz") + stop, false, {"xyz"},
           controlFrame(kAccept, true) + controlFrame(kFinish, false), ""},
      {"START without content type", controlFrame(kStart, false), false, {}, "",
           "Expected content type of protobuf:dnstap.Dnstap but did not get it"},
      {"READY followed by STOP", controlFrame(kReady, true) + controlFrame(kStop, true), false,
           {}, controlFrame(kAccept, true), "Unexpected control message type 3"},
      {"FINISH first", controlFrame(kFinish, true), false, {}, "",
           "Unexpected control message type 5"},
      {"READY instead of STOP", start + dataFrame("q") + controlFrame(kReady, false), false,
           {"q"}, "", "Unexpected control message type 4"},
      {"oversized data frame", start + dataFrame("ok") + dataFrame(f300 + "+"), false, {"ok"},
           "", "Data frame length 301 is larger than the configured limit 300"},
      {"close in the middle of a frame", start + dataFrame(f100).substr(0, 14), true, {}, "",
           "recv() failed: socket closed"},
      {"close without STOP", start + dataFrame("w"), true, {"w"}, "",
           "recv() failed: socket closed"},
      {"garbage", "GET / HTTP/1.1\r\n\r\n", false, {}, "",
           "Expected control message preamble of 0 but got 1195725856"},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogRecorder log;
    ReceiverSettings settings = shortTimeouts();
    settings.fstrm.dataFrameMaxSize = 300;
    Connection connection(settings);
    const uint16_t port = connection.pair.client->localPort();
    connection.receiver->start();
    connection.pair.client->send(c.input.data(), c.input.size());
    if (c.hangUp) connection.pair.client->close();
    ASSERT_TRUE(waitUntil([&] { return connection.finished.calls.load() == 1; }));
    // The port is shown as the socket address holds it, in network byte order.
    EXPECT_TRUE(log.contains("I Receiver[0]: Handling connection from 127.0.0.1:" +
                             std::to_string(static_cast<uint16_t>((port >> 8) | (port << 8)))));
    uint64_t bytes = 0;
    for (const std::string& event : c.events) bytes += event.size() + 4;
    EXPECT_EQ(connection.receiver->eventsReceived(), c.events.size());
    EXPECT_EQ(connection.receiver->bytesReceived(), bytes);
    if (!c.hangUp) {
      EXPECT_EQ(connection.replies(), c.replies);
    }
    EXPECT_EQ(drain(connection.queue), c.events);
    if (c.failure.empty()) {
      EXPECT_EQ(errorLines(log), std::vector<std::string>{});
    } else {
      EXPECT_TRUE(log.contains(connection.failureLine(c.failure))) << c.failure;
    }
  }
}

TEST(ReceiverTest, GivesUpASilentSenderAfterKeepalivePlusOneTimeouts) {
  struct Case {
    uint32_t keepalive;
    double minimumSeconds;
  };
  for (const Case& c : {Case{0, 0.9}, Case{2, 2.9}}) {
    SCOPED_TRACE(c.keepalive);
    LogRecorder log;
    ReceiverSettings settings = shortTimeouts();
    settings.socket.keepalive = c.keepalive;
    Connection connection(settings);
    const auto started = std::chrono::steady_clock::now();
    connection.receiver->start();
    const std::string start = controlFrame(kStart, true);
    connection.pair.client->send(start.data(), start.size());
    ASSERT_TRUE(waitUntil([&] { return connection.finished.calls.load() == 1; }));
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_GE(elapsed, c.minimumSeconds);
    EXPECT_LT(elapsed, c.minimumSeconds + 2.5);
    EXPECT_TRUE(log.contains(connection.failureLine("Connection timed out")));
  }
}

TEST(ReceiverTest, StopEndsTheStreamWithoutTheCallback) {
  LogRecorder log;
  ReceiverSettings settings = shortTimeouts();
  settings.socket.readTimeout = 30;
  Connection connection(settings);
  connection.receiver->start();
  const std::string start = controlFrame(kStart, true);
  connection.pair.client->send(start.data(), start.size());
  ASSERT_TRUE(waitUntil([&] {
    return log.contains("I Receiver[0]: Handling connection from 127.0.0.1:" +
                        std::to_string(connection.receiver->peer().port));
  }));
  const auto stopped = std::chrono::steady_clock::now();
  connection.receiver->stop();
  connection.receiver->join();
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(3));
  EXPECT_EQ(connection.finished.calls.load(), 0);
  EXPECT_TRUE(log.contains("I Receiver[0]: Finished process loop"));
}

}  // namespace
}  // namespace ns::worker::receiver
