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
#include "net/fstrm_socket.h"
#include "net/socket.h"
#include "net/tls_socket.h"
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

// A collector on an ephemeral loopback port. It serves one connection after another and keeps
// what each delivered: text lines, or the payloads of dnstap data frames. The first connection
// can be cut after a number of records, as a collector that restarts would.
class Collector {
 public:
  Collector(bool dnstap, size_t cutFirstAfter = 0, uint16_t port = 0)
      : dnstap_(dnstap), cutFirstAfter_(cutFirstAfter), socket_(50, loopbackSettings(port)) {
    socket_.listen();
    port_ = socket_.localPort();
    thread_ = std::thread(&Collector::run, this);
  }
  ~Collector() {
    stop_ = true;
    thread_.join();
  }
  uint16_t port() const { return port_; }
  // The records received so far, each with the number of the connection (from 1) it came on.
  std::vector<std::pair<int, std::string>> records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }
  size_t count() const { return records().size(); }
  int connections() const { return connections_.load(); }
  bool cleanlyStopped() const { return cleanlyStopped_.load(); }
  bool firstCut() const { return firstCut_.load(); }

 private:
  void run() {
    while (!stop_) {
      if (socket_.wait(true, 1)) continue;
      std::unique_ptr<net::Socket> connection = socket_.accept();
      if (!connection) continue;
      const int number = ++connections_;
      try {
        if (dnstap_) {
          serveFrames(*connection, number);
        } else {
          serveLines(*connection, number);
        }
      } catch (const std::exception&) {
        // The forwarder went away; wait for its next connection.
      }
      if (number == 1 && cutFirstAfter_ != 0) firstCut_ = true;
    }
  }
  bool cutNow(int number) const {
    return number == 1 && cutFirstAfter_ != 0 && count() >= cutFirstAfter_;
  }
  void add(int number, std::string record) {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.emplace_back(number, std::move(record));
  }
  void serveLines(net::Socket& connection, int number) {
    std::string pending;
    char buffer[4096];
    while (!stop_ && !cutNow(number)) {
      if (connection.wait(true, 1)) continue;
      pending.append(buffer, connection.recv(buffer, sizeof buffer));
      size_t end;
      while ((end = pending.find('\n')) != std::string::npos) {
        add(number, pending.substr(0, end));
        pending.erase(0, end + 1);
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
    std::string payload;
    while (!stop_ && !cutNow(number)) {
      if (fstrm.wait(1)) continue;
      const uint32_t length = fstrm.readFrameLength(true);
      if (length == 0) {
        if (fstrm.readControl(false, false) == net::fstrm::kControlStop) {
          fstrm.writeControl(net::fstrm::kControlFinish, false);
          cleanlyStopped_ = true;
        }
        return;
      }
      fstrm.readBytes(payload, length);
      add(number, payload);
    }
  }

  const bool dnstap_;
  const size_t cutFirstAfter_;
  net::Socket socket_;
  uint16_t port_ = 0;
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  std::atomic<bool> cleanlyStopped_{false};
  std::atomic<bool> firstCut_{false};
  mutable std::mutex mutex_;
  std::vector<std::pair<int, std::string>> records_;
};

ForwarderSettings towards(uint16_t port, uint32_t batchSize) {
  ForwarderSettings settings;
  settings.socket = loopbackSettings(port);
  settings.socket.connectTimeout = 1;
  settings.batchSize = batchSize;
  return settings;
}

format::MessageSettings messages(MessageFormat format) {
  format::MessageSettings settings;
  settings.format = format;
  settings.hostname = "relay-test";
  return settings;
}

void pushEvents(event::queue::EventQueue& queue, uint32_t first, uint32_t count) {
  for (uint32_t number = first; number < first + count; ++number) {
    const std::string event = clientQueryEvent(number);
    queue.push(reinterpret_cast<const uint8_t*>(event.data()), static_cast<uint32_t>(event.size()));
  }
}

event::queue::QueueOptions smallQueue() { return event::queue::QueueOptions{1 << 20, false, ""}; }

// Reads back everything written to a temporary file.
std::string contents(std::FILE* file) {
  std::fflush(file);
  std::rewind(file);
  std::string out;
  char buffer[4096];
  size_t read;
  while ((read = std::fread(buffer, 1, sizeof buffer, file)) > 0) out.append(buffer, read);
  return out;
}

TEST(ForwarderTest, DeliversEveryFormatToTheCollector) {
  for (MessageFormat format :
       {MessageFormat::kJson, MessageFormat::kQuerylog, MessageFormat::kDnstap}) {
    const bool dnstap = format == MessageFormat::kDnstap;
    SCOPED_TRACE(static_cast<int>(format));
    LogRecorder log;
    Collector collector(dnstap);
    event::queue::EventQueue queue(smallQueue());
    const format::MessageSettings settings = messages(format);
    pushEvents(queue, 0, 5);
    auto forwarder = std::make_unique<Forwarder>(3, towards(collector.port(), 2), queue, settings);
    forwarder->start();
    ASSERT_TRUE(waitUntil([&] { return collector.count() == 5; }));
    uint64_t bytes = 0;
    std::vector<std::pair<int, std::string>> records = collector.records();
    for (uint32_t i = 0; i < records.size(); ++i) {
      const std::string& record = records[i].second;
      if (dnstap) {
        EXPECT_EQ(record, clientQueryEvent(i));
        bytes += record.size() + format::kDnstapFrameLengthSize;
      } else {
        EXPECT_EQ(eventNumberIn(record), i) << record;
        bytes += record.size() + 1;
      }
    }
    EXPECT_TRUE(waitUntil([&] { return forwarder->eventsSent() == 5; }));
    EXPECT_EQ(forwarder->bytesSent(), bytes);
    EXPECT_EQ(forwarder->connects(), 1u);
    EXPECT_TRUE(forwarder->connected());
    forwarder->stop();
    forwarder->join();
    EXPECT_FALSE(forwarder->connected());
    EXPECT_EQ(collector.cleanlyStopped(), dnstap);
    EXPECT_TRUE(log.contains("I Forwarder[3]: Configured target is 127.0.0.1:" +
                             std::to_string(collector.port())));
    EXPECT_TRUE(log.contains("I Forwarder[3]: Finished process loop"));
  }
}

TEST(ForwarderTest, StandardOutputModePrintsEachBatch) {
  struct Case {
    MessageFormat format;
    uint32_t batchSize;
    size_t lines;
  };
  for (const Case& c : {Case{MessageFormat::kJson, 100, 3}, Case{MessageFormat::kDnstap, 1, 3},
                        Case{MessageFormat::kDnstap, 100, 1}}) {
    SCOPED_TRACE(std::to_string(static_cast<int>(c.format)) + "/" + std::to_string(c.batchSize));
    std::FILE* output = std::tmpfile();
    ASSERT_NE(output, nullptr);
    event::queue::EventQueue queue(smallQueue());
    const format::MessageSettings settings = messages(c.format);
    ForwarderSettings forwarderSettings = towards(9, c.batchSize);
    forwarderSettings.toStdout = true;
    pushEvents(queue, 0, 3);
    Forwarder forwarder(0, forwarderSettings, queue, settings, output);
    forwarder.start();
    ASSERT_TRUE(waitUntil([&] { return forwarder.eventsSent() == 3; }));
    forwarder.stop();
    forwarder.join();
    std::string printed = contents(output);
    std::fclose(output);
    EXPECT_EQ(static_cast<size_t>(std::count(printed.begin(), printed.end(), '\n')), c.lines);
    EXPECT_EQ(forwarder.connects(), 0u);
    if (c.format != MessageFormat::kDnstap) continue;
    std::string frames;
    for (uint32_t i = 0; i < 3; ++i) {
      const std::string event = clientQueryEvent(i);
      format::appendDnstapFrame(frames, reinterpret_cast<const uint8_t*>(event.data()),
                                static_cast<uint32_t>(event.size()));
    }
    std::string hex;
    encoding::hex::hexEncode(hex, reinterpret_cast<const uint8_t*>(frames.data()), frames.size());
    printed.erase(std::remove(printed.begin(), printed.end(), '\n'), printed.end());
    EXPECT_EQ(printed, hex);
    EXPECT_EQ(forwarder.bytesSent(), frames.size());
  }
}

TEST(ForwarderTest, SkipsEventsThatAreNotDnstap) {
  std::FILE* output = std::tmpfile();
  ASSERT_NE(output, nullptr);
  event::queue::EventQueue queue(smallQueue());
  const format::MessageSettings settings = messages(MessageFormat::kJson);
  ForwarderSettings forwarderSettings = towards(9, 10);
  forwarderSettings.toStdout = true;
  const std::string truncated = clientQueryEvent(1).substr(0, 20);
  const std::string garbage = "\xff\xff\xff";
  pushEvents(queue, 0, 1);
  queue.push(reinterpret_cast<const uint8_t*>(truncated.data()),
             static_cast<uint32_t>(truncated.size()));
  queue.push(reinterpret_cast<const uint8_t*>(garbage.data()),
             static_cast<uint32_t>(garbage.size()));
  pushEvents(queue, 2, 1);
  Forwarder forwarder(0, forwarderSettings, queue, settings, output);
  forwarder.start();
  ASSERT_TRUE(waitUntil([&] { return forwarder.eventsSent() + forwarder.dnstapErrors() == 4; }));
  forwarder.stop();
  forwarder.join();
  const std::string printed = contents(output);
  std::fclose(output);
  EXPECT_EQ(forwarder.eventsSent(), 2u);
  EXPECT_EQ(forwarder.dnstapErrors(), 2u);
  EXPECT_EQ(forwarder.bytesSent(), printed.size());
  format::ForwarderMetrics metrics;
  forwarder.metrics(metrics);
  EXPECT_EQ(metrics.dnstap_errors, 2u);
  EXPECT_EQ(metrics.events_sent, 2u);
}

// The collector reads the first batch and hangs up. The next batch is still taken by the
// system (the collector never sees it); the one after fails, and what comes back into the
// queue is what the recovery mode promises.
TEST(ForwarderTest, RecoveryModesBoundWhatABrokenConnectionLoses) {
  constexpr uint32_t kBatch = 5;
  struct Case {
    const char* recovery;
    bool returnCurrent;
    bool returnPrevious;
    size_t mostLost;
  };
  const Case cases[] = {
      {"drop", false, false, 2 * kBatch},
      {"best-effort", true, false, kBatch},
      {"durable", true, true, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.recovery);
    LogRecorder log;
    Collector collector(false, kBatch);
    event::queue::EventQueue queue(smallQueue());
    const format::MessageSettings settings = messages(MessageFormat::kJson);
    ForwarderSettings forwarderSettings = towards(collector.port(), kBatch);
    forwarderSettings.returnCurrent = c.returnCurrent;
    forwarderSettings.returnPrevious = c.returnPrevious;
    Forwarder forwarder(1, forwarderSettings, queue, settings);
    forwarder.start();

    uint32_t pushed = 0;
    pushEvents(queue, pushed, kBatch);
    pushed += kBatch;
    ASSERT_TRUE(waitUntil([&] { return collector.firstCut(); }));
    const auto broken = [&] {
      for (const std::string& line : log.lines()) {
        if (line.rfind("E Forwarder[1]: Connection error: ", 0) == 0) return true;
      }
      return false;
    };
    for (int round = 0; round < 5 && !broken(); ++round) {
      const uint64_t sent = forwarder.eventsSent();
      pushEvents(queue, pushed, kBatch);
      pushed += kBatch;
      ASSERT_TRUE(waitUntil([&] { return broken() || forwarder.eventsSent() == sent + kBatch; }));
    }
    ASSERT_TRUE(broken());
    // An established connection that broke is replaced at once.
    ASSERT_TRUE(waitUntil([&] { return forwarder.connects() == 2 && forwarder.connected(); }));
    const uint32_t marker = pushed;
    pushEvents(queue, pushed, kBatch);
    pushed += kBatch;
    ASSERT_TRUE(waitUntil([&] {
      std::set<int64_t> markers;
      for (const auto& record : collector.records()) {
        if (eventNumberIn(record.second) >= marker) markers.insert(eventNumberIn(record.second));
      }
      return markers.size() == kBatch;
    }));
    forwarder.stop();
    forwarder.join();

    std::set<int64_t> received;
    for (const auto& record : collector.records()) received.insert(eventNumberIn(record.second));
    EXPECT_LE(pushed - received.size(), c.mostLost);

    const std::vector<std::string> lines = log.lines();
    const auto find = [&](const std::string& prefix) {
      return std::find_if(lines.begin(), lines.end(),
                          [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
    };
    const auto previous = find("I Forwarder[1]: Returning 5 previous events");
    const auto current = find("I Forwarder[1]: Returning 5 current events");
    EXPECT_EQ(previous != lines.end(), c.returnPrevious);
    EXPECT_EQ(current != lines.end(), c.returnCurrent);
    if (c.returnPrevious) {
      EXPECT_LT(previous, current);
    }
  }
}

TEST(ForwarderTest, ReconnectsWhenTheCollectorComesUp) {
  LogRecorder log;
  uint16_t port = 0;
  {
    net::Socket reserve(0, loopbackSettings());
    reserve.listen();
    port = reserve.localPort();
  }
  event::queue::EventQueue queue(smallQueue());
  const format::MessageSettings settings = messages(MessageFormat::kQuerylog);
  pushEvents(queue, 0, 3);
  Forwarder forwarder(4, towards(port, 100), queue, settings);
  forwarder.start();
  ASSERT_TRUE(waitUntil([&] {
    for (const std::string& line : log.lines()) {
      if (line.rfind("E Forwarder[4]: Connection error: ", 0) == 0) return true;
    }
    return false;
  }));
  EXPECT_EQ(forwarder.connects(), 1u);
  const auto failed = std::chrono::steady_clock::now();
  Collector collector(false, 0, port);
  ASSERT_TRUE(waitUntil([&] { return collector.count() == 3; }, std::chrono::seconds(15)));
  // A collector that was down is tried again only after the ten-second pause.
  EXPECT_GE(std::chrono::steady_clock::now() - failed, std::chrono::seconds(9));
  EXPECT_EQ(forwarder.connects(), 2u);
  forwarder.stop();
  forwarder.join();
}

TEST(ForwarderTest, StopIsPromptWhereverTheForwarderWaits) {
  struct Case {
    const char* name;
    bool collectorUp;
  };
  for (const Case& c : {Case{"waiting for events", true}, Case{"pausing to reconnect", false}}) {
    SCOPED_TRACE(c.name);
    LogRecorder log;
    auto collector = std::make_unique<Collector>(false);
    const uint16_t port = collector->port();
    if (!c.collectorUp) collector.reset();
    event::queue::EventQueue queue(smallQueue());
    const format::MessageSettings settings = messages(MessageFormat::kJson);
    Forwarder forwarder(0, towards(port, 10), queue, settings);
    forwarder.start();
    ASSERT_TRUE(waitUntil([&] { return forwarder.connects() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto stopped = std::chrono::steady_clock::now();
    forwarder.stop();
    forwarder.join();
    EXPECT_LT(std::chrono::steady_clock::now() - stopped, std::chrono::seconds(1));
  }
}

}  // namespace
}  // namespace ns::worker::forwarder
