#include "worker/forwarder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "encoding/text_encoding.h"
#include "net_test_support.h"
#include "worker_test_support.h"

namespace ns::worker::forwarder {
namespace {

using format::MessageFormat;
using net::testing::LogRecorder;
using net::testing::loopbackSettings;
using testing::clientQueryEvent;
using testing::eventNumberIn;
using testing::waitUntil;
using Clock = std::chrono::steady_clock;

// The collector's side of one forwarder connection, served from the test thread: text lines,
// or the payloads of dnstap data frames after answering the handshake.
class Collector {
 public:
  Collector(net::Socket& listener, bool dnstap)
      : connection_(net::testing::acceptOne(listener)),
        dnstap_(dnstap),
        tls_(50, net::tls::TlsSettings{}, *connection_),
        fstrm_(50, net::fstrm::FstrmSettings{}, *connection_, tls_) {
    if (!dnstap) return;
    EXPECT_EQ(fstrm_.readControl(true, true), net::fstrm::kControlReady);
    fstrm_.writeControl(net::fstrm::kControlAccept, true);
    EXPECT_EQ(fstrm_.readControl(true, true), net::fstrm::kControlStart);
  }
  std::string next() {
    std::string record;
    if (dnstap_) {
      fstrm_.readBytes(record, fstrm_.readFrameLength(true));
      return record;
    }
    for (char buffer[4096]; pending_.find('\n') == std::string::npos;) {
      pending_.append(buffer, connection_->recv(buffer, sizeof buffer));
    }
    record = pending_.substr(0, pending_.find('\n'));
    pending_.erase(0, record.size() + 1);
    return record;
  }
  // Answers the forwarder's STOP with FINISH, which its stop waits for.
  void finish() {
    ASSERT_EQ(fstrm_.readFrameLength(true), 0u);
    ASSERT_EQ(fstrm_.readControl(false, false), net::fstrm::kControlStop);
    fstrm_.writeControl(net::fstrm::kControlFinish, false);
  }

 private:
  std::unique_ptr<net::Socket> connection_;
  const bool dnstap_;
  net::tls::TlsSocket tls_;
  net::fstrm::FstrmSocket fstrm_;
  std::string pending_;
};

// A forwarder of the given format and options, with its queue, towards a loopback port; a
// file as output puts it in standard-output mode.
struct Running {
  Running(uint32_t id, MessageFormat format, uint16_t port, const std::string& options,
          std::FILE* output = stdout)
      : queue(event::queue::QueueOptions{1 << 20, false, ""}) {
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

  event::queue::EventQueue queue;
  format::MessageSettings messages;
  std::unique_ptr<Forwarder> forwarder;
};

// Events 0 and 2 go through; a truncated event and garbage between them are skipped and
// counted. The collector gets lines or data frames; standard output gets lines or one hex line
// per batch. A forwarder waiting for events stops at once.
TEST(ForwarderTest, DeliversEachFormatToTheCollectorOrStandardOutput) {
  struct Case {
    MessageFormat format;
    bool toStdout;
    uint32_t batchSize;
    size_t printedLines;
  };
  const Case cases[] = {
      {MessageFormat::kJson, false, 2, 0},   {MessageFormat::kQuerylog, false, 2, 0},
      {MessageFormat::kDnstap, false, 2, 0}, {MessageFormat::kJson, true, 100, 2},
      {MessageFormat::kDnstap, true, 1, 2},  {MessageFormat::kDnstap, true, 100, 1}};
  for (const Case& c : cases) {
    const bool dnstap = c.format == MessageFormat::kDnstap;
    SCOPED_TRACE(std::to_string(static_cast<int>(c.format)) + (c.toStdout ? "/stdout/" : "/") +
                 std::to_string(c.batchSize));
    LogRecorder log;
    net::Socket listener(50, loopbackSettings());
    listener.listen();
    std::FILE* output = c.toStdout ? std::tmpfile() : stdout;
    ASSERT_NE(output, nullptr);
    Running running(3, c.format, listener.localPort(), "batch-size=" + std::to_string(c.batchSize),
                    output);
    for (const std::string& event : {clientQueryEvent(0), clientQueryEvent(1).substr(0, 20),
                                     std::string("\xff\xff\xff"), clientQueryEvent(2)}) {
      running.push(event);
    }
    running.forwarder->start();
    std::string delivered;  // data frames for dnstap, else lines
    std::unique_ptr<Collector> collector;
    if (!c.toStdout) {
      collector = std::make_unique<Collector>(listener, dnstap);
      for (int i = 0; i < 2; ++i) {
        const std::string record = collector->next();
        delivered += dnstap ? testing::dataFrame(record) : record + "\n";
      }
    }
    ASSERT_TRUE(waitUntil([&] { return running.forwarder->eventsSent() == 2; }));
    EXPECT_EQ(running.forwarder->connected(), !c.toStdout);
    const auto stopped = Clock::now();
    running.forwarder->stop();
    if (collector && dnstap) collector->finish();
    running.forwarder->join();
    EXPECT_LT(Clock::now() - stopped, std::chrono::seconds(2));
    EXPECT_FALSE(running.forwarder->connected());
    if (c.toStdout) {
      delivered.resize(static_cast<size_t>(std::ftell(output)));
      std::rewind(output);
      ASSERT_EQ(std::fread(delivered.data(), 1, delivered.size(), output), delivered.size());
      std::fclose(output);
      EXPECT_EQ(static_cast<size_t>(std::count(delivered.begin(), delivered.end(), '\n')),
                c.printedLines);
    } else {
      EXPECT_TRUE(log.contains("I Forwarder[3]: Configured target is 127.0.0.1:" +
                               std::to_string(listener.localPort())));
    }
    format::ForwarderMetrics metrics;
    running.forwarder->metrics(metrics);
    EXPECT_EQ(std::make_tuple(metrics.events_sent, metrics.dnstap_errors, metrics.connects),
              std::make_tuple(2u, 2u, c.toStdout ? 0u : 1u));
    if (!dnstap) {
      EXPECT_EQ(std::count(delivered.begin(), delivered.end(), '\n'), 2);
      EXPECT_EQ(eventNumberIn(delivered), 0);
      EXPECT_EQ(eventNumberIn(delivered.substr(delivered.find('\n'))), 2);
      EXPECT_EQ(metrics.bytes_sent, delivered.size());
      continue;
    }
    const std::string frames =
        testing::dataFrame(clientQueryEvent(0)) + testing::dataFrame(clientQueryEvent(2));
    std::string hex;
    encoding::hex::hexEncode(hex, reinterpret_cast<const uint8_t*>(frames.data()), frames.size());
    delivered.erase(std::remove(delivered.begin(), delivered.end(), '\n'), delivered.end());
    EXPECT_EQ(delivered, c.toStdout ? hex : frames);
    EXPECT_EQ(metrics.bytes_sent, frames.size());
  }
}

// The collector reads the first batch and hangs up. The next batch may still be taken by the
// system (the collector never sees it); a later one fails, and what comes back into the queue
// is what the recovery mode promises.
TEST(ForwarderTest, RecoveryModesBoundWhatABrokenConnectionLoses) {
  constexpr uint32_t kBatch = 5;
  struct Case {
    const char* recovery;
    size_t mostLost;
    std::vector<std::string> returned;  // the batches put back into the queue, in order
  };
  const Case cases[] = {{"drop", 2 * kBatch, {}},
                        {"best-effort", kBatch, {"current"}},
                        {"durable", 0, {"previous", "current"}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.recovery);
    LogRecorder log;
    net::Socket listener(50, loopbackSettings());
    listener.listen();
    Running running(1, MessageFormat::kJson, listener.localPort(),
                    "batch-size=5 recovery=" + std::string(c.recovery));
    running.forwarder->start();
    running.push(0, kBatch);
    uint32_t pushed = kBatch;
    std::set<int64_t> received;
    {
      Collector first(listener, false);
      while (received.size() < kBatch) received.insert(eventNumberIn(first.next()));
    }
    ASSERT_TRUE(waitUntil([&] { return running.forwarder->eventsSent() == kBatch; }));
    const auto broken = [&] { return log.containsPrefix("E Forwarder[1]: Connection error: "); };
    for (int round = 0; round < 5 && !broken(); ++round, pushed += kBatch) {
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
    Collector second(listener, false);
    while (std::distance(received.lower_bound(marker), received.end()) < kBatch) {
      received.insert(eventNumberIn(second.next()));
    }
    running.stop();
    EXPECT_LE(pushed - received.size(), c.mostLost);
    // Batches fill while events are pushed, so their sizes vary; the kinds and order do not.
    std::string returned, expected;
    const std::string kReturning = "I Forwarder[1]: Returning ";
    for (std::string line : testing::linesStartingWith(log, kReturning)) {
      const size_t at = kReturning.size(), digits = line.find(' ', at) - at;
      EXPECT_TRUE(digits == 1 && line[at] >= '1' && line[at] <= '5') << line;
      returned += line.replace(at, digits, "N") + "\n";
    }
    for (const std::string& which : c.returned) {
      expected += "I Forwarder[1]: Returning N " + which + " events back to the event queue\n";
    }
    EXPECT_EQ(returned, expected);
  }
}

// A collector that was down is tried again only after the ten-second pause, which a stop
// request cuts short.
TEST(ForwarderTest, RetriesADownCollectorAfterThePauseAndStopsPromptlyDuringIt) {
  LogRecorder log;
  const uint16_t port = net::testing::unusedPort();
  Running waiting(4, MessageFormat::kQuerylog, port, "batch-size=100");
  Running stopping(5, MessageFormat::kJson, port, "batch-size=10");
  waiting.push(0, 3);
  waiting.forwarder->start();
  stopping.forwarder->start();
  ASSERT_TRUE(waitUntil([&] {
    return log.containsPrefix("E Forwarder[4]: Connection error: ") &&
           log.containsPrefix("E Forwarder[5]: Connection error: ");
  }));
  const auto failed = Clock::now();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  stopping.stop();
  EXPECT_LT(Clock::now() - failed, std::chrono::seconds(2));
  net::Socket listener(50, loopbackSettings(port));
  listener.listen();
  ASSERT_FALSE(listener.wait(true, 15));
  EXPECT_GE(Clock::now() - failed, std::chrono::seconds(9));
  Collector collector(listener, false);
  for (int64_t number = 0; number < 3; ++number) EXPECT_EQ(eventNumberIn(collector.next()), number);
  EXPECT_EQ(waiting.forwarder->connects(), 2u);
  waiting.stop();
}

}  // namespace
}  // namespace ns::worker::forwarder
