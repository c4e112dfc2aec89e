// Kafka forwarders where the build has a Kafka client, and a clear refusal where it has not.
//
// The POSIX build links the kafka module; the Windows build carries no Kafka client at all and
// refuses a `kafka` forwarder when the configuration is read. Stateless.
#pragma once

#include <cstdint>
#include <memory>

#include "app/worker.h"
#include "worker/forwarder_counters.h"

namespace vantrelo::app {

// Throws worker::forwarder::ForwarderError for a forwarder this build cannot run.
void checkForwarderSupported(const worker::forwarder::ForwarderSettings& settings);

// Makes the worker of a `kafka` forwarder; `counters` receives the forwarder for the metrics
// report. Throws when the client refuses its configuration.
std::unique_ptr<Worker> createKafkaForwarder(uint32_t id,
                                             const worker::forwarder::ForwarderSettings& settings,
                                             event::queue::EventQueue& queue,
                                             const format::MessageSettings& messageSettings,
                                             const worker::forwarder::ForwarderCounters*& counters);

}  // namespace vantrelo::app
