#include "app/workers.h"

#include <utility>

#include "app/entry.h"
#include "app/kafka_support.h"
#include "app/metrics_sources.h"
#include "app/process_state.h"
#include "worker/background_logger.h"

namespace vantrelo::app {

namespace {

// The background logger names its stop request differently from the other workers.
class LoggerWorker : public Worker {
 public:
  explicit LoggerWorker(std::unique_ptr<worker::BackgroundLogger> logger)
      : logger_(std::move(logger)) {}
  void start() override { logger_->start(); }
  void requestStop() override { logger_->requestStop(); }
  void join() override { logger_->join(); }

 private:
  std::unique_ptr<worker::BackgroundLogger> logger_;
};

}  // namespace

std::unique_ptr<Worker> AgentWorkers::createForwarder(
    uint32_t id, const worker::forwarder::ForwarderSettings& settings,
    event::queue::EventQueue& queue, const format::MessageSettings& formatter) {
  // In standard-output mode every forwarder prints instead of sending, Kafka ones included.
  if (settings.kafka.enabled && !settings.toStdout) {
    const worker::forwarder::ForwarderCounters* counters = nullptr;
    auto worker = createKafkaForwarder(id, settings, queue, formatter, counters);
    forwarders_.push_back(counters);
    sources_.push_back(forwarderSource(*counters, false));
    return worker;
  }
  auto forwarder = std::make_unique<worker::forwarder::Forwarder>(id, settings, queue, formatter);
  forwarders_.push_back(forwarder.get());
  sources_.push_back(forwarderSource(*forwarder, settings.toStdout));
  return std::make_unique<WorkerOf<worker::forwarder::Forwarder>>(std::move(forwarder));
}

std::unique_ptr<Worker> AgentWorkers::createListener(
    uint32_t id, const worker::listener::ListenerSettings& settings,
    event::queue::EventQueue& queue) {
  auto listener = std::make_unique<worker::listener::Listener>(id, settings, queue);
  // A listener that cannot capture at all ends the run as failed.
  listener->setFailureHook(&reportRunFailure);
  listeners_.push_back(listener.get());
  sources_.push_back(listenerSource(*listener));
  return std::make_unique<WorkerOf<worker::listener::Listener>>(std::move(listener));
}

std::unique_ptr<Worker> AgentWorkers::createBackgroundLogger(
    const format::MetricsSettings& settings, event::queue::EventQueue& queue) {
  auto collect = [listeners = std::move(listeners_), forwarders = std::move(forwarders_),
                  &queue](format::MetricsSnapshot& snapshot) {
    collectMetrics(listeners, queue, forwarders, snapshot);
  };
  listeners_.clear();
  forwarders_.clear();
  sources_.clear();
  return std::make_unique<LoggerWorker>(
      std::make_unique<worker::BackgroundLogger>(settings, std::move(collect)));
}

std::unique_ptr<Worker> AgentWorkers::createMetricsEndpoint(
    const metrics::EndpointSettings& settings, event::queue::EventQueue& queue) {
  sources_.insert(sources_.begin(), queueSource(queue));
  return std::make_unique<WorkerOf<metrics::MetricsEndpoint>>(
      std::make_unique<metrics::MetricsEndpoint>(settings, kVersion, std::move(sources_)));
}

void collectMetrics(const std::vector<worker::listener::Listener*>& listeners,
                    event::queue::EventQueue& queue,
                    const std::vector<const worker::forwarder::ForwarderCounters*>& forwarders,
                    format::MetricsSnapshot& snapshot) {
  snapshot.listeners.resize(listeners.size());
  for (size_t i = 0; i < listeners.size(); ++i) listeners[i]->metrics(snapshot.listeners[i]);
  format::QueueMetrics& counters = snapshot.queue;
  queue.snapshot(counters.events_processed, counters.events_queued, counters.events_dropped);
  snapshot.forwarders.resize(forwarders.size());
  for (size_t i = 0; i < forwarders.size(); ++i) forwarders[i]->metrics(snapshot.forwarders[i]);
}

}  // namespace vantrelo::app
