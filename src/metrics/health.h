// The health verdict of the endpoint: healthy while every output delivers (connected, or
// writing to standard output), unhealthy once one has been down for longer than the pause a
// forwarder waits before it tries its collector again, so a reconnect in progress is not an
// alarm.
//
// HealthTracker remembers since when each output has been seen down; the endpoint feeds it the
// outputs' states about once a second and on every /health request. Thread-safe (one mutex).
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "metrics/metrics_source.h"

namespace vantrelo::metrics {

// A forwarder waits this long before it tries an unreachable collector again.
inline constexpr std::chrono::seconds kReconnectPause{10};

class HealthTracker {
 public:
  using Clock = std::chrono::steady_clock;

  // Records the states seen at `now`; returns true when every output is healthy. `body`, when
  // given, receives the JSON object that the /health response carries.
  bool update(const std::vector<OutputState>& outputs, Clock::time_point now,
              std::string* body = nullptr);

 private:
  std::mutex mutex_;
  std::map<uint32_t, Clock::time_point> downSince_;  // outputs seen down, by id
};

}  // namespace vantrelo::metrics
