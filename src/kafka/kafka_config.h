// Turns a kafka forwarder's settings into a Kafka client configuration.
//
// The client's own queue is kept just large enough for `inFlightLimit` records, so that events
// wait in the agent's ring, not in the client. TLS maps onto the client's TLS settings with the
// same certificate store rules as the TCP forwarder: a directory of PEM files, certificates
// chosen by thumbprint or subject. Stateless; the returned configuration belongs to the caller
// until it is handed to the client.
#pragma once

#include <librdkafka/rdkafka.h>

#include <cstdint>
#include <memory>

#include "base/error.h"
#include "worker/forwarder_settings.h"

namespace vantrelo::kafka {

NS_DEFINE_ERROR(KafkaError);

struct ConfDeleter {
  void operator()(rd_kafka_conf_t* conf) const { rd_kafka_conf_destroy(conf); }
};
using ConfPtr = std::unique_ptr<rd_kafka_conf_t, ConfDeleter>;

// How many records the client may hold for a forwarder of this batch size.
uint32_t inFlightLimit(uint32_t batchSize);

// Throws KafkaError with the client's message when it refuses a value (a codec it was built
// without, for one) or when the certificate store cannot give what the settings ask for.
ConfPtr makeClientConfig(const worker::forwarder::ForwarderSettings& settings);

}  // namespace vantrelo::kafka
