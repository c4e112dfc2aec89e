// The metrics report: one line with the counters of every listener, receiver, the event queue
// and every forwarder, in the `kv` or the `json` layout.
//
// The snapshot records are plain values: the background logger owns one snapshot, has the agent
// fill it from the workers' counters before each report, and formats it on its own thread.
// formatReport keeps no state and is thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vantrelo::format {

struct ReceiverMetrics {
  uint32_t id = 0;
  bool is_unix = false;  // a Unix-socket peer: uid, gid and pid instead of host and port
  bool is_ipv6 = false;
  std::string host;  // peer address text
  uint16_t port = 0;
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t pid = 0;
  uint64_t bytes_received = 0;
  uint64_t events_received = 0;
};

// The trace session statistics of an ETW listener.
struct EtwMetrics {
  uint32_t number_of_buffers = 0;
  uint32_t free_buffers = 0;
  uint32_t events_lost = 0;
  uint32_t buffers_written = 0;
  uint32_t log_buffers_lost = 0;
  uint32_t real_time_buffers_lost = 0;
};

// The edge filters' counters of one listener. A counter is reported only when its rule is set,
// so that a configuration without filters gives the report it always gave.
struct FilterMetrics {
  bool drop_list = false;
  bool keep_list = false;
  bool drop_types = false;
  bool sampling = false;
  bool privacy = false;
  uint64_t dropped_by_domain = 0;
  uint64_t dropped_by_keep = 0;
  uint64_t dropped_by_type = 0;
  uint64_t sampled_out = 0;
  uint64_t dropped_unreadable = 0;
};

// One listener; its kind is ETW when is_etw is set, else Unix socket when is_unix is set, else
// TCP (IPv4 or IPv6).
struct ListenerMetrics {
  uint32_t id = 0;
  bool is_etw = false;
  bool is_unix = false;
  bool is_ipv6 = false;
  std::string path;  // Unix listeners
  std::string host;  // TCP listeners: the address text
  uint16_t port = 0;
  uint64_t accepts = 0;
  uint64_t active_receivers = 0;
  uint64_t peak_receivers = 0;
  EtwMetrics etw;
  std::vector<ReceiverMetrics> receivers;
  FilterMetrics filter;
};

struct QueueMetrics {
  uint64_t events_processed = 0;
  uint64_t events_queued = 0;
  uint64_t events_dropped = 0;
};

struct ForwarderMetrics {
  uint32_t id = 0;
  bool is_ipv6 = false;
  std::string host;
  uint16_t port = 0;
  bool connected = false;
  uint64_t bytes_sent = 0;
  uint64_t events_sent = 0;
  uint64_t connects = 0;
  uint64_t dnstap_errors = 0;
  // A Kafka forwarder: `host` holds its broker list, `port` is unused, and records that failed
  // for good are counted apart from the others.
  bool is_kafka = false;
  std::string topic = {};
  uint64_t delivery_failures = 0;
};

// Listeners and forwarders in configuration order.
struct MetricsSnapshot {
  std::vector<ListenerMetrics> listeners;
  QueueMetrics queue;
  std::vector<ForwarderMetrics> forwarders;

  // Empties the lists and zeroes the queue counters for the next report.
  void clear();
};

// Appends the report to `out`: the `json` layout when `json` is set, else the `kv` layout.
void formatReport(const MetricsSnapshot& snapshot, bool json, std::string& out);

}  // namespace vantrelo::format
