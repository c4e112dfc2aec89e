#include "format/metrics_report.h"

#include <string_view>

#include "format/text_writer.h"

namespace vantrelo::format {

namespace {

// Writes the members of one group in either layout. In `kv` a group is "name[key=value ...]"
// with strings as they are; in `json` it is {"key":value,...} with strings escaped. The first
// member of a group has no separator in front of it.
class GroupWriter {
 public:
  GroupWriter(std::string& out, bool json) : out_(out), json_(json) {}

  void open(std::string_view kvName) {
    if (json_) {
      out_.push_back('{');
    } else {
      out_.append(kvName);
      out_.push_back('[');
    }
    first_ = true;
  }

  void close() { out_.push_back(json_ ? '}' : ']'); }

  void number(std::string_view key, uint64_t value) {
    this->key(key);
    appendDecimal(out_, value);
  }

  void text(std::string_view key, std::string_view value) {
    this->key(key);
    if (json_) {
      appendJsonString(out_, value);
    } else {
      out_.append(value);
    }
  }

  // A member that only the `kv` layout carries.
  void kvOnlyText(std::string_view key, std::string_view value) {
    if (!json_) text(key, value);
  }

 private:
  void key(std::string_view key) {
    if (json_) {
      if (!first_) out_.push_back(',');
      out_.push_back('"');
      out_.append(key);
      out_.append("\":");
    } else {
      if (!first_) out_.push_back(' ');
      out_.append(key);
      out_.push_back('=');
    }
    first_ = false;
  }

  std::string& out_;
  const bool json_;
  bool first_ = true;
};

template <typename Record, typename Field>
struct Counter {
  std::string_view key;
  Field Record::*field;
};

using EtwCounter = Counter<EtwMetrics, uint32_t>;
using ListenerCounter = Counter<ListenerMetrics, uint64_t>;
using ReceiverCounter = Counter<ReceiverMetrics, uint64_t>;
using UnixPeerCounter = Counter<ReceiverMetrics, uint32_t>;
using QueueCounter = Counter<QueueMetrics, uint64_t>;
using ForwarderCounter = Counter<ForwarderMetrics, uint64_t>;

// The counters of each group, in the order in which the report names them.
const EtwCounter kEtwCounters[] = {
    {"numberOfBuffers", &EtwMetrics::number_of_buffers},
    {"freeBuffers", &EtwMetrics::free_buffers},
    {"eventsLost", &EtwMetrics::events_lost},
    {"buffersWritten", &EtwMetrics::buffers_written},
    {"logBuffersLost", &EtwMetrics::log_buffers_lost},
    {"realTimeBuffersLost", &EtwMetrics::real_time_buffers_lost},
};
const ListenerCounter kSocketListenerCounters[] = {
    {"accepts", &ListenerMetrics::accepts},
    {"activeReceivers", &ListenerMetrics::active_receivers},
    {"peakReceivers", &ListenerMetrics::peak_receivers},
};
const UnixPeerCounter kUnixPeerIds[] = {
    {"uid", &ReceiverMetrics::uid},
    {"gid", &ReceiverMetrics::gid},
    {"pid", &ReceiverMetrics::pid},
};
const ReceiverCounter kReceiverCounters[] = {
    {"bytesReceived", &ReceiverMetrics::bytes_received},
    {"eventsReceived", &ReceiverMetrics::events_received},
};
const QueueCounter kQueueCounters[] = {
    {"eventsProcessed", &QueueMetrics::events_processed},
    {"eventsQueued", &QueueMetrics::events_queued},
    {"eventsDropped", &QueueMetrics::events_dropped},
};
const ForwarderCounter kForwarderCounters[] = {
    {"connects", &ForwarderMetrics::connects},
    {"bytesSent", &ForwarderMetrics::bytes_sent},
    {"eventsSent", &ForwarderMetrics::events_sent},
    {"dnstapErrors", &ForwarderMetrics::dnstap_errors},
};

struct FilterCounter {
  std::string_view key;
  bool FilterMetrics::*configured;
  uint64_t FilterMetrics::*field;
};

const FilterCounter kFilterCounters[] = {
    {"droppedByDomain", &FilterMetrics::drop_list, &FilterMetrics::dropped_by_domain},
    {"droppedByKeep", &FilterMetrics::keep_list, &FilterMetrics::dropped_by_keep},
    {"droppedByType", &FilterMetrics::drop_types, &FilterMetrics::dropped_by_type},
    {"sampledOut", &FilterMetrics::sampling, &FilterMetrics::sampled_out},
    {"droppedUnreadable", &FilterMetrics::privacy, &FilterMetrics::dropped_unreadable},
};

template <typename Record, typename Field, size_t N>
void writeCounters(GroupWriter& writer, const Record& record,
                   const Counter<Record, Field> (&counters)[N]) {
  for (const Counter<Record, Field>& counter : counters) {
    writer.number(counter.key, record.*counter.field);
  }
}

std::string_view familyName(bool is_ipv6) { return is_ipv6 ? "ipv6" : "ipv4"; }

void writeListener(GroupWriter& writer, const ListenerMetrics& listener) {
  writer.open("listener");
  writer.number("id", listener.id);
  if (listener.is_etw) {
    writer.text("type", "etw");
    writeCounters(writer, listener.etw, kEtwCounters);
  } else {
    if (listener.is_unix) {
      writer.text("type", "unix");
      writer.text("path", listener.path);
    } else {
      writer.text("type", familyName(listener.is_ipv6));
      writer.text("host", listener.host);
      writer.number("port", listener.port);
    }
    writeCounters(writer, listener, kSocketListenerCounters);
  }
  for (const FilterCounter& counter : kFilterCounters) {
    if (listener.filter.*counter.configured) {
      writer.number(counter.key, listener.filter.*counter.field);
    }
  }
  writer.close();
}

void writeReceiver(GroupWriter& writer, const ListenerMetrics& listener,
                   const ReceiverMetrics& receiver) {
  writer.open("receiver");
  writer.number("id", receiver.id);
  writer.number("listener", listener.id);
  if (receiver.is_unix) {
    writer.text("type", "unix");
    writeCounters(writer, receiver, kUnixPeerIds);
  } else {
    writer.text("type", familyName(receiver.is_ipv6));
    writer.text("host", receiver.host);
    writer.number("port", receiver.port);
  }
  writeCounters(writer, receiver, kReceiverCounters);
  writer.close();
}

void writeQueue(GroupWriter& writer, const QueueMetrics& queue) {
  writer.open("queue");
  writer.kvOnlyText("type", "message");
  writeCounters(writer, queue, kQueueCounters);
  writer.close();
}

void writeForwarder(GroupWriter& writer, const ForwarderMetrics& forwarder) {
  writer.open("forwarder");
  writer.number("id", forwarder.id);
  if (forwarder.is_kafka) {
    writer.text("type", "kafka");
    writer.text("brokers", forwarder.host);
    writer.text("topic", forwarder.topic);
  } else {
    writer.text("type", familyName(forwarder.is_ipv6));
    writer.text("host", forwarder.host);
    writer.number("port", forwarder.port);
  }
  writer.text("state", forwarder.connected ? "connected" : "not-connected");
  writeCounters(writer, forwarder, kForwarderCounters);
  if (forwarder.is_kafka) writer.number("deliveryFailures", forwarder.delivery_failures);
  writer.close();
}

// `kv`: listener and receiver groups each followed by a blank, the queue group, then the
// forwarder groups each preceded by a blank, so the line never ends in a blank.
void formatKv(const MetricsSnapshot& snapshot, std::string& out) {
  GroupWriter writer(out, false);
  for (const ListenerMetrics& listener : snapshot.listeners) {
    writeListener(writer, listener);
    out.push_back(' ');
  }
  for (const ListenerMetrics& listener : snapshot.listeners) {
    for (const ReceiverMetrics& receiver : listener.receivers) {
      writeReceiver(writer, listener, receiver);
      out.push_back(' ');
    }
  }
  writeQueue(writer, snapshot.queue);
  for (const ForwarderMetrics& forwarder : snapshot.forwarders) {
    out.push_back(' ');
    writeForwarder(writer, forwarder);
  }
}

void formatJson(const MetricsSnapshot& snapshot, std::string& out) {
  GroupWriter writer(out, true);
  out.append("{\"listeners\":[");
  const char* separator = "";
  for (const ListenerMetrics& listener : snapshot.listeners) {
    out.append(separator);
    writeListener(writer, listener);
    separator = ",";
  }
  out.append("],\"receivers\":[");
  separator = "";
  for (const ListenerMetrics& listener : snapshot.listeners) {
    for (const ReceiverMetrics& receiver : listener.receivers) {
      out.append(separator);
      writeReceiver(writer, listener, receiver);
      separator = ",";
    }
  }
  out.append("],\"queue\":");
  writeQueue(writer, snapshot.queue);
  out.append(",\"forwarders\":[");
  separator = "";
  for (const ForwarderMetrics& forwarder : snapshot.forwarders) {
    out.append(separator);
    writeForwarder(writer, forwarder);
    separator = ",";
  }
  out.append("]}");
}

}  // namespace

void MetricsSnapshot::clear() {
  listeners.clear();
  queue = QueueMetrics();
  forwarders.clear();
}

void formatReport(const MetricsSnapshot& snapshot, bool json, std::string& out) {
  if (json) {
    formatJson(snapshot, out);
  } else {
    formatKv(snapshot, out);
  }
}

}  // namespace vantrelo::format
