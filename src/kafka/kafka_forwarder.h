// Moves events from the queue to a Kafka topic, one record per event.
//
// The forwarder pops up to batch-size events at a time, under one lock of the queue, formats each
// with the agent's message format and hands it to the Kafka client as one record: a JSON object or
// a query-log line without its line feed, or for dnstap the event's bytes without Frame Streams
// framing. The client's delivery reports decide what counts as sent. A record that fails for good
// goes back into the queue (best-effort, durable) or is counted as lost (drop); either way it
// counts as a delivery failure. The client never holds more than a fixed number of records, so
// events wait in the agent's ring, not in the client. A stop flushes what the client holds for a
// limited time, then takes back what is left and returns it to the queue, whatever the recovery
// mode. When the client fails for good (the idempotent producer can no longer keep its promises),
// the forwarder takes back what it held the same way and starts a new client.
//
// Each record in the client keeps a slot holding its encoded event, so that it can go back to
// the queue; the slots are allocated once and reused.
//
// Ownership: the KafkaForwarder owns its thread, the client handle, its formatter and the slots;
// the queue and the message settings are borrowed and outlive it. Thread-safety: start() and
// join() are called by the owner; stop(), the counters and metrics() may be called from any
// thread. Delivery reports run on the forwarder's own thread, inside its polls.
#pragma once

#include <librdkafka/rdkafka.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "encoding/dnstap_message.h"
#include "event/event_queue.h"
#include "format/message_formatter.h"
#include "format/message_settings.h"
#include "format/metrics_report.h"
#include "worker/forwarder_counters.h"
#include "worker/forwarder_settings.h"

namespace vantrelo::kafka {

class KafkaForwarder : public worker::forwarder::ForwarderCounters {
 public:
  // Creates the client; throws KafkaError when it refuses the configuration.
  KafkaForwarder(uint32_t id, const worker::forwarder::ForwarderSettings& settings,
                 event::queue::EventQueue& queue, const format::MessageSettings& messageSettings);
  // Stops and joins a thread that is still running, then closes the client.
  ~KafkaForwarder() override;
  KafkaForwarder(const KafkaForwarder&) = delete;
  KafkaForwarder& operator=(const KafkaForwarder&) = delete;

  void start();
  // Sets the stop flag; the thread notices it within one poll and returns at once.
  void stop() { stopRequested_ = true; }
  void join();

  uint64_t deliveryFailures() const { return deliveryFailures_.load(); }

  void metrics(format::ForwarderMetrics& out) const override;

  // How long a stop waits for the client to deliver what it holds.
  static constexpr std::chrono::milliseconds kStopFlushLimit{5000};

 private:
  void createClient();
  // After a fatal error of the client: takes back what it holds, then starts a new one.
  void restartClient();
  void run();
  void produceLoop();
  // Pops, formats and produces up to `limit` events; returns how many records were produced.
  uint32_t produceBatch(uint32_t limit);
  void produce(uint32_t slot, const char* value, size_t valueSize);
  // Serves delivery reports and statistics for up to `timeoutMs`, then logs what they returned
  // or lost.
  void poll(int timeoutMs);
  // Flushes, takes back what is left and returns it to the queue.
  void finish();
  // Purges the client and returns every record it held to the queue.
  void takeBack();

  static void onDelivery(rd_kafka_t* handle, const rd_kafka_message_t* message, void* opaque);
  static int onStatistics(rd_kafka_t* handle, char* json, size_t length, void* opaque);
  static void onError(rd_kafka_t* handle, int error, const char* reason, void* opaque);
  // Runs on the client's own threads; the agent's log is thread-safe.
  static void onLog(const rd_kafka_t* handle, int level, const char* facility, const char* text);
  void settle(uint32_t slot, rd_kafka_resp_err_t error, size_t valueSize);
  void readStatistics(const char* json, size_t length);

  const worker::forwarder::ForwarderSettings settings_;
  const bool dnstap_;
  event::queue::EventQueue& queue_;
  format::MessageFormatter formatter_;
  encoding::dnstap::DnstapMessage record_;
  std::string value_;   // the formatted message of the current event
  std::string key_;     // the client address of the current event, when records carry one
  std::string popped_;  // the events of the last pop, back to back
  std::vector<uint32_t> poppedLengths_;  // and their lengths

  std::vector<std::string> slots_;  // the encoded event of each record the client holds
  std::vector<uint32_t> freeSlots_;
  uint32_t inFlight_ = 0;
  bool finishing_ = false;  // records settled now go back to the queue whatever the mode
  bool fatal_ = false;      // set by the error callback, on this thread
  uint64_t returned_ = 0;   // since the last poll's log line
  uint64_t lost_ = 0;
  std::string lastError_;

  rd_kafka_t* handle_ = nullptr;
  rd_kafka_topic_t* topic_ = nullptr;
  std::thread thread_;
  std::atomic<bool> stopRequested_{false};
  std::atomic<uint64_t> deliveryFailures_{0};
};

}  // namespace vantrelo::kafka
