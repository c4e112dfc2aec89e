// What the endpoint asks of every part of the agent that has counters.
//
// A MetricsSource appends its series to the writer of a scrape; a source that delivers events
// to a collector (a forwarder of any type) also reports whether it is delivering, for the
// health check. The endpoint owns its sources and calls them from its connection threads one
// scrape at a time (never two calls at once), while the workers they read keep running: a
// source reads counters (atomics, or under the worker's own lock) and never blocks for long.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "metrics/exposition.h"

namespace vantrelo::metrics {

// One output's state for the health check.
struct OutputState {
  uint32_t id = 0;     // the forwarder's place among the configured forwarders
  std::string target;  // where it delivers, as configured
  bool toStdout = false;
  bool connected = false;
};

class MetricsSource {
 public:
  virtual ~MetricsSource() = default;
  virtual void collect(ExpositionWriter& out) = 0;
  // Only sources that deliver events add a state.
  virtual void outputs(std::vector<OutputState>& /*out*/) {}
};

}  // namespace vantrelo::metrics
