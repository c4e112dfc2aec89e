#include "app/metrics_sources.h"

#include "metrics/agent_series.h"

namespace vantrelo::app {

namespace {

class QueueSource : public metrics::MetricsSource {
 public:
  explicit QueueSource(event::queue::EventQueue& queue) : queue_(queue) {}
  void collect(metrics::ExpositionWriter& out) override {
    metrics::appendQueue(out, queue_.totals());
  }

 private:
  event::queue::EventQueue& queue_;
};

class ListenerSource : public metrics::MetricsSource {
 public:
  explicit ListenerSource(worker::listener::Listener& listener) : listener_(listener) {}
  void collect(metrics::ExpositionWriter& out) override {
    listener_.metrics(record_);
    metrics::appendListener(out, record_);
  }

 private:
  worker::listener::Listener& listener_;
  format::ListenerMetrics record_;  // reused between scrapes
};

class ForwarderSource : public metrics::MetricsSource {
 public:
  ForwarderSource(const worker::forwarder::ForwarderCounters& forwarder, bool toStdout)
      : forwarder_(forwarder), toStdout_(toStdout) {}
  void collect(metrics::ExpositionWriter& out) override {
    forwarder_.metrics(record_);
    metrics::appendForwarder(out, record_);
  }
  void outputs(std::vector<metrics::OutputState>& out) override {
    forwarder_.metrics(record_);
    out.push_back(
        {record_.id, metrics::forwarderLabels(record_).target, toStdout_, record_.connected});
  }

 private:
  const worker::forwarder::ForwarderCounters& forwarder_;
  const bool toStdout_;
  format::ForwarderMetrics record_;
};

}  // namespace

std::unique_ptr<metrics::MetricsSource> queueSource(event::queue::EventQueue& queue) {
  return std::make_unique<QueueSource>(queue);
}

std::unique_ptr<metrics::MetricsSource> listenerSource(worker::listener::Listener& listener) {
  return std::make_unique<ListenerSource>(listener);
}

std::unique_ptr<metrics::MetricsSource> forwarderSource(
    const worker::forwarder::ForwarderCounters& forwarder, bool toStdout) {
  return std::make_unique<ForwarderSource>(forwarder, toStdout);
}

}  // namespace vantrelo::app
