#include "kafka/kafka_forwarder.h"

#include <gtest/gtest.h>
#include <librdkafka/rdkafka_mock.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "format/message_formatter.h"
#include "worker/forwarder_settings.h"
#include "worker_test_support.h"

namespace vantrelo::kafka {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using worker::testing::waitUntil;

constexpr char kTopic[] = "dns";
constexpr int kBrokers = 3;
constexpr int kPartitions = 3;
constexpr int kClients = 16;

// A three-broker cluster inside the test process, each broker on its own loopback port, with
// the topic's partition p led by broker p + 1.
class MockCluster {
 public:
  MockCluster() {
    char error[256];
    // The hosting client has no brokers of its own and need not say so.
    rd_kafka_conf_t* conf = rd_kafka_conf_new();
    rd_kafka_conf_set(conf, "log_level", "3", error, sizeof(error));
    host_ = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof(error));
    cluster_ = rd_kafka_mock_cluster_new(host_, kBrokers);
    rd_kafka_mock_topic_create(cluster_, kTopic, kPartitions, 1);
    for (int p = 0; p < kPartitions; ++p)
      rd_kafka_mock_partition_set_leader(cluster_, kTopic, p, p + 1);
  }
  ~MockCluster() {
    rd_kafka_mock_cluster_destroy(cluster_);
    rd_kafka_destroy(host_);
  }
  std::string bootstraps() const { return rd_kafka_mock_cluster_bootstraps(cluster_); }
  // The next produce request fails with `error`.
  void failNextProduce(rd_kafka_resp_err_t error) {
    constexpr int16_t kProduceApiKey = 0;
    rd_kafka_mock_push_request_errors(cluster_, kProduceApiKey, 1, error);
  }
  void setUp(int32_t broker, bool up) {
    if (up) {
      rd_kafka_mock_broker_set_up(cluster_, broker);
    } else {
      rd_kafka_mock_broker_set_down(cluster_, broker);
    }
  }

 private:
  rd_kafka_t* host_;
  rd_kafka_mock_cluster_t* cluster_;
};

struct Record {
  int partition;
  std::optional<std::string> key;
  std::string value;
};

// Everything in the topic, read by a real consumer; partitions interleave, each in order.
std::vector<Record> consume(const std::string& bootstraps) {
  const std::string command = "timeout 60 kcat -C -q -e -b " + bootstraps + " -t " + kTopic +
                              " -o beginning -f '%p %K %S\\n%k%s' 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  std::string out;
  char buffer[65536];
  for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) out.append(buffer, n);
  EXPECT_EQ(pclose(pipe), 0) << command;
  std::vector<Record> records;
  size_t at = 0;
  while (at < out.size()) {
    const size_t end = out.find('\n', at);
    int partition = 0;
    long keySize = 0;
    long valueSize = 0;
    if (end == std::string::npos ||
        std::sscanf(out.c_str() + at, "%d %ld %ld", &partition, &keySize, &valueSize) != 3) {
      ADD_FAILURE() << "unreadable kcat output at " << at;
      break;
    }
    at = end + 1;
    Record record{partition, std::nullopt, {}};
    if (keySize >= 0) record.key = out.substr(at, static_cast<size_t>(keySize));
    at += static_cast<size_t>(std::max(keySize, 0L));
    record.value = out.substr(at, static_cast<size_t>(valueSize));
    at += static_cast<size_t>(valueSize);
    records.push_back(std::move(record));
  }
  return records;
}

bool haveKcat() { return std::system("command -v kcat >/dev/null 2>&1") == 0; }

// Event n is a client query named e<n> from client 192.0.2.<n % kClients + 1>.
std::string event(uint32_t n) {
  const std::string plain = worker::testing::clientQueryEvent(n);
  encoding::dnstap::DnstapMessage record;
  record.decode(reinterpret_cast<const uint8_t*>(plain.data()), static_cast<uint32_t>(plain.size()),
                0);
  record.query_address = std::string("\xC0\x00\x02", 3) + static_cast<char>(n % kClients + 1);
  std::string out;
  record.encode(out);
  return out;
}

std::string clientOf(uint32_t n) { return "192.0.2." + std::to_string(n % kClients + 1); }

// What a record of event n must hold: the formatter's message without framing or line feed.
std::string expectedValue(const format::MessageSettings& settings, uint32_t n) {
  format::MessageFormatter formatter(settings);
  encoding::dnstap::DnstapMessage record;
  const std::string bytes = event(n);
  std::string out;
  formatter.formatEvent(reinterpret_cast<const uint8_t*>(bytes.data()),
                        static_cast<uint32_t>(bytes.size()), record, out);
  return settings.format == format::MessageFormat::kDnstap
             ? out.substr(format::kDnstapFrameLengthSize)
             : out.substr(0, out.size() - 1);
}

// The event number of each expected record value.
std::map<std::string, uint32_t> indexByValue(const format::MessageSettings& settings,
                                             uint32_t count) {
  std::map<std::string, uint32_t> index;
  for (uint32_t n = 0; n < count; ++n) index[expectedValue(settings, n)] = n;
  return index;
}

worker::forwarder::ForwarderSettings settingsFor(const MockCluster& cluster,
                                                 const std::string& options) {
  return worker::forwarder::parse("kafka " + cluster.bootstraps() + " topic=" + kTopic + " " +
                                  options);
}

void pushEvents(event::queue::EventQueue& queue, uint32_t from, uint32_t count) {
  for (uint32_t n = from; n < from + count; ++n) {
    const std::string bytes = event(n);
    queue.push(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size()));
  }
}

class KafkaForwarderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!haveKcat()) GTEST_SKIP() << "kcat is not installed (scripts/install-test-peers)";
  }
  event::queue::EventQueue queue{event::queue::QueueOptions{}};
  format::MessageSettings messages;
};

// Every record arrives, byte-exact, keyed by client and in order per key, in every format.
TEST_F(KafkaForwarderTest, DeliversEveryEventAsOneRecord) {
  constexpr uint32_t kEvents = 600;
  const format::MessageFormat formats[] = {format::MessageFormat::kJson,
                                           format::MessageFormat::kQuerylog,
                                           format::MessageFormat::kDnstap};
  for (const format::MessageFormat format : formats) {
    MockCluster fresh;
    messages.format = format;
    const std::map<std::string, uint32_t> indexOf = indexByValue(messages, kEvents);
    ASSERT_EQ(indexOf.size(), kEvents);

    KafkaForwarder forwarder(0, settingsFor(fresh, "key=client batch-size=50 compression=lz4"),
                             queue, messages);
    forwarder.start();
    pushEvents(queue, 0, kEvents);
    EXPECT_TRUE(waitUntil([&] { return forwarder.eventsSent() == kEvents; }, seconds(60)));
    // Connections are counted from the client's statistics, once a second.
    EXPECT_TRUE(waitUntil([&] { return forwarder.connects() > 0; }, seconds(10)));
    forwarder.stop();
    forwarder.join();

    const std::vector<Record> records = consume(fresh.bootstraps());
    ASSERT_EQ(records.size(), kEvents);
    std::map<std::string, int64_t> lastOfKey;
    std::map<std::string, int> partitionOfKey;
    uint64_t bytes = 0;
    for (const Record& record : records) {
      const auto found = indexOf.find(record.value);
      ASSERT_NE(found, indexOf.end()) << record.value;
      const uint32_t n = found->second;
      ASSERT_TRUE(record.key.has_value());
      EXPECT_EQ(*record.key, clientOf(n));
      EXPECT_GT(static_cast<int64_t>(n), lastOfKey.try_emplace(*record.key, -1).first->second);
      lastOfKey[*record.key] = n;
      EXPECT_EQ(partitionOfKey.try_emplace(*record.key, record.partition).first->second,
                record.partition);
      bytes += record.value.size();
    }
    format::ForwarderMetrics metrics;
    forwarder.metrics(metrics);
    EXPECT_EQ(std::make_tuple(metrics.is_kafka, metrics.events_sent, metrics.bytes_sent,
                              metrics.delivery_failures, metrics.dnstap_errors),
              std::make_tuple(true, uint64_t{kEvents}, bytes, uint64_t{0}, uint64_t{0}));
    EXPECT_TRUE(metrics.connected);
  }
}

// With the leader of one partition down for a while, drop loses exactly the records that failed
// and nothing else; best-effort and durable lose nothing.
TEST_F(KafkaForwarderTest, BrokerDownPerRecoveryMode) {
  constexpr uint32_t kEvents = 300;
  for (const std::string mode : {"drop", "best-effort", "durable"}) {
    MockCluster fresh;
    const std::map<std::string, uint32_t> indexOf = indexByValue(messages, kEvents);
    KafkaForwarder forwarder(
        0, settingsFor(fresh, "key=client delivery-timeout=1 recovery=" + mode), queue, messages);
    fresh.setUp(1, false);
    forwarder.start();
    pushEvents(queue, 0, kEvents);
    if (mode == "drop") {
      EXPECT_TRUE(waitUntil(
          [&] { return forwarder.eventsSent() + forwarder.deliveryFailures() == kEvents; },
          seconds(30)));
    } else {
      EXPECT_TRUE(waitUntil([&] { return forwarder.deliveryFailures() >= 1; }, seconds(30)));
      fresh.setUp(1, true);
      EXPECT_TRUE(waitUntil([&] { return forwarder.eventsSent() == kEvents; }, seconds(60)));
    }
    forwarder.stop();
    forwarder.join();
    fresh.setUp(1, true);  // the consumer reads every partition to its end

    const std::vector<Record> records = consume(fresh.bootstraps());
    std::set<uint32_t> delivered;
    for (const Record& record : records) delivered.insert(indexOf.at(record.value));
    EXPECT_EQ(records.size(), forwarder.eventsSent()) << mode;
    EXPECT_EQ(delivered.size(), records.size()) << mode << ": no record twice";
    EXPECT_GT(forwarder.deliveryFailures(), 0u) << mode;
    const uint64_t lost = kEvents - delivered.size();
    EXPECT_EQ(lost, mode == "drop" ? forwarder.deliveryFailures() : 0) << mode;
    EXPECT_EQ(queue.count(), 0u) << mode;
  }
}

// A client that fails for good (here: the brokers lose track of its sequence numbers) is
// replaced, and what it held comes back through the queue.
TEST_F(KafkaForwarderTest, ReplacesAFailedClient) {
  constexpr uint32_t kEvents = 200;
  const std::map<std::string, uint32_t> indexOf = indexByValue(messages, kEvents);
  MockCluster cluster;
  KafkaForwarder forwarder(0, settingsFor(cluster, "key=client"), queue, messages);
  forwarder.start();
  pushEvents(queue, 0, kEvents / 2);
  ASSERT_TRUE(waitUntil([&] { return forwarder.eventsSent() == kEvents / 2; }, seconds(30)));
  cluster.failNextProduce(RD_KAFKA_RESP_ERR_OUT_OF_ORDER_SEQUENCE_NUMBER);
  pushEvents(queue, kEvents / 2, kEvents / 2);
  EXPECT_TRUE(waitUntil([&] { return forwarder.deliveryFailures() > 0; }, seconds(30)));
  EXPECT_TRUE(waitUntil([&] { return queue.count() == 0 && forwarder.eventsSent() >= kEvents; },
                        seconds(60)));
  forwarder.stop();
  forwarder.join();
  std::set<uint32_t> delivered;
  for (const Record& record : consume(cluster.bootstraps())) {
    delivered.insert(indexOf.at(record.value));
  }
  EXPECT_EQ(delivered.size(), kEvents);
}

// A stop flushes what the client holds; what it cannot deliver within the limit goes back to
// the queue, so nothing is lost either way.
TEST_F(KafkaForwarderTest, StopFlushesThenReturnsTheRest) {
  constexpr uint32_t kEvents = 2000;
  for (const bool brokersUp : {true, false}) {
    MockCluster fresh;
    for (int32_t broker = 1; broker <= kBrokers && !brokersUp; ++broker) fresh.setUp(broker, false);
    KafkaForwarder forwarder(0, settingsFor(fresh, "delivery-timeout=600 recovery=drop"), queue,
                             messages);
    pushEvents(queue, 0, kEvents);
    forwarder.start();
    EXPECT_TRUE(waitUntil([&] { return queue.count() < kEvents; }, seconds(10)));
    const auto stopAt = std::chrono::steady_clock::now();
    forwarder.stop();
    forwarder.join();
    const auto stopTook = std::chrono::steady_clock::now() - stopAt;
    EXPECT_LT(stopTook, KafkaForwarder::kStopFlushLimit + seconds(10)) << brokersUp;

    EXPECT_EQ(forwarder.eventsSent() + queue.count(), kEvents) << brokersUp;
    EXPECT_EQ(forwarder.deliveryFailures(), 0u) << brokersUp;
    if (!brokersUp) {
      EXPECT_EQ(std::make_tuple(queue.count(), forwarder.connected()),
                std::make_tuple(uint64_t{kEvents}, false));
    }
    const size_t events = queue.count();
    worker::testing::drain(queue);
    if (brokersUp) {
      EXPECT_EQ(consume(fresh.bootstraps()).size(), kEvents - events);
    }
  }
}

}  // namespace
}  // namespace vantrelo::kafka
