// The agent's concrete workers: forwarders, listeners and the background logger.
//
// AgentWorkers is the WorkerFactory the program hands to the agent run. It keeps plain pointers
// to the forwarders and listeners it made, in configuration order, and gives them to the
// background logger, whose report collects the counters of every listener (with its running
// receivers), of the queue and of every forwarder. The run owns every worker and destroys the
// background logger first, so the pointers never outlive their objects. One factory serves one
// run at a time; it is used on the agent's thread only, and the collect function it builds runs
// on the logger's thread.
#pragma once

#include <memory>
#include <vector>

#include "app/worker.h"
#include "metrics/metrics_source.h"
#include "worker/forwarder.h"
#include "worker/listener.h"

namespace vantrelo::app {

class AgentWorkers : public WorkerFactory {
 public:
  std::unique_ptr<Worker> createForwarder(uint32_t id,
                                          const worker::forwarder::ForwarderSettings& settings,
                                          event::queue::EventQueue& queue,
                                          const format::MessageSettings& formatter) override;
  std::unique_ptr<Worker> createListener(uint32_t id,
                                         const worker::listener::ListenerSettings& settings,
                                         event::queue::EventQueue& queue) override;
  // Hands the workers made so far to the logger; the next run starts with empty lists.
  std::unique_ptr<Worker> createBackgroundLogger(const format::MetricsSettings& settings,
                                                 event::queue::EventQueue& queue) override;
  // Hands the endpoint a source for the queue and for every worker made so far.
  std::unique_ptr<Worker> createMetricsEndpoint(const metrics::EndpointSettings& settings,
                                                event::queue::EventQueue& queue) override;

 private:
  std::vector<const worker::forwarder::ForwarderCounters*> forwarders_;
  std::vector<worker::listener::Listener*> listeners_;
  std::vector<std::unique_ptr<metrics::MetricsSource>> sources_;
};

// Fills `snapshot` from the workers' counters and the queue's.
void collectMetrics(const std::vector<worker::listener::Listener*>& listeners,
                    event::queue::EventQueue& queue,
                    const std::vector<const worker::forwarder::ForwarderCounters*>& forwarders,
                    format::MetricsSnapshot& snapshot);

}  // namespace vantrelo::app
