// What the metrics report reads from every kind of forwarder, TCP or Kafka.
//
// Implementations fill the record from atomic counters, so metrics() may be called from any
// thread while the forwarder runs.
#pragma once

#include "format/metrics_report.h"

namespace vantrelo::worker::forwarder {

class ForwarderCounters {
 public:
  virtual ~ForwarderCounters() = default;
  virtual void metrics(format::ForwarderMetrics& out) const = 0;
};

}  // namespace vantrelo::worker::forwarder
