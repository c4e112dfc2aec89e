// The agent's own series: the queue, the listeners with their live receivers, the forwarders,
// the build and the process start.
//
// Each function turns one record (the same records the "Metrics: " line is built from, read as
// totals since start) into samples, from one table of series per record: a new counter of a
// record is one more row of its table. A worker type with counters of its own defines its
// MetricFamily constants beside its source and adds its samples with the labels these
// functions use for its kind, e.g. forwarderLabels below. Stateless and thread-safe.
#pragma once

#include <string>
#include <string_view>

#include "event/event_queue.h"
#include "format/metrics_report.h"
#include "metrics/exposition.h"

namespace vantrelo::metrics {

void appendQueue(ExpositionWriter& out, const event::queue::QueueTotals& totals);
// The listener's series and one set per receiver it lists; ETW listeners give their trace
// session's counters instead.
void appendListener(ExpositionWriter& out, const format::ListenerMetrics& listener);
void appendForwarder(ExpositionWriter& out, const format::ForwarderMetrics& forwarder);
void appendProcess(ExpositionWriter& out, std::string_view version, double startTimeSeconds);

// The label values that identify a forwarder: its id, type and "host:port" target.
struct ForwarderLabels {
  std::string id;
  std::string type;
  std::string target;
};
ForwarderLabels forwarderLabels(const format::ForwarderMetrics& forwarder);

}  // namespace vantrelo::metrics
