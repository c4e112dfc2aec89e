#include "kafka/kafka_forwarder.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <string_view>

#include "base/log.h"
#include "encoding/ip.h"
#include "kafka/kafka_config.h"

namespace vantrelo::kafka {

namespace {

// With nothing to send the thread sleeps in the client's poll, which ends early for a delivery
// report but not for a push to the queue; this bounds the delay of an event after a quiet time.
constexpr int kIdlePollMs = 10;
// When the client's own queue is full, the wait for deliveries to make room.
constexpr int kFullPollMs = 10;
// After the purge at stop, the client reports every record it took back within this time.
constexpr auto kPurgeReportLimit = std::chrono::milliseconds(2000);
constexpr int kErrorTextSize = 512;
// After a client failed for good, the wait before its successor starts.
constexpr auto kRestartPause = std::chrono::milliseconds(1000);
// The client's log levels are syslog's: up to 3 are errors, 4 and 5 warnings and notices; the
// chattier ones stay out of the agent's log.
constexpr int kClientErrorLevel = 3;
constexpr int kClientLogLevel = 5;
constexpr size_t kIpv4Length = 4;
constexpr size_t kIpv6Length = 16;

// The delivery report errors that mean a stop took the record back, not that it failed.
bool purged(rd_kafka_resp_err_t error) {
  return error == RD_KAFKA_RESP_ERR__PURGE_QUEUE || error == RD_KAFKA_RESP_ERR__PURGE_INFLIGHT;
}

void* slotOpaque(uint32_t slot) { return reinterpret_cast<void*>(static_cast<uintptr_t>(slot)); }

}  // namespace

KafkaForwarder::KafkaForwarder(uint32_t id, const worker::forwarder::ForwarderSettings& settings,
                               event::queue::EventQueue& queue,
                               const format::MessageSettings& messageSettings)
    : ForwarderCounters(id),
      settings_(settings),
      dnstap_(messageSettings.format == format::MessageFormat::kDnstap),
      queue_(queue),
      formatter_(messageSettings) {
  const uint32_t limit = inFlightLimit(settings.batchSize);
  slots_.resize(limit);
  freeSlots_.reserve(limit);
  for (uint32_t slot = limit; slot > 0; --slot) freeSlots_.push_back(slot - 1);

  createClient();
}

void KafkaForwarder::createClient() {
  ConfPtr conf = makeClientConfig(settings_);
  rd_kafka_conf_set_opaque(conf.get(), this);
  rd_kafka_conf_set_dr_msg_cb(conf.get(), &KafkaForwarder::onDelivery);
  rd_kafka_conf_set_stats_cb(conf.get(), &KafkaForwarder::onStatistics);
  rd_kafka_conf_set_error_cb(conf.get(), &KafkaForwarder::onError);
  rd_kafka_conf_set_log_cb(conf.get(), &KafkaForwarder::onLog);
  char error[kErrorTextSize];
  handle_ = rd_kafka_new(RD_KAFKA_PRODUCER, conf.get(), error, sizeof(error));
  if (handle_ == nullptr) throw KafkaError(std::string("Kafka client failed: ") + error);
  // From here the client owns the configuration.
  conf.release();
  topic_ = rd_kafka_topic_new(handle_, settings_.kafka.topic.c_str(), nullptr);
  if (topic_ == nullptr) {
    rd_kafka_destroy(handle_);
    handle_ = nullptr;
    throw KafkaError("Kafka topic " + settings_.kafka.topic +
                     " refused: " + rd_kafka_err2str(rd_kafka_last_error()));
  }
}

void KafkaForwarder::restartClient() {
  log::error(prefix() + "Kafka client failed for good, starting a new one");
  takeBack();
  rd_kafka_topic_destroy(topic_);
  rd_kafka_destroy(handle_);
  topic_ = nullptr;
  handle_ = nullptr;
  // Records whose reports never came are gone with the old client.
  if (inFlight_ > 0) {
    log::error(prefix() + "Lost " + std::to_string(inFlight_) + " events with the failed client");
    freeSlots_.clear();
    for (uint32_t slot = static_cast<uint32_t>(slots_.size()); slot > 0; --slot) {
      freeSlots_.push_back(slot - 1);
    }
    inFlight_ = 0;
  }
  fatal_ = false;
  connected_ = false;
  std::this_thread::sleep_for(kRestartPause);
  createClient();
}

KafkaForwarder::~KafkaForwarder() {
  if (thread_.joinable()) {
    stop();
    join();
  }
  if (topic_ != nullptr) rd_kafka_topic_destroy(topic_);
  if (handle_ != nullptr) rd_kafka_destroy(handle_);
}

void KafkaForwarder::start() {
  if (thread_.joinable()) return;
  thread_ = std::thread(&KafkaForwarder::run, this);
}

void KafkaForwarder::join() {
  if (thread_.joinable()) thread_.join();
}

void KafkaForwarder::run() {
  runProcessLoop(
      settings_.kafka.brokers + " topic " + settings_.kafka.topic, [this] { produceLoop(); },
      [this] {
        // Without a client (a restart failed) nothing is held any more.
        if (handle_ != nullptr) finish();
      });
}

void KafkaForwarder::produceLoop() {
  const uint32_t batchSize = settings_.batchSize;
  while (!stopRequested_) {
    poll(0);
    if (fatal_) restartClient();
    const uint32_t room = static_cast<uint32_t>(freeSlots_.size());
    const uint32_t produced = room > 0 ? produceBatch(std::min(room, batchSize)) : 0;
    if (produced == 0 && !stopRequested_) poll(room > 0 ? kIdlePollMs : kFullPollMs);
  }
}

uint32_t KafkaForwarder::produceBatch(uint32_t limit) {
  // One lock for the whole batch; each event then waits for its delivery report in a slot.
  popped_.clear();
  poppedLengths_.clear();
  if (queue_.popBatch(popped_, poppedLengths_, limit) == 0) return 0;
  uint32_t produced = 0;
  size_t at = 0;
  for (const uint32_t length : poppedLengths_) {
    const uint32_t slot = freeSlots_.back();
    std::string& event = slots_[slot];
    event.assign(popped_, at, length);
    at += length;
    value_.clear();
    bool formatted = false;
    try {
      formatted = formatter_.formatEvent(reinterpret_cast<const uint8_t*>(event.data()),
                                         static_cast<uint32_t>(event.size()), record_, value_);
    } catch (const std::exception&) {
      formatted = false;
    }
    if (!formatted) {
      // Skipped for good: returning it to the queue would only fail again.
      dnstapErrors_.fetch_add(1);
      continue;
    }
    // A record is the message alone: no Frame Streams length, no line feed between messages.
    const char* value = value_.data();
    size_t valueSize = value_.size();
    if (dnstap_) {
      value += format::kDnstapFrameLengthSize;
      valueSize -= format::kDnstapFrameLengthSize;
    } else if (valueSize > 0 && value[valueSize - 1] == '\n') {
      --valueSize;
    }
    freeSlots_.pop_back();
    ++inFlight_;
    produce(slot, value, valueSize);
    ++produced;
  }
  return produced;
}

void KafkaForwarder::produce(uint32_t slot, const char* value, size_t valueSize) {
  key_.clear();
  if (settings_.kafka.key == worker::forwarder::KafkaKey::kClient) {
    const std::string& address = record_.query_address;
    const auto* bytes = reinterpret_cast<const uint8_t*>(address.data());
    if (address.size() == kIpv4Length) encoding::ip::formatIpv4(key_, bytes);
    if (address.size() == kIpv6Length) encoding::ip::formatIpv6(key_, bytes);
  }
  // The client copies the value, so the formatter's buffer is free for the next event.
  for (;;) {
    const int result = rd_kafka_produce(
        topic_, RD_KAFKA_PARTITION_UA, RD_KAFKA_MSG_F_COPY, const_cast<char*>(value), valueSize,
        key_.empty() ? nullptr : key_.data(), key_.size(), slotOpaque(slot));
    if (result == 0) return;
    const rd_kafka_resp_err_t error = rd_kafka_last_error();
    if (error == RD_KAFKA_RESP_ERR__QUEUE_FULL && !stopRequested_) {
      poll(kFullPollMs);
      continue;
    }
    // Refused at once (too large, for one): settled like a record that failed in delivery.
    settle(slot, error, valueSize);
    return;
  }
}

void KafkaForwarder::poll(int timeoutMs) {
  rd_kafka_poll(handle_, timeoutMs);
  if (returned_ > 0) {
    log::info(prefix() + "Returning " + std::to_string(returned_) +
              " failed events back to the event queue: " + lastError_);
  }
  if (lost_ > 0) {
    log::info(prefix() + "Dropped " + std::to_string(lost_) + " failed events: " + lastError_);
  }
  returned_ = 0;
  lost_ = 0;
}

void KafkaForwarder::finish() {
  finishing_ = true;
  const auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(kStopFlushLimit);
  // Flushing serves the delivery reports itself.
  rd_kafka_flush(handle_, static_cast<int>(limit.count()));
  takeBack();
}

void KafkaForwarder::takeBack() {
  if (inFlight_ == 0) return;
  // Taken back, a record is returned to the queue whatever the recovery mode: it did not fail.
  const bool finishing = finishing_;
  finishing_ = true;
  const uint32_t held = inFlight_;
  rd_kafka_purge(handle_, RD_KAFKA_PURGE_F_QUEUE | RD_KAFKA_PURGE_F_INFLIGHT);
  const auto deadline = std::chrono::steady_clock::now() + kPurgeReportLimit;
  while (inFlight_ > 0 && std::chrono::steady_clock::now() < deadline) {
    rd_kafka_poll(handle_, kFullPollMs);
  }
  finishing_ = finishing;
  log::info(prefix() + "Returning " + std::to_string(held - inFlight_) +
            " undelivered events back to the event queue");
  returned_ = 0;
  lost_ = 0;
}

void KafkaForwarder::onDelivery(rd_kafka_t*, const rd_kafka_message_t* message, void* opaque) {
  auto* self = static_cast<KafkaForwarder*>(opaque);
  const auto slot = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(message->_private));
  self->settle(slot, message->err, message->len);
}

void KafkaForwarder::settle(uint32_t slot, rd_kafka_resp_err_t error, size_t valueSize) {
  if (error == RD_KAFKA_RESP_ERR_NO_ERROR) {
    // An acknowledged record proves a broker up before the next statistics say so.
    connected_ = true;
    eventsSent_.fetch_add(1);
    bytesSent_.fetch_add(valueSize);
  } else {
    if (!purged(error)) {
      deliveryFailures_.fetch_add(1);
      lastError_ = rd_kafka_err2str(error);
    }
    if (finishing_ || settings_.returnCurrent) {
      const std::string& event = slots_[slot];
      queue_.push(reinterpret_cast<const uint8_t*>(event.data()),
                  static_cast<uint32_t>(event.size()));
      ++returned_;
    } else {
      ++lost_;
    }
  }
  freeSlots_.push_back(slot);
  --inFlight_;
}

int KafkaForwarder::onStatistics(rd_kafka_t*, char* json, size_t length, void* opaque) {
  static_cast<KafkaForwarder*>(opaque)->readStatistics(json, length);
  return 0;  // the client frees the text
}

// The statistics hold one object per broker with, in this order, its "source" (the client's
// own internal broker says "internal"), its "state" ("UP" once connected) and its "connects"
// count. A scan for those three keys is all the forwarder needs of them.
void KafkaForwarder::readStatistics(const char* json, size_t length) {
  const std::string_view text(json, length);
  constexpr std::string_view kSource = "\"source\":\"";
  constexpr std::string_view kState = "\"state\":\"";
  constexpr std::string_view kConnects = "\"connects\":";
  bool up = false;
  uint64_t connects = 0;
  size_t at = 0;
  while ((at = text.find(kSource, at)) != std::string_view::npos) {
    at += kSource.size();
    const bool internal = text.substr(at, 8) == "internal";
    const size_t state = text.find(kState, at);
    const size_t count = text.find(kConnects, at);
    if (state == std::string_view::npos || count == std::string_view::npos) break;
    if (internal) continue;
    if (text.substr(state + kState.size(), 3) == "UP\"") up = true;
    uint64_t value = 0;
    for (size_t i = count + kConnects.size(); i < text.size() && text[i] >= '0' && text[i] <= '9';
         ++i) {
      value = value * 10 + static_cast<uint64_t>(text[i] - '0');
    }
    connects += value;
  }
  connected_ = up;
  connects_ = connects;
}

void KafkaForwarder::onError(rd_kafka_t*, int error, const char* reason, void* opaque) {
  auto* self = static_cast<KafkaForwarder*>(opaque);
  const auto code = static_cast<rd_kafka_resp_err_t>(error);
  if (code == RD_KAFKA_RESP_ERR__ALL_BROKERS_DOWN) self->connected_ = false;
  // The idempotent producer stops for good when it cannot keep its guarantees; the forwarder
  // then starts a new client.
  if (code == RD_KAFKA_RESP_ERR__FATAL) self->fatal_ = true;
  log::error(self->prefix() + "Connection error: " + reason);
}

void KafkaForwarder::onLog(const rd_kafka_t* handle, int level, const char* facility,
                           const char* text) {
  // Connection failures reach the log through the error callback already.
  if (level > kClientLogLevel || std::strcmp(facility, "FAIL") == 0) return;
  const auto* self =
      handle != nullptr ? static_cast<const KafkaForwarder*>(rd_kafka_opaque(handle)) : nullptr;
  const std::string line =
      (self != nullptr ? self->prefix() : "") + "Kafka client: " + facility + ": " + text;
  if (level <= kClientErrorLevel) {
    log::error(line);
  } else {
    log::warning(line);
  }
}

void KafkaForwarder::metrics(format::ForwarderMetrics& out) const {
  fillCounters(out);
  out.is_kafka = true;
  out.host = settings_.kafka.brokers;
  out.topic = settings_.kafka.topic;
  out.delivery_failures = deliveryFailures();
}

}  // namespace vantrelo::kafka
