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

using std::chrono::seconds;
using worker::testing::waitUntil;

constexpr char kTopic[] = "dns";
constexpr int kBrokers = 3;
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
    rd_kafka_mock_topic_create(cluster_, kTopic, kBrokers, 1);
    for (int p = 0; p < kBrokers; ++p)
      rd_kafka_mock_partition_set_leader(cluster_, kTopic, p, p + 1);
  }
  ~MockCluster() { rd_kafka_mock_cluster_destroy(cluster_), rd_kafka_destroy(host_); }
  std::string bootstraps() const { return rd_kafka_mock_cluster_bootstraps(cluster_); }
  // The next produce request (API key 0) fails with `error`.
  void failNextProduce(rd_kafka_resp_err_t error) {
    rd_kafka_mock_push_request_errors(cluster_, 0, 1, error);
  }
  void setUp(int32_t broker, bool up) {
    up ? rd_kafka_mock_broker_set_up(cluster_, broker)
       : rd_kafka_mock_broker_set_down(cluster_, broker);
  }

 private:
  rd_kafka_t* host_;
  rd_kafka_mock_cluster_t* cluster_;
};

// One record of the topic; `key` is empty for a record without one.
struct Record {
  int partition;
  std::string key;
  std::string value;
};

// Everything in the topic, read by a real consumer; partitions interleave, each in order.
std::vector<Record> consume(const std::string& bootstraps) {
  const std::string command = "timeout 60 kcat -C -q -e -b " + bootstraps + " -t " + kTopic +
                              " -o beginning -f '%p %S %k\\n%s' 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  std::string out;
  char buffer[65536];
  for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) out.append(buffer, n);
  EXPECT_EQ(pclose(pipe), 0) << command;
  std::vector<Record> records;
  for (size_t at = 0, end; at < out.size(); at = end + 1 + records.back().value.size()) {
    int partition = 0, keyAt = 0;
    size_t valueSize = 0;
    if ((end = out.find('\n', at)) == std::string::npos ||
        std::sscanf(out.c_str() + at, "%d %zu %n", &partition, &valueSize, &keyAt) != 2) {
      ADD_FAILURE() << "unreadable kcat output at " << at;
      break;
    }
    records.push_back(
        {partition, out.substr(at + keyAt, end - at - keyAt), out.substr(end + 1, valueSize)});
  }
  return records;
}

class KafkaForwarderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::system("command -v kcat >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "kcat is not installed (scripts/install-test-peers)";
  }
  KafkaForwarder make(const std::string& options) {
    return KafkaForwarder(0,
                          worker::forwarder::parse("kafka " + cluster->bootstraps() +
                                                   " topic=" + kTopic + " " + options),
                          queue, messages);
  }
  // Pushes events from..from+count-1, event n a client query named e<n> from client
  // 192.0.2.<n % kClients + 1>, and notes the record value it must become: the formatter's
  // message without framing or line feed.
  void push(uint32_t from, uint32_t count) {
    format::MessageFormatter formatter(messages);
    encoding::dnstap::DnstapMessage record;
    const bool dnstap = messages.format == format::MessageFormat::kDnstap;
    for (uint32_t n = from; n < from + count; ++n) {
      const std::string plain = worker::testing::clientQueryEvent(n);
      record.decode(reinterpret_cast<const uint8_t*>(plain.data()),
                    static_cast<uint32_t>(plain.size()), 0);
      record.query_address = std::string("\xC0\x00\x02", 3) + static_cast<char>(n % kClients + 1);
      std::string event, value;
      record.encode(event);
      const auto* bytes = reinterpret_cast<const uint8_t*>(event.data());
      queue.push(bytes, static_cast<uint32_t>(event.size()));
      formatter.formatEvent(bytes, static_cast<uint32_t>(event.size()), record, value);
      indexOf[dnstap ? value.substr(format::kDnstapFrameLengthSize)
                     : value.erase(value.size() - 1)] = n;
    }
  }
  std::map<std::string, uint32_t> indexOf;  // event number by record value
  std::optional<MockCluster> cluster;
  event::queue::EventQueue queue{event::queue::QueueOptions{}};
  format::MessageSettings messages;
};

// Every record arrives, byte-exact, keyed by client and in order per key, as text and as dnstap.
TEST_F(KafkaForwarderTest, DeliversEveryEventAsOneRecord) {
  constexpr uint32_t kEvents = 600;
  for (const format::MessageFormat format :
       {format::MessageFormat::kJson, format::MessageFormat::kDnstap}) {
    cluster.emplace();
    messages.format = format;
    indexOf.clear();
    KafkaForwarder forwarder = make("key=client batch-size=50 compression=lz4");
    forwarder.start();
    push(0, kEvents);
    ASSERT_EQ(indexOf.size(), kEvents);
    EXPECT_TRUE(waitUntil([&] { return forwarder.eventsSent() == kEvents; }, seconds(60)));
    // Connections are counted from the client's statistics, once a second.
    EXPECT_TRUE(waitUntil([&] { return forwarder.connects() > 0; }, seconds(10)));
    forwarder.stop();
    forwarder.join();

    const std::vector<Record> records = consume(cluster->bootstraps());
    ASSERT_EQ(records.size(), kEvents);
    std::map<std::string, std::pair<int64_t, int>> lastOfKey;  // event number and partition
    uint64_t bytes = 0;
    for (const Record& record : records) {
      const auto found = indexOf.find(record.value);
      ASSERT_NE(found, indexOf.end()) << record.value;
      const int64_t n = found->second;
      auto& [last, partition] =
          lastOfKey.try_emplace(record.key, -1, record.partition).first->second;
      EXPECT_EQ(std::make_tuple(record.key, n > last, record.partition),
                std::make_tuple("192.0.2." + std::to_string(n % kClients + 1), true, partition));
      last = n;
      bytes += record.value.size();
    }
    format::ForwarderMetrics metrics;
    forwarder.metrics(metrics);
    EXPECT_EQ(std::make_tuple(metrics.is_kafka, metrics.connected, metrics.events_sent,
                              metrics.bytes_sent, metrics.delivery_failures, metrics.dnstap_errors),
              std::make_tuple(true, true, uint64_t{kEvents}, bytes, uint64_t{0}, uint64_t{0}));
  }
}

// Failed records: with the leader of one partition down for a while, drop loses exactly the
// records that failed and best-effort and durable lose nothing, none delivered twice; a client
// that fails for good (the brokers lose track of its sequence numbers) is replaced and what it
// held comes back through the queue.
TEST_F(KafkaForwarderTest, FailedRecordsPerRecoveryMode) {
  constexpr uint32_t kEvents = 300;
  for (const std::string mode : {"drop", "best-effort", "durable", "client failure"}) {
    cluster.emplace();
    const bool brokerDown = mode != "client failure";
    KafkaForwarder forwarder =
        make(brokerDown ? "key=client delivery-timeout=1 recovery=" + mode : "key=client");
    if (brokerDown) cluster->setUp(1, false);
    forwarder.start();
    push(0, brokerDown ? kEvents : kEvents / 2);
    if (!brokerDown) {
      ASSERT_TRUE(waitUntil([&] { return forwarder.eventsSent() == kEvents / 2; }, seconds(30)));
      cluster->failNextProduce(RD_KAFKA_RESP_ERR_OUT_OF_ORDER_SEQUENCE_NUMBER);
      push(kEvents / 2, kEvents / 2);
    }
    if (mode == "drop") {
      EXPECT_TRUE(waitUntil(
          [&] { return forwarder.eventsSent() + forwarder.deliveryFailures() == kEvents; },
          seconds(30)));
    } else {
      EXPECT_TRUE(waitUntil([&] { return forwarder.deliveryFailures() >= 1; }, seconds(30)));
      cluster->setUp(1, true);
      EXPECT_TRUE(waitUntil([&] { return queue.count() == 0 && forwarder.eventsSent() >= kEvents; },
                            seconds(60)));
    }
    forwarder.stop();
    forwarder.join();
    cluster->setUp(1, true);  // the consumer reads every partition to its end

    const std::vector<Record> records = consume(cluster->bootstraps());
    std::set<uint32_t> delivered;
    for (const Record& record : records) delivered.insert(indexOf.at(record.value));
    const uint64_t failures = forwarder.deliveryFailures();
    EXPECT_EQ(std::make_tuple(failures > 0, kEvents - delivered.size(), queue.count()),
              std::make_tuple(true, mode == "drop" ? failures : 0, uint64_t{0}))
        << mode;
    // A replaced client's successor may repeat what the failed one had delivered unacknowledged.
    const size_t twice = brokerDown ? records.size() - delivered.size() : 0;
    EXPECT_EQ(std::make_tuple(twice, records.size()),
              std::make_tuple(size_t{0}, brokerDown ? forwarder.eventsSent() : records.size()))
        << mode;
  }
}

// A stop flushes what the client holds; what it cannot deliver within the limit goes back to
// the queue, so nothing is lost either way.
TEST_F(KafkaForwarderTest, StopFlushesThenReturnsTheRest) {
  constexpr uint32_t kEvents = 2000;
  for (const bool brokersUp : {true, false}) {
    cluster.emplace();
    for (int32_t broker = 1; broker <= kBrokers; ++broker) cluster->setUp(broker, brokersUp);
    KafkaForwarder forwarder = make("delivery-timeout=600 recovery=drop");
    push(0, kEvents);
    forwarder.start();
    EXPECT_TRUE(waitUntil([&] { return queue.count() < kEvents; }, seconds(10)));
    const auto stopAt = std::chrono::steady_clock::now();
    forwarder.stop();
    forwarder.join();
    EXPECT_LT(std::chrono::steady_clock::now() - stopAt,
              KafkaForwarder::kStopFlushLimit + seconds(10));
    // With no broker up, every event is back in the queue; none of them counts as failed.
    const uint64_t queued = queue.count();
    EXPECT_EQ(std::make_tuple(forwarder.eventsSent() + queued, forwarder.deliveryFailures(),
                              brokersUp || (queued == kEvents && !forwarder.connected())),
              std::make_tuple(uint64_t{kEvents}, uint64_t{0}, true));
    worker::testing::drain(queue);
    // With every broker down, a consumer would only wait.
    const size_t consumed = brokersUp ? consume(cluster->bootstraps()).size() : 0;
    EXPECT_EQ(consumed, brokersUp ? kEvents - queued : 0);
  }
}

}  // namespace
}  // namespace vantrelo::kafka
