#include "worker/forwarder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "encoding/text_encoding.h"
#include "net_test_support.h"
#include "worker_test_support.h"

namespace vantrelo::worker::forwarder {
namespace {

using format::MessageFormat;
using net::testing::LogRecorder;
using net::testing::loopbackSettings;
using testing::clientQueryEvent;
using testing::waitUntil;
using Clock = std::chrono::steady_clock;

// The event number in a formatted line (the first "e<digits>.example"), or -1.
int64_t eventNumberIn(const std::string& line) {
  const size_t end = line.find(".example");
  size_t begin = end;
  while (begin != std::string::npos && begin > 0 && std::isdigit(line[begin - 1])) --begin;
  const bool found = begin != end && begin > 0 && line[begin - 1] == 'e';
  return found ? std::stoll(line.substr(begin, end - begin)) : -1;
}

// The collector's side of one forwarder connection, served from the test thread line by line.
// (Dnstap collectors are real peers in the integration tests, which check every payload.)
class Collector {
 public:
  explicit Collector(net::Socket& listener) : connection_(net::testing::acceptOne(listener)) {}
  std::string next() {
    for (char buffer[4096]; pending_.find('\n') == std::string::npos;) {
      pending_.append(buffer, connection_->recv(buffer, sizeof buffer));
    }
    const std::string line = pending_.substr(0, pending_.find('\n'));
    pending_.erase(0, line.size() + 1);
    return line;
  }

 private:
  std::unique_ptr<net::Socket> connection_;
  std::string pending_;
};

// A forwarder of the given format and options, with its queue, towards a loopback collector
// socket of its own (or `port`); a file as output puts it in standard-output mode.
struct Running {
  Running(uint32_t id, MessageFormat format, const std::string& options, std::FILE* output = stdout,
          uint16_t port = 0)
      : listener(50, loopbackSettings()), queue(event::queue::QueueOptions{1 << 20, false, ""}) {
    if (port == 0) {
      listener.listen();
      port = listener.localPort();
    }
    messages.format = format;
    messages.hostname = "relay-test";
    ForwarderSettings settings =
        parse("ipv4 127.0.0.1 " + std::to_string(port) + " connect-timeout=1 " + options);
    settings.toStdout = output != stdout;
    forwarder = std::make_unique<Forwarder>(id, settings, queue, messages, output);
  }
  void push(uint32_t first, uint32_t count) {
    for (uint32_t number = first; number < first + count; ++number) push(clientQueryEvent(number));
  }
  void push(const std::string& event) {
    queue.push(reinterpret_cast<const uint8_t*>(event.data()), static_cast<uint32_t>(event.size()));
  }
  void stop() {
    forwarder->stop();
    forwarder->join();
  }

  net::Socket listener;
  event::queue::EventQueue queue;
  format::MessageSettings messages;
  std::unique_ptr<Forwarder> forwarder;
};

// Events 0 and 2 go through; a truncated event and garbage between them are skipped and
// counted. Standard output gets lines, or for dnstap one hex line per batch. A forwarder waiting
// for events stops at once. (The collector's socket path is the recovery test's below, and
// relay_collectors_test.py checks every format at real collectors.)
TEST(ForwarderTest, SkipsBrokenEventsAndWritesEachFormatToStandardOutput) {
  const struct {
    MessageFormat format;
    uint32_t batchSize;
    size_t lines;
  } cases[] = {{MessageFormat::kJson, 100, 2},
               {MessageFormat::kDnstap, 1, 2},
               {MessageFormat::kDnstap, 100, 1}};
  const std::string frames =
      testing::dataFrame(clientQueryEvent(0)) + testing::dataFrame(clientQueryEvent(2));
  std::string hex;
  encoding::hex::hexEncode(hex, reinterpret_cast<const uint8_t*>(frames.data()), frames.size());
  for (const auto& c : cases) {
    const bool dnstap = c.format == MessageFormat::kDnstap;
    SCOPED_TRACE(std::to_string(static_cast<int>(c.format)) + "/" + std::to_string(c.batchSize));
    std::FILE* output = std::tmpfile();
    ASSERT_NE(output, nullptr);
    Running running(3, c.format, "batch-size=" + std::to_string(c.batchSize), output);
    for (const std::string& event : {clientQueryEvent(0), clientQueryEvent(1).substr(0, 20),
                                     std::string("\xff\xff\xff"), clientQueryEvent(2)}) {
      running.push(event);
    }
    running.forwarder->start();
    ASSERT_TRUE(waitUntil([&] { return running.forwarder->eventsSent() == 2; }));
    // Five seconds leave room for a loaded machine.
    const auto stopped = Clock::now();
    running.stop();
    EXPECT_LT(Clock::now() - stopped, std::chrono::seconds(5));
    std::string delivered(static_cast<size_t>(std::ftell(output)), '\0');
    std::rewind(output);
    ASSERT_EQ(std::fread(delivered.data(), 1, delivered.size(), output), delivered.size());
    std::fclose(output);
    format::ForwarderMetrics metrics;
    running.forwarder->metrics(metrics);
    EXPECT_EQ(std::make_tuple(metrics.events_sent, metrics.dnstap_errors, metrics.connects),
              std::make_tuple(2u, 2u, 0u));
    EXPECT_EQ(static_cast<size_t>(std::count(delivered.begin(), delivered.end(), '\n')), c.lines);
    if (dnstap) {
      delivered.erase(std::remove(delivered.begin(), delivered.end(), '\n'), delivered.end());
      EXPECT_EQ(delivered, hex);
      EXPECT_EQ(metrics.bytes_sent, frames.size());
    } else {
      EXPECT_EQ(eventNumberIn(delivered), 0);
      EXPECT_EQ(eventNumberIn(delivered.substr(delivered.find('\n'))), 2);
      EXPECT_EQ(metrics.bytes_sent, delivered.size());
    }
  }
}

// The collector reads the first batch and hangs up. The next batch may still be taken by the
// system (the collector never sees it); a later one fails, and what comes back into the queue
// is what the recovery mode promises. (relay_forwarder_test.py checks durable against a real
// agent at full speed; the other modes' bounds, the order of the returned batches and the
// immediate reconnection are checked only here.)
TEST(ForwarderTest, RecoveryModesBoundWhatABrokenConnectionLoses) {
  constexpr uint32_t kBatch = 5;
  const struct {
    const char* recovery;
    size_t mostLost;
    std::vector<std::string> returned;  // the batches put back into the queue, in order
  } cases[] = {{"drop", 2 * kBatch, {}},
               {"best-effort", kBatch, {"current"}},
               {"durable", 0, {"previous", "current"}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.recovery);
    LogRecorder log;
    Running running(1, MessageFormat::kJson, "batch-size=5 recovery=" + std::string(c.recovery));
    running.forwarder->start();
    running.push(0, kBatch);
    uint32_t pushed = kBatch;
    std::set<int64_t> received;
    {
      Collector first(running.listener);
      while (received.size() < kBatch) received.insert(eventNumberIn(first.next()));
    }
    ASSERT_TRUE(waitUntil([&] { return running.forwarder->eventsSent() == kBatch; }));
    const auto broken = [&] { return log.contains("E Forwarder[1]: Connection error: "); };
    for (int round = 0; round < 5 && !broken(); ++round, pushed += kBatch) {
      // Each batch goes out after the collector's close and the reset it answers with have
      // landed; under wine on a loaded machine the socket's close can take that long.
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      const uint64_t sent = running.forwarder->eventsSent();
      running.push(pushed, kBatch);
      ASSERT_TRUE(
          waitUntil([&] { return broken() || running.forwarder->eventsSent() == sent + kBatch; }));
    }
    ASSERT_TRUE(broken());
    // An established connection that broke is replaced at once.
    ASSERT_TRUE(waitUntil(
        [&] { return running.forwarder->connects() == 2 && running.forwarder->connected(); }));
    const uint32_t marker = pushed;
    running.push(pushed, kBatch);
    pushed += kBatch;
    Collector second(running.listener);
    while (std::distance(received.lower_bound(marker), received.end()) < kBatch) {
      received.insert(eventNumberIn(second.next()));
    }
    running.stop();
    EXPECT_LE(pushed - received.size(), c.mostLost);
    // Batches fill while events are pushed, so their sizes vary; the kinds and order do not.
    std::vector<std::string> returned;
    for (const std::string& line : testing::linesStartingWith(log, "I Forwarder[1]: Returning ")) {
      const std::string head = line.substr(0, line.find(" events back to the event queue"));
      returned.push_back(head.substr(head.rfind(' ') + 1));
    }
    EXPECT_EQ(returned, c.returned);
  }
}

// A collector that cannot be reached is tried again after ten seconds
// (relay_forwarder_test.py, test_late_collector_gets_the_newest_events, times it); not before, and
// a stop request cuts the pause short.
TEST(ForwarderTest, StopsPromptlyDuringTheReconnectPause) {
  LogRecorder log;
  Running running(5, MessageFormat::kJson, "batch-size=10", stdout, net::testing::unusedPort());
  running.forwarder->start();
  ASSERT_TRUE(waitUntil([&] { return log.contains("E Forwarder[5]: Connection error: "); }));
  const auto failed = Clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  running.stop();
  EXPECT_LT(Clock::now() - failed, std::chrono::seconds(5));  // the pause is ten
  EXPECT_EQ(running.forwarder->connects(), 1u);
}

}  // namespace
}  // namespace vantrelo::worker::forwarder
