#include "metrics/agent_series.h"

#include <bit>
#include <cstdint>
#include <initializer_list>

namespace vantrelo::metrics {

namespace {

using C = MetricType;

template <typename Record, typename Field>
struct Series {
  MetricFamily family;
  Field Record::*field;
};

const Series<event::queue::QueueTotals, uint64_t> kQueueSeries[] = {
    {{"vantrelo_queue_events_in_total", C::kCounter,
      "Events pushed into the queue, events a forwarder returned included."},
     &event::queue::QueueTotals::pushed},
    {{"vantrelo_queue_events_processed_total", C::kCounter,
      "Events taken out of the queue by the forwarders."},
     &event::queue::QueueTotals::popped},
    {{"vantrelo_queue_events_dropped_total", C::kCounter,
      "Events overwritten by newer ones because the queue was full."},
     &event::queue::QueueTotals::dropped},
    {{"vantrelo_queue_events", C::kGauge, "Events held in the queue."},
     &event::queue::QueueTotals::held},
    {{"vantrelo_queue_used_bytes", C::kGauge, "Bytes of the queue's ring in use."},
     &event::queue::QueueTotals::usedBytes},
    {{"vantrelo_queue_capacity_bytes", C::kGauge, "Size of the queue's ring."},
     &event::queue::QueueTotals::capacity},
};

const Series<format::ListenerMetrics, uint64_t> kListenerSeries[] = {
    {{"vantrelo_listener_accepts_total", C::kCounter,
      "Connections the listener handed to a receiver."},
     &format::ListenerMetrics::accepts},
    {{"vantrelo_listener_active_receivers", C::kGauge, "Receivers running now."},
     &format::ListenerMetrics::active_receivers},
    {{"vantrelo_listener_peak_receivers", C::kGauge,
      "The most receivers that ran at the same time."},
     &format::ListenerMetrics::peak_receivers},
};

// The system keeps these per trace session, which outlives an agent restart.
const Series<format::EtwMetrics, uint32_t> kEtwSeries[] = {
    {{"vantrelo_etw_buffers", C::kGauge, "Buffers allocated to the ETW session."},
     &format::EtwMetrics::number_of_buffers},
    {{"vantrelo_etw_free_buffers", C::kGauge, "Free buffers of the ETW session."},
     &format::EtwMetrics::free_buffers},
    {{"vantrelo_etw_events_lost_total", C::kCounter, "Events the ETW session lost."},
     &format::EtwMetrics::events_lost},
    {{"vantrelo_etw_buffers_written_total", C::kCounter, "Buffers the ETW session wrote."},
     &format::EtwMetrics::buffers_written},
    {{"vantrelo_etw_log_buffers_lost_total", C::kCounter, "Log buffers the ETW session lost."},
     &format::EtwMetrics::log_buffers_lost},
    {{"vantrelo_etw_real_time_buffers_lost_total", C::kCounter,
      "Real-time buffers the ETW session lost."},
     &format::EtwMetrics::real_time_buffers_lost},
};

const Series<format::ReceiverMetrics, uint64_t> kReceiverSeries[] = {
    {{"vantrelo_receiver_events_received_total", C::kCounter,
      "Events received on a connection still open."},
     &format::ReceiverMetrics::events_received},
    {{"vantrelo_receiver_bytes_received_total", C::kCounter,
      "Bytes of data frames received on a connection still open."},
     &format::ReceiverMetrics::bytes_received},
};

const Series<format::ForwarderMetrics, uint64_t> kForwarderSeries[] = {
    {{"vantrelo_forwarder_connects_total", C::kCounter, "Connection attempts."},
     &format::ForwarderMetrics::connects},
    {{"vantrelo_forwarder_events_sent_total", C::kCounter, "Events written to the collector."},
     &format::ForwarderMetrics::events_sent},
    {{"vantrelo_forwarder_bytes_sent_total", C::kCounter, "Bytes written to the collector."},
     &format::ForwarderMetrics::bytes_sent},
    {{"vantrelo_forwarder_dnstap_errors_total", C::kCounter,
      "Events skipped because they did not decode or format."},
     &format::ForwarderMetrics::dnstap_errors},
};

// The edge filters' counters, one series per rule that is set, told apart by `reason`.
const MetricFamily kFiltered{"vantrelo_listener_events_filtered_total", C::kCounter,
                             "Events the listener's filters kept out of the queue, by reason."};

struct FilterReason {
  const char* reason;
  bool format::FilterMetrics::*configured;
  uint64_t format::FilterMetrics::*field;
};

const FilterReason kFilterReasons[] = {
    {"drop_list", &format::FilterMetrics::drop_list, &format::FilterMetrics::dropped_by_domain},
    {"keep_list", &format::FilterMetrics::keep_list, &format::FilterMetrics::dropped_by_keep},
    {"query_type", &format::FilterMetrics::drop_types, &format::FilterMetrics::dropped_by_type},
    {"sampled_out", &format::FilterMetrics::sampling, &format::FilterMetrics::sampled_out},
    {"unreadable", &format::FilterMetrics::privacy, &format::FilterMetrics::dropped_unreadable},
};

const MetricFamily kForwarderConnected{"vantrelo_forwarder_connected", C::kGauge,
                                       "1 while the forwarder is connected to its collector."};
const MetricFamily kDeliveryFailures{
    "vantrelo_forwarder_delivery_failures_total", C::kCounter,
    "Records a Kafka forwarder's brokers did not take in time; returned or, with drop, lost."};
const MetricFamily kBuildInfo{"vantrelo_build_info", C::kGauge,
                              "Always 1; the version is in the label."};
const MetricFamily kProcessStart{"process_start_time_seconds", C::kGauge,
                                 "Start time of the process since the Unix epoch in seconds."};

std::string_view familyName(bool ipv6) { return ipv6 ? "ipv6" : "ipv4"; }

std::string hostPort(std::string_view host, uint16_t port, bool ipv6) {
  std::string text = ipv6 ? "[" + std::string(host) + "]" : std::string(host);
  return text + ":" + std::to_string(port);
}

// Peer ports are kept as the socket address holds them, in network byte order.
uint16_t hostOrder(uint16_t port) {
  if constexpr (std::endian::native == std::endian::little) {
    return static_cast<uint16_t>((port >> 8) | (port << 8));
  }
  return port;
}

void appendReceiver(ExpositionWriter& out, const std::string& listenerId,
                    const format::ReceiverMetrics& receiver) {
  const std::string id = std::to_string(receiver.id);
  const std::string peer =
      receiver.is_unix
          ? "uid=" + std::to_string(receiver.uid) + " gid=" + std::to_string(receiver.gid) +
                " pid=" + std::to_string(receiver.pid)
          : hostPort(receiver.host, hostOrder(receiver.port), receiver.is_ipv6);
  for (const auto& series : kReceiverSeries) {
    out.add(series.family, {{"listener", listenerId}, {"id", id}, {"peer", peer}},
            receiver.*series.field);
  }
}

}  // namespace

void appendQueue(ExpositionWriter& out, const event::queue::QueueTotals& totals) {
  for (const auto& series : kQueueSeries) out.add(series.family, {}, totals.*series.field);
}

void appendListener(ExpositionWriter& out, const format::ListenerMetrics& listener) {
  const std::string id = std::to_string(listener.id);
  const std::string_view type = listener.is_etw    ? "etw"
                                : listener.is_unix ? "unix"
                                                   : familyName(listener.is_ipv6);
  const std::string address = listener.is_etw ? std::string()
                              : listener.is_unix
                                  ? listener.path
                                  : hostPort(listener.host, listener.port, listener.is_ipv6);
  for (const FilterReason& filter : kFilterReasons) {
    if (!(listener.filter.*filter.configured)) continue;
    out.add(kFiltered,
            {{"id", id}, {"type", type}, {"address", address}, {"reason", filter.reason}},
            listener.filter.*filter.field);
  }
  if (listener.is_etw) {
    for (const auto& series : kEtwSeries) {
      out.add(series.family, {{"id", id}}, uint64_t{listener.etw.*series.field});
    }
    return;
  }
  for (const auto& series : kListenerSeries) {
    out.add(series.family, {{"id", id}, {"type", type}, {"address", address}},
            listener.*series.field);
  }
  for (const format::ReceiverMetrics& receiver : listener.receivers) {
    appendReceiver(out, id, receiver);
  }
}

ForwarderLabels forwarderLabels(const format::ForwarderMetrics& forwarder) {
  // A Kafka forwarder's target is its broker list and topic.
  if (forwarder.is_kafka) {
    return {std::to_string(forwarder.id), "kafka", forwarder.host + "/" + forwarder.topic};
  }
  return {std::to_string(forwarder.id), std::string(familyName(forwarder.is_ipv6)),
          hostPort(forwarder.host, forwarder.port, forwarder.is_ipv6)};
}

void appendForwarder(ExpositionWriter& out, const format::ForwarderMetrics& forwarder) {
  const ForwarderLabels names = forwarderLabels(forwarder);
  const std::initializer_list<Label> labels = {
      {"id", names.id}, {"type", names.type}, {"target", names.target}};
  for (const auto& series : kForwarderSeries) {
    out.add(series.family, labels, forwarder.*series.field);
  }
  out.add(kForwarderConnected, labels, uint64_t{forwarder.connected ? 1u : 0u});
  if (forwarder.is_kafka) out.add(kDeliveryFailures, labels, forwarder.delivery_failures);
}

void appendProcess(ExpositionWriter& out, std::string_view version, double startTimeSeconds) {
  out.add(kBuildInfo, {{"version", version}}, uint64_t{1});
  out.add(kProcessStart, {}, startTimeSeconds);
}

}  // namespace vantrelo::metrics
