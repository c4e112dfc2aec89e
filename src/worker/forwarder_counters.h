// What every kind of forwarder, TCP or Kafka, has in common: its id and log prefix, the
// counters the metrics report reads, and the frame of its thread's body (the start and end log
// lines, and a loop failure logged rather than thrown out of the thread).
//
// The counters are atomics written by the forwarder's own thread, so they and metrics() may be
// read from any thread while the forwarder runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "base/log.h"
#include "base/worker_thread.h"
#include "format/metrics_report.h"

namespace vantrelo::worker::forwarder {

class ForwarderCounters {
 public:
  virtual ~ForwarderCounters() = default;
  virtual void metrics(format::ForwarderMetrics& out) const = 0;

  uint32_t id() const { return id_; }
  bool connected() const { return connected_.load(); }
  uint64_t connects() const { return connects_.load(); }
  uint64_t bytesSent() const { return bytesSent_.load(); }
  uint64_t eventsSent() const { return eventsSent_.load(); }
  uint64_t dnstapErrors() const { return dnstapErrors_.load(); }

 protected:
  explicit ForwarderCounters(uint32_t id) : id_(id) {}

  std::string prefix() const { return "Forwarder[" + std::to_string(id_) + "]: "; }

  // The workers' thread body (base::runProcessLoop), with the configured target logged first
  // and a failure logged as "Process loop failed: ". `finish` runs whether the loop ended or
  // failed.
  void runProcessLoop(const std::string& target, const std::function<void()>& loop,
                      std::function<void()> finish = nullptr) const {
    base::runProcessLoop({.logPrefix = prefix(),
                          .loop =
                              [&] {
                                log::info(prefix() + "Configured target is " + target);
                                loop();
                              },
                          .finish = std::move(finish),
                          .failureLead = prefix() + "Process loop failed: "});
  }

  // The fields every kind reports the same way.
  void fillCounters(format::ForwarderMetrics& out) const {
    out.id = id_;
    out.connected = connected();
    out.bytes_sent = bytesSent();
    out.events_sent = eventsSent();
    out.connects = connects();
    out.dnstap_errors = dnstapErrors();
  }

  const uint32_t id_;
  std::atomic<bool> connected_{false};
  std::atomic<uint64_t> connects_{0};
  std::atomic<uint64_t> bytesSent_{0};
  std::atomic<uint64_t> eventsSent_{0};
  std::atomic<uint64_t> dnstapErrors_{0};
};

}  // namespace vantrelo::worker::forwarder
