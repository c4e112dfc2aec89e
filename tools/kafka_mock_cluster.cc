// A three-broker Kafka cluster in one process, on the Kafka client library's mock brokers, for
// trying a kafka forwarder and benchmarking it where no real broker can be installed.
//
// usage: vantrelo-kafka-mock [topic [count]]
// Creates `topic` (default "dns") with three partitions, prints the bootstrap list on one line,
// and runs until standard input closes. With a count it also reads the topic from its start and,
// once it has seen that many records, prints the wall-clock time and the count on one line.
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

constexpr int kBrokers = 3;
constexpr int kPartitions = 3;
constexpr int kPollMs = 100;

void countRecords(const std::string& bootstraps, const char* topic, long count) {
  char error[256];
  rd_kafka_conf_t* conf = rd_kafka_conf_new();
  rd_kafka_conf_set(conf, "bootstrap.servers", bootstraps.c_str(), error, sizeof(error));
  rd_kafka_conf_set(conf, "group.id", "vantrelo-kafka-mock", error, sizeof(error));
  rd_kafka_conf_set(conf, "enable.auto.commit", "false", error, sizeof(error));
  rd_kafka_t* consumer = rd_kafka_new(RD_KAFKA_CONSUMER, conf, error, sizeof(error));
  rd_kafka_topic_partition_list_t* partitions = rd_kafka_topic_partition_list_new(kPartitions);
  for (int p = 0; p < kPartitions; ++p) {
    rd_kafka_topic_partition_list_add(partitions, topic, p)->offset = RD_KAFKA_OFFSET_BEGINNING;
  }
  rd_kafka_assign(consumer, partitions);
  rd_kafka_topic_partition_list_destroy(partitions);
  long seen = 0;
  while (seen < count) {
    rd_kafka_message_t* message = rd_kafka_consumer_poll(consumer, kPollMs);
    if (message == nullptr) continue;
    if (message->err == RD_KAFKA_RESP_ERR_NO_ERROR) ++seen;
    rd_kafka_message_destroy(message);
  }
  const double now =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  std::printf("%.6f %ld\n", now, seen);
  std::fflush(stdout);
  rd_kafka_consumer_close(consumer);
  rd_kafka_destroy(consumer);
}

}  // namespace

int main(int argc, char** argv) {
  const char* topic = argc > 1 ? argv[1] : "dns";
  const long count = argc > 2 ? std::atol(argv[2]) : 0;
  char error[256];
  rd_kafka_t* host = rd_kafka_new(RD_KAFKA_PRODUCER, rd_kafka_conf_new(), error, sizeof(error));
  rd_kafka_mock_cluster_t* cluster = rd_kafka_mock_cluster_new(host, kBrokers);
  if (cluster == nullptr) {
    std::fprintf(stderr, "vantrelo-kafka-mock: no mock cluster\n");
    return 1;
  }
  rd_kafka_mock_topic_create(cluster, topic, kPartitions, 1);
  const std::string bootstraps = rd_kafka_mock_cluster_bootstraps(cluster);
  std::printf("%s\n", bootstraps.c_str());
  std::fflush(stdout);
  std::thread counter;
  if (count > 0) counter = std::thread(countRecords, bootstraps, topic, count);
  char buffer[256];
  while (read(STDIN_FILENO, buffer, sizeof(buffer)) > 0) {
  }
  if (counter.joinable()) counter.detach();  // the process ends here, with its cluster
  std::_Exit(0);
}
