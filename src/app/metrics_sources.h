// The endpoint's view of the agent's workers: one MetricsSource per queue, listener and
// forwarder, reading the same counters as the "Metrics: " line, as totals since start.
//
// Each source borrows its worker, which the agent run keeps alive until the endpoint is
// destroyed. Called on the endpoint's threads while the workers run; the workers' counter
// getters are thread-safe.
#pragma once

#include <memory>

#include "event/event_queue.h"
#include "metrics/metrics_source.h"
#include "worker/forwarder_counters.h"
#include "worker/listener.h"

namespace vantrelo::app {

std::unique_ptr<metrics::MetricsSource> queueSource(event::queue::EventQueue& queue);
std::unique_ptr<metrics::MetricsSource> listenerSource(worker::listener::Listener& listener);
// `toStdout`: the forwarder prints instead of connecting, which the health check accepts.
// Any forwarder, TCP or Kafka.
std::unique_ptr<metrics::MetricsSource> forwarderSource(
    const worker::forwarder::ForwarderCounters& forwarder, bool toStdout);

}  // namespace vantrelo::app
