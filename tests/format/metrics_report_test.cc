#include "format/metrics_report.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// The snapshots below name only the fields they set.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace ns::format {
namespace {

ForwarderMetrics forwarder(uint32_t id, bool ipv6, const char* host, bool connected) {
  return {.id = id,
          .is_ipv6 = ipv6,
          .host = host,
          .port = 514,
          .connected = connected,
          .bytes_sent = 123456,
          .events_sent = 1000,
          .connects = 3,
          .dnstap_errors = 7};
}

struct Case {
  MetricsSnapshot snapshot;
  std::string kv;
  std::string json;
};

std::vector<Case> cases() {
  MetricsSnapshot each;
  each.listeners = {{.id = 0, .is_etw = true, .etw = {64, 60, 1, 900, 2, 3}},
                    {.id = 1,
                     .is_unix = true,
                     .path = "/run/dns\\tap.sock",
                     .accepts = 4,
                     .active_receivers = 1,
                     .peak_receivers = 2,
                     .receivers = {{.id = 3,
                                    .is_unix = true,
                                    .uid = 101,
                                    .gid = 102,
                                    .pid = 103,
                                    .bytes_received = 5000,
                                    .events_received = 50}}},
                    {.id = 2,
                     .is_ipv6 = true,
                     .host = "::1",
                     .port = 6000,
                     .accepts = 9,
                     .active_receivers = 2,
                     .peak_receivers = 2,
                     .receivers = {{.id = 0,
                                    .is_ipv6 = true,
                                    .host = "::1",
                                    .port = 40000,
                                    .bytes_received = 10,
                                    .events_received = 1},
                                   {.id = 1, .host = "192.0.2.9", .port = 40001}}}};
  each.queue = {100, 20, 5};
  each.forwarders = {forwarder(0, false, "127.0.0.1", true)};
  MetricsSnapshot forwarders;
  forwarders.forwarders = {forwarder(0, false, "collector", true),
                           forwarder(1, true, "2001:db8::5", false)};
  return {
      {{},
       "queue[type=message eventsProcessed=0 eventsQueued=0 eventsDropped=0]",
       R"({"listeners":[],"receivers":[],"queue":{"eventsProcessed":0,"eventsQueued":0,)"
       R"("eventsDropped":0},"forwarders":[]})"},
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
       "eventsSent=1000 dnstapErrors=7]",
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
       R"("dnstapErrors":7}]})"},
      {forwarders,
       "queue[type=message eventsProcessed=0 eventsQueued=0 eventsDropped=0] forwarder[id=0 "
       "type=ipv4 host=collector port=514 state=connected connects=3 bytesSent=123456 "
       "eventsSent=1000 dnstapErrors=7] forwarder[id=1 type=ipv6 host=2001:db8::5 port=514 "
       "state=not-connected connects=3 bytesSent=123456 eventsSent=1000 dnstapErrors=7]",
       R"({"listeners":[],"receivers":[],"queue":{"eventsProcessed":0,"eventsQueued":0,)"
       R"("eventsDropped":0},"forwarders":[{"id":0,"type":"ipv4","host":"collector",)"
       R"("port":514,"state":"connected","connects":3,"bytesSent":123456,"eventsSent":1000,)"
       R"("dnstapErrors":7},{"id":1,"type":"ipv6","host":"2001:db8::5","port":514,)"
       R"("state":"not-connected","connects":3,"bytesSent":123456,"eventsSent":1000,)"
       R"("dnstapErrors":7}]})"}};
}

TEST(MetricsReportTest, BothLayouts) {
  for (const Case& c : cases()) {
    std::string kv = "Metrics: ";
    formatReport(c.snapshot, false, kv);
    EXPECT_EQ(kv, "Metrics: " + c.kv);
    std::string json;
    formatReport(c.snapshot, true, json);
    EXPECT_EQ(json, c.json);
  }
  // clear() empties every group for the next report.
  MetricsSnapshot snapshot = cases()[1].snapshot;
  snapshot.clear();
  std::string kv;
  formatReport(snapshot, false, kv);
  EXPECT_EQ(kv, cases()[0].kv);
}

}  // namespace
}  // namespace ns::format
