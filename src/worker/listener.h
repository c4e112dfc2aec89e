// One source of events: an ETW trace session, or a socket that accepts dnstap senders.
//
// A socket listener (TCP or Unix-domain) accepts connections on its thread and gives each to a
// Receiver on a thread of its own, up to max-connections at a time; a connection beyond that is
// refused by closing it. Receivers that end by themselves report through the finished callback
// and are joined and destroyed by the accept loop, so short connections leave nothing behind.
// An ETW listener runs the trace session on its thread and pushes every decoded record, encoded
// as dnstap, into the queue.
//
// Ownership: the Listener owns its thread, its listening socket, its receivers and, for type
// etw, its EtwReader; the queue is borrowed and outlives it. Thread-safety: start() and join()
// are called by the owner; stop(), the counters and metrics() may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/worker_thread.h"
#include "encoding/dnstap_message.h"
#include "etw/etw_reader.h"
#include "event/event_queue.h"
#include "format/metrics_report.h"
#include "net/socket.h"
#include "worker/event_pusher.h"
#include "worker/listener_settings.h"
#include "worker/receiver.h"

namespace vantrelo::worker::listener {

class Listener {
 public:
  // For type etw the trace session reader is made here, over `sessionApi` (null: the system's
  // trace sessions); its failures (an unknown Windows version, no host name) are thrown as
  // they are.
  Listener(uint32_t id, const ListenerSettings& settings, event::queue::EventQueue& queue,
           std::unique_ptr<etw::TraceSessionApi> sessionApi = nullptr);
  // Stops and joins a thread that is still running.
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  uint32_t id() const { return id_; }
  const ListenerSettings& settings() const { return settings_; }

  void start();
  // Sets the stop flag (and ends the trace session of an ETW listener); returns at once. The
  // accept loop sees the flag within one second, then stops and joins its receivers.
  void stop();
  void join();

  uint64_t accepts() const { return accepts_.load(); }
  uint64_t activeReceivers() const { return activeReceivers_.load(); }
  uint64_t peakReceivers() const { return peakReceivers_.load(); }
  // The TCP port actually listened on (the configured one, or the system's pick for port 0);
  // 0 until the socket listens.
  uint16_t boundPort() const { return boundPort_.load(); }

  // The filters' counters; null when no filter is configured.
  const filter::EdgeFilter* filter() const { return filter_.get(); }

  // Fills one listener record of the metrics report, with a record per running receiver.
  void metrics(format::ListenerMetrics& out);

  // An ETW listener whose trace session cannot run (access denied, no free logger) ends with
  // an error line; with nothing captured the agent run should end as failed. The hook (set
  // before start()) is then called on the listener's thread with the line's text.
  using FailureHook = void (*)(const std::string& reason);
  void setFailureHook(FailureHook hook) { failureHook_ = hook; }

 private:
  using ReceiverMap = std::map<uint32_t, std::unique_ptr<receiver::Receiver>>;

  std::string prefix() const { return "Listener[" + std::to_string(id_) + "]: "; }
  void run();
  void runSocket();
  void runEtw();
  void acceptPending();
  void handleConnection(std::unique_ptr<net::Socket> socket);
  // Joins and destroys the receivers that reported themselves finished.
  void reapFinished();
  // At the end of the accept loop: stops every receiver left and joins them all.
  void stopReceivers();

  static void receiverFinished(receiver::Receiver& receiver, void* context);

  const uint32_t id_;
  const ListenerSettings settings_;
  // Built from settings_.filter before the receiver settings, which point to it; null when no
  // filter is configured.
  const std::unique_ptr<filter::EdgeFilter> filter_;
  const receiver::ReceiverSettings receiverSettings_;
  event::queue::EventQueue& queue_;
  std::unique_ptr<net::Socket> socket_;
  std::unique_ptr<etw::EtwReader> etwReader_;
  EventPusher etwPusher_;  // used by the ETW thread only

  std::mutex mutex_;                                           // guards the two members below
  ReceiverMap receivers_;                                      // running receivers by id
  std::vector<std::unique_ptr<receiver::Receiver>> finished_;  // awaiting their join

  std::atomic<uint64_t> accepts_{0};
  std::atomic<uint64_t> activeReceivers_{0};
  std::atomic<uint64_t> peakReceivers_{0};
  std::atomic<uint16_t> boundPort_{0};
  FailureHook failureHook_ = nullptr;
  base::WorkerThread thread_;  // last: joined before the members above go
};

}  // namespace vantrelo::worker::listener
