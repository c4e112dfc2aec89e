#include "format/metrics_report.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "wire_builder.h"

// Receivers below leave their trailing counters out.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace vantrelo::format {
namespace {

// A snapshot, its key=value line behind "Metrics: " and its JSON object.
using Case = std::tuple<MetricsSnapshot, std::string, std::string>;

std::vector<Case> cases() {
  MetricsSnapshot each;
  // Listener: id, is_etw, is_unix, is_ipv6, path, host, port, accepts, active and peak receivers,
  // ETW counters, receivers. Receiver: id, is_unix, is_ipv6, host, port, uid, gid, pid, bytes and
  // events received.
  const std::vector<ReceiverMetrics> unixPeers = {{3, true, false, "", 0, 101, 102, 103, 5000, 50}};
  const std::vector<ReceiverMetrics> tcpPeers = {{0, false, true, "::1", 40000, 0, 0, 0, 10, 1},
                                                 {1, false, false, "192.0.2.9", 40001}};
  each.listeners = {{0, true, false, false, "", "", 0, 0, 0, 0, {64, 60, 1, 900, 2, 3}, {}},
                    {1, false, true, false, "/run/dns\\tap.sock", "", 0, 4, 1, 2, {}, unixPeers},
                    {2, false, false, true, "", "::1", 6000, 9, 2, 2, {}, tcpPeers}};
  each.queue = {100, 20, 5};
  // Forwarder: id, is_ipv6, host, port, connected, bytes and events sent, connects, dnstap errors.
  each.forwarders = {{0, false, "127.0.0.1", 514, true, 123456, 1000, 3, 7},
                     {1, true, "2001:db8::5", 514, false, 123456, 1000, 3, 7}};
  MetricsSnapshot kafka;
  // A Kafka forwarder: brokers in `host`, then its topic and delivery failures.
  kafka.forwarders = {{2, false, "k1:9092,k2:9092", 0, true, 900, 10, 1, 0, true, "dns", 4}};
  return {
      {kafka,
       "queue[type=message eventsProcessed=0 eventsQueued=0 eventsDropped=0] forwarder[id=2 "
       "type=kafka brokers=k1:9092,k2:9092 topic=dns state=connected connects=1 bytesSent=900 "
       "eventsSent=10 dnstapErrors=0 deliveryFailures=4]",
       R"({"listeners":[],"receivers":[],"queue":{"eventsProcessed":0,"eventsQueued":0,)"
       R"("eventsDropped":0},"forwarders":[{"id":2,"type":"kafka","brokers":"k1:9092,k2:9092",)"
       R"("topic":"dns","state":"connected","connects":1,"bytesSent":900,"eventsSent":10,)"
       R"("dnstapErrors":0,"deliveryFailures":4}]})"},
      {each,
       "listener[id=0 type=etw numberOfBuffers=64 freeBuffers=60 eventsLost=1 buffersWritten=900 "
       "logBuffersLost=2 realTimeBuffersLost=3] listener[id=1 type=unix path=/run/dns\\tap.sock "
       "accepts=4 activeReceivers=1 peakReceivers=2] listener[id=2 type=ipv6 host=::1 port=6000 "
       "accepts=9 activeReceivers=2 peakReceivers=2] receiver[id=3 listener=1 type=unix uid=101 "
       "gid=102 pid=103 bytesReceived=5000 eventsReceived=50] receiver[id=0 listener=2 type=ipv6 "
       "host=::1 port=40000 bytesReceived=10 eventsReceived=1] receiver[id=1 listener=2 "
       "type=ipv4 host=192.0.2.9 port=40001 bytesReceived=0 eventsReceived=0] "
       "queue[type=message eventsProcessed=100 eventsQueued=20 eventsDropped=5] forwarder[id=0 "
       "type=ipv4 host=127.0.0.1 port=514 state=connected connects=3 bytesSent=123456 "
       "eventsSent=1000 dnstapErrors=7] forwarder[id=1 type=ipv6 host=2001:db8::5 port=514 "
       "state=not-connected connects=3 bytesSent=123456 eventsSent=1000 dnstapErrors=7]",
       R"({"listeners":[{"id":0,"type":"etw","numberOfBuffers":64,"freeBuffers":60,)"
       R"("eventsLost":1,"buffersWritten":900,"logBuffersLost":2,"realTimeBuffersLost":3},)"
       R"({"id":1,"type":"unix","path":"\/run\/dns\\tap.sock","accepts":4,"activeReceivers":1,)"
       R"("peakReceivers":2},{"id":2,"type":"ipv6","host":"::1","port":6000,"accepts":9,)"
       R"("activeReceivers":2,"peakReceivers":2}],"receivers":[{"id":3,"listener":1,)"
       R"("type":"unix","uid":101,"gid":102,"pid":103,"bytesReceived":5000,)"
       R"("eventsReceived":50},{"id":0,"listener":2,"type":"ipv6","host":"::1","port":40000,)"
       R"("bytesReceived":10,"eventsReceived":1},{"id":1,"listener":2,"type":"ipv4",)"
       R"("host":"192.0.2.9","port":40001,"bytesReceived":0,"eventsReceived":0}],)"
       R"("queue":{"eventsProcessed":100,"eventsQueued":20,"eventsDropped":5},)"
       R"("forwarders":[{"id":0,"type":"ipv4","host":"127.0.0.1","port":514,)"
       R"("state":"connected","connects":3,"bytesSent":123456,"eventsSent":1000,)"
       R"("dnstapErrors":7},{"id":1,"type":"ipv6","host":"2001:db8::5","port":514,)"
       R"("state":"not-connected","connects":3,"bytesSent":123456,"eventsSent":1000,)"
       R"("dnstapErrors":7}]})"}};
}

TEST(MetricsReportTest, BothLayouts) {
  for (const auto& [snapshot, expectedKv, expectedJson] : cases()) {
    std::string kv = "Metrics: ", json;
    formatReport(snapshot, false, kv);
    EXPECT_EQ(kv, "Metrics: " + expectedKv);
    formatReport(snapshot, true, json);
    EXPECT_EQ(json, expectedJson);
    testing::jsonLines() << json << "\n";
  }
  // clear() empties every group for the next report.
  MetricsSnapshot snapshot = std::get<0>(cases()[1]);
  snapshot.clear();
  std::string kv;
  formatReport(snapshot, false, kv);
  EXPECT_EQ(kv, "queue[type=message eventsProcessed=0 eventsQueued=0 eventsDropped=0]");
}

}  // namespace
}  // namespace vantrelo::format
