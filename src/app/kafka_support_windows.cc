#include "app/kafka_support.h"

namespace vantrelo::app {

void checkForwarderSupported(const worker::forwarder::ForwarderSettings& settings) {
  if (settings.kafka.enabled) {
    throw worker::forwarder::ForwarderError(
        "Kafka forwarders are not available in the Windows build: forward dnstap to a Linux "
        "vantrelo relay that writes to Kafka");
  }
}

std::unique_ptr<Worker> createKafkaForwarder(uint32_t id,
                                             const worker::forwarder::ForwarderSettings& settings,
                                             event::queue::EventQueue&,
                                             const format::MessageSettings&,
                                             const worker::forwarder::ForwarderCounters*&) {
  (void)id;
  checkForwarderSupported(settings);
  return nullptr;
}

}  // namespace vantrelo::app
