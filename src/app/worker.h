// How the agent run drives its workers without knowing their classes.
//
// A Worker is one thread-owning object: the forwarders, the listeners and the background logger.
// The agent run owns every Worker it gets from its WorkerFactory and calls start, requestStop
// and join on its own thread only. The factory is called on the agent's thread, in
// configuration order, forwarders first, then listeners, then the background logger; it may
// keep plain pointers to the concrete objects it made (the background logger reports their
// counters), which stay valid until the run destroys them after the background logger.
#pragma once

#include <cstdint>
#include <memory>

#include "event/event_queue.h"
#include "format/message_settings.h"
#include "format/metrics_settings.h"
#include "metrics/metrics_endpoint.h"
#include "worker/forwarder_settings.h"
#include "worker/listener_settings.h"

namespace vantrelo::app {

class Worker {
 public:
  virtual ~Worker() = default;
  // Creates the worker's thread and returns.
  virtual void start() = 0;
  // Sets the worker's own stop indication and returns at once.
  virtual void requestStop() = 0;
  // Waits for the worker's thread to end.
  virtual void join() = 0;
};

// Adapts a worker class with start(), stop() and join() to the Worker interface; owns it.
template <typename T>
class WorkerOf : public Worker {
 public:
  explicit WorkerOf(std::unique_ptr<T> worker) : worker_(std::move(worker)) {}
  void start() override { worker_->start(); }
  void requestStop() override { worker_->stop(); }
  void join() override { worker_->join(); }
  T& get() { return *worker_; }

 private:
  std::unique_ptr<T> worker_;
};

class WorkerFactory {
 public:
  virtual ~WorkerFactory() = default;
  // `id` is the worker's place among the configured forwarders (listeners), from 0.
  virtual std::unique_ptr<Worker> createForwarder(
      uint32_t id, const worker::forwarder::ForwarderSettings& settings,
      event::queue::EventQueue& queue, const format::MessageSettings& formatter) = 0;
  virtual std::unique_ptr<Worker> createListener(uint32_t id,
                                                 const worker::listener::ListenerSettings& settings,
                                                 event::queue::EventQueue& queue) = 0;
  virtual std::unique_ptr<Worker> createBackgroundLogger(const format::MetricsSettings& settings,
                                                         event::queue::EventQueue& queue) = 0;
  // Called before the background logger, only when `metrics-listen` is configured.
  virtual std::unique_ptr<Worker> createMetricsEndpoint(
      const metrics::EndpointSettings& /*settings*/, event::queue::EventQueue& /*queue*/) {
    return nullptr;
  }
};

}  // namespace vantrelo::app
