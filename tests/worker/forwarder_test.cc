#include "worker/forwarder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
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

// A collector on a loopback port. It serves one connection after another and keeps what they
// delivered: text lines, or the payloads of dnstap data frames after the handshake. The first
// connection can be cut after a number of records, as a collector that restarts would.
class Collector {
 public:
  explicit Collector(bool dnstap, size_t cutFirstAfter = 0, uint16_t port = 0)
      : dnstap_(dnstap), cutFirstAfter_(cutFirstAfter), socket_(50, loopbackSettings(port)) {
    socket_.listen();
    thread_ = std::thread(&Collector::run, this);
  }
  ~Collector() {
    stop_ = true;
    thread_.join();
  }
  uint16_t port() const { return socket_.localPort(); }
  std::vector<std::string> records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }
  std::atomic<bool> cleanlyStopped{false};  // the forwarder's STOP was answered with FINISH
  std::atomic<bool> firstCut{false};

 private:
  void run() {
    for (int number = 1; !stop_;) {
      if (socket_.wait(true, 1)) continue;
      std::unique_ptr<net::Socket> connection = socket_.accept();
      if (!connection) continue;
      try {
        dnstap_ ? serveFrames(*connection, number) : serveLines(*connection, number);
      } catch (const std::exception&) {
        // The forwarder went away; wait for its next connection.
      }
      if (number++ == 1 && cutFirstAfter_ != 0) firstCut = true;
    }
  }
  bool keepServing(int number) const {
    return !stop_ && !(number == 1 && cutFirstAfter_ != 0 && records().size() >= cutFirstAfter_);
  }
  void add(std::string record) {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(std::move(record));
  }
  void serveLines(net::Socket& connection, int number) {
    std::string pending;
    char buffer[4096];
    while (keepServing(number)) {
      if (connection.wait(true, 1)) continue;
      pending.append(buffer, connection.recv(buffer, sizeof buffer));
      for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
        add(pending.substr(0, end));
      }
    }
  }
  void serveFrames(net::Socket& connection, int number) {
    net::tls::TlsSocket tls(50, net::tls::TlsSettings{}, connection);
    net::fstrm::FstrmSocket fstrm(50, net::fstrm::FstrmSettings{}, connection, tls);
    uint32_t type = fstrm.readControl(true, true);
    if (type == net::fstrm::kControlReady) {
      fstrm.writeControl(net::fstrm::kControlAccept, true);
      type = fstrm.readControl(true, true);
    }
    if (type != net::fstrm::kControlStart) return;
    for (std::string payload; keepServing(number);) {
      if (fstrm.wait(1)) continue;
      const uint32_t length = fstrm.readFrameLength(true);
      if (length == 0) {
        if (fstrm.readControl(false, false) != net::fstrm::kControlStop) return;
        cleanlyStopped = true;  // before FINISH, which lets the forwarder's stop return
        fstrm.writeControl(net::fstrm::kControlFinish, false);
        return;
      }
      fstrm.readBytes(payload, length);
      add(payload);
    }
  }

  const bool dnstap_;
  const size_t cutFirstAfter_;
  net::Socket socket_;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  mutable std::mutex mutex_;
  std::vector<std::string> records_;
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

// A loopback port nothing listens on.
uint16_t closedPort() {
  net::Socket reserve(0, loopbackSettings());
  reserve.listen();
  return reserve.localPort();
}

TEST(ForwarderTest, DeliversEveryFormatToTheCollector) {
  for (MessageFormat format :
       {MessageFormat::kJson, MessageFormat::kQuerylog, MessageFormat::kDnstap}) {
    const bool dnstap = format == MessageFormat::kDnstap;
    SCOPED_TRACE(static_cast<int>(format));
    LogRecorder log;
    Collector collector(dnstap);
    Running running(3, format, collector.port(), "batch-size=2");
    running.push(0, 5);
    running.forwarder->start();
    ASSERT_TRUE(waitUntil([&] { return collector.records().size() == 5; }));
    uint64_t bytes = 0;
    const std::vector<std::string> records = collector.records();
    for (uint32_t i = 0; i < records.size(); ++i) {
      if (dnstap) {
        EXPECT_EQ(records[i], clientQueryEvent(i));
      } else {
        EXPECT_EQ(eventNumberIn(records[i]), i) << records[i];
      }
      bytes += records[i].size() + (dnstap ? format::kDnstapFrameLengthSize : 1);
    }
    EXPECT_TRUE(waitUntil([&] { return running.forwarder->eventsSent() == 5; }));
    EXPECT_EQ(running.forwarder->bytesSent(), bytes);
    EXPECT_EQ(running.forwarder->connects(), 1u);
    EXPECT_TRUE(running.forwarder->connected());
    // A forwarder waiting for events stops at once.
    const auto stopped = std::chrono::steady_clock::now();
    running.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(1));
    EXPECT_FALSE(running.forwarder->connected());
    EXPECT_EQ(collector.cleanlyStopped, dnstap);
    EXPECT_TRUE(log.contains("I Forwarder[3]: Configured target is 127.0.0.1:" +
                             std::to_string(collector.port())));
  }
}

// Events that do not decode are skipped and counted in every format.
TEST(ForwarderTest, StandardOutputModePrintsEachBatch) {
  struct Case {
    MessageFormat format;
    uint32_t batchSize;
    size_t lines;
  };
  for (const Case& c : {Case{MessageFormat::kJson, 100, 2}, Case{MessageFormat::kDnstap, 1, 2},
                        Case{MessageFormat::kDnstap, 100, 1}}) {
    SCOPED_TRACE(std::to_string(static_cast<int>(c.format)) + "/" + std::to_string(c.batchSize));
    std::FILE* output = std::tmpfile();
    ASSERT_NE(output, nullptr);
    Running running(0, c.format, 9, "batch-size=" + std::to_string(c.batchSize), output);
    running.push(0, 1);
    running.push(clientQueryEvent(1).substr(0, 20));
    running.push("\xff\xff\xff");
    running.push(2, 1);
    running.forwarder->start();
    ASSERT_TRUE(waitUntil([&] { return running.forwarder->eventsSent() == 2; }));
    running.stop();
    std::string printed(static_cast<size_t>(std::ftell(output)), '\0');
    std::rewind(output);
    ASSERT_EQ(std::fread(printed.data(), 1, printed.size(), output), printed.size());
    std::fclose(output);
    EXPECT_EQ(static_cast<size_t>(std::count(printed.begin(), printed.end(), '\n')), c.lines);
    format::ForwarderMetrics metrics;
    running.forwarder->metrics(metrics);
    EXPECT_EQ(std::make_tuple(metrics.events_sent, metrics.dnstap_errors, metrics.connects),
              std::make_tuple(2u, 2u, 0u));
    if (c.format != MessageFormat::kDnstap) {
      EXPECT_EQ(eventNumberIn(printed), 0);
      EXPECT_EQ(eventNumberIn(printed.substr(printed.find('\n'))), 2);
      EXPECT_EQ(metrics.bytes_sent, printed.size());
      continue;
    }
    const std::string frames =
        testing::dataFrame(clientQueryEvent(0)) + testing::dataFrame(clientQueryEvent(2));
    std::string hex;
    encoding::hex::hexEncode(hex, reinterpret_cast<const uint8_t*>(frames.data()), frames.size());
    printed.erase(std::remove(printed.begin(), printed.end(), '\n'), printed.end());
    EXPECT_EQ(printed, hex);
    EXPECT_EQ(metrics.bytes_sent, frames.size());
  }
}

// The collector reads the first batch and hangs up. The next batch is still taken by the
// system (the collector never sees it); the one after fails, and what comes back into the
// queue is what the recovery mode promises.
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
    Collector collector(false, kBatch);
    Running running(1, MessageFormat::kJson, collector.port(),
                    "batch-size=5 recovery=" + std::string(c.recovery));
    running.forwarder->start();
    uint32_t pushed = 0;
    running.push(pushed, kBatch);
    pushed += kBatch;
    ASSERT_TRUE(waitUntil([&] { return collector.firstCut.load(); }));
    const auto broken = [&] {
      return !testing::linesStartingWith(log, "E Forwarder[1]: Connection error: ").empty();
    };
    for (int round = 0; round < 5 && !broken(); ++round) {
      const uint64_t sent = running.forwarder->eventsSent();
      running.push(pushed, kBatch);
      pushed += kBatch;
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
    std::set<int64_t> received;
    ASSERT_TRUE(waitUntil([&] {
      received.clear();
      for (const std::string& record : collector.records()) received.insert(eventNumberIn(record));
      return std::distance(received.lower_bound(marker), received.end()) == kBatch;
    }));
    running.stop();
    EXPECT_LE(pushed - received.size(), c.mostLost);
    std::vector<std::string> returned;
    for (const std::string& which : c.returned) {
      returned.push_back("I Forwarder[1]: Returning 5 " + which +
                         " events back to the event queue");
    }
    EXPECT_EQ(testing::linesStartingWith(log, "I Forwarder[1]: Returning"), returned);
  }
}

TEST(ForwarderTest, ReconnectsWhenTheCollectorComesUp) {
  LogRecorder log;
  const uint16_t port = closedPort();
  Running running(4, MessageFormat::kQuerylog, port, "batch-size=100");
  running.push(0, 3);
  running.forwarder->start();
  ASSERT_TRUE(waitUntil([&] {
    return !testing::linesStartingWith(log, "E Forwarder[4]: Connection error: ").empty();
  }));
  const auto failed = std::chrono::steady_clock::now();
  Collector collector(false, 0, port);
  ASSERT_TRUE(waitUntil([&] { return collector.records().size() == 3; }, std::chrono::seconds(15)));
  // A collector that was down is tried again only after the ten-second pause.
  EXPECT_GE(std::chrono::steady_clock::now() - failed, std::chrono::seconds(9));
  EXPECT_EQ(running.forwarder->connects(), 2u);
  running.stop();
}

TEST(ForwarderTest, StopIsPromptDuringThePauseBeforeReconnecting) {
  LogRecorder log;
  Running running(0, MessageFormat::kJson, closedPort(), "batch-size=10");
  running.forwarder->start();
  ASSERT_TRUE(waitUntil([&] {
    return !testing::linesStartingWith(log, "E Forwarder[0]: Connection error: ").empty();
  }));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const auto stopped = std::chrono::steady_clock::now();
  running.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(1));
}

}  // namespace
}  // namespace ns::worker::forwarder
