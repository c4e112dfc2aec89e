#include "app/kafka_support.h"
#include "kafka/kafka_forwarder.h"

namespace vantrelo::app {

void checkForwarderSupported(const worker::forwarder::ForwarderSettings&) {}

std::unique_ptr<Worker> createKafkaForwarder(
    uint32_t id, const worker::forwarder::ForwarderSettings& settings,
    event::queue::EventQueue& queue, const format::MessageSettings& messageSettings,
    const worker::forwarder::ForwarderCounters*& counters) {
  auto forwarder = std::make_unique<kafka::KafkaForwarder>(id, settings, queue, messageSettings);
  counters = forwarder.get();
  return std::make_unique<WorkerOf<kafka::KafkaForwarder>>(std::move(forwarder));
}

}  // namespace vantrelo::app
