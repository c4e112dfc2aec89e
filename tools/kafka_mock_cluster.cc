// A three-broker Kafka cluster in one process, on the Kafka client library's mock brokers, for
// trying a kafka forwarder and benchmarking it where no real broker can be installed.
//
// usage: vantrelo-kafka-mock [topic [count]]
// Creates `topic` (default "dns") with three partitions, prints the bootstrap list on one line,
// and runs until standard input closes. With a count it also watches the topic and, once that
// many records have been appended to it, prints the wall-clock time and the count on one line.
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
// How often the record count is taken, and how long one query may take.
constexpr int kPollMs = 5;
constexpr int kQueryMs = 1000;

// Waits until the topic's partitions hold `count` records in all and prints when. The mock
// brokers keep only the last few megabytes of each partition, so the count comes from the high
// watermarks (the offset the next record will get), not from reading the records.
void countRecords(const std::string& bootstraps, const char* topic, long count) {
  char error[256];
  rd_kafka_conf_t* conf = rd_kafka_conf_new();
  rd_kafka_conf_set(conf, "bootstrap.servers", bootstraps.c_str(), error, sizeof(error));
  rd_kafka_t* client = rd_kafka_new(RD_KAFKA_PRODUCER, conf, error, sizeof(error));
  long seen = 0;
  while (seen < count) {
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
    long total = 0;
    for (int p = 0; p < kPartitions; ++p) {
      int64_t low = 0;
      int64_t high = 0;
      if (rd_kafka_query_watermark_offsets(client, topic, p, &low, &high, kQueryMs) !=
          RD_KAFKA_RESP_ERR_NO_ERROR) {
        total = -1;
        break;
      }
      total += static_cast<long>(high);
    }
    if (total >= 0) seen = total;
  }
  const double now =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  std::printf("%.6f %ld\n", now, seen);
  std::fflush(stdout);
  rd_kafka_destroy(client);
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
