#include "format/metrics_report.h"

#include <gtest/gtest.h>

#include <string>

namespace ns::format {
namespace {

ListenerMetrics etwListener() {
  ListenerMetrics listener;
  listener.id = 0;
  listener.is_etw = true;
  listener.etw = {64, 60, 1, 900, 2, 3};
  return listener;
}

ListenerMetrics unixListener() {
  ListenerMetrics listener;
  listener.id = 1;
  listener.is_unix = true;
  listener.path = "/run/dns\\tap.sock";
  listener.accepts = 4;
  listener.active_receivers = 1;
  listener.peak_receivers = 2;
  ReceiverMetrics receiver;
  receiver.id = 3;
  receiver.is_unix = true;
  receiver.uid = 101;
  receiver.gid = 102;
  receiver.pid = 103;
  receiver.bytes_received = 5000;
  receiver.events_received = 50;
  listener.receivers.push_back(receiver);
  return listener;
}

ListenerMetrics tcpListener() {
  ListenerMetrics listener;
  listener.id = 2;
  listener.is_ipv6 = true;
  listener.host = "::1";
  listener.port = 6000;
  listener.accepts = 9;
  listener.active_receivers = 2;
  listener.peak_receivers = 2;
  ReceiverMetrics first;
  first.id = 0;
  first.is_ipv6 = true;
  first.host = "::1";
  first.port = 40000;
  first.bytes_received = 10;
  first.events_received = 1;
  ReceiverMetrics second;
  second.id = 1;
  second.host = "192.0.2.9";
  second.port = 40001;
  listener.receivers = {first, second};
  return listener;
}

ForwarderMetrics forwarder(uint32_t id, bool ipv6, const char* host, bool connected) {
  ForwarderMetrics f;
  f.id = id;
  f.is_ipv6 = ipv6;
  f.host = host;
  f.port = 514;
  f.connected = connected;
  f.connects = 3;
  f.bytes_sent = 123456;
  f.events_sent = 1000;
  f.dnstap_errors = 7;
  return f;
}

struct Case {
  const char* name;
  MetricsSnapshot snapshot;
  std::string kv;
  std::string json;
};

std::vector<Case> cases() {
  std::vector<Case> all;
  all.push_back({"empty",
                 {},
                 "queue[type=message eventsProcessed=0 eventsQueued=0 eventsDropped=0]",
                 "{\"listeners\":[],\"receivers\":[],\"queue\":{\"eventsProcessed\":0,"
                 "\"eventsQueued\":0,\"eventsDropped\":0},\"forwarders\":[]}"});

  MetricsSnapshot each;
  each.listeners = {etwListener(), unixListener(), tcpListener()};
  each.queue = {100, 20, 5};
  each.forwarders = {forwarder(0, false, "127.0.0.1", true)};
  all.push_back(
      {"one of each kind", each,
       "listener[id=0 type=etw numberOfBuffers=64 freeBuffers=60 eventsLost=1 buffersWritten=900 "
       "logBuffersLost=2 realTimeBuffersLost=3] "
       "listener[id=1 type=unix path=/run/dns\\tap.sock accepts=4 activeReceivers=1 "
       "peakReceivers=2] "
       "listener[id=2 type=ipv6 host=::1 port=6000 accepts=9 activeReceivers=2 peakReceivers=2] "
       "receiver[id=3 listener=1 type=unix uid=101 gid=102 pid=103 bytesReceived=5000 "
       "eventsReceived=50] "
       "receiver[id=0 listener=2 type=ipv6 host=::1 port=40000 bytesReceived=10 "
       "eventsReceived=1] "
       "receiver[id=1 listener=2 type=ipv4 host=192.0.2.9 port=40001 bytesReceived=0 "
       "eventsReceived=0] "
       "queue[type=message eventsProcessed=100 eventsQueued=20 eventsDropped=5] "
       "forwarder[id=0 type=ipv4 host=127.0.0.1 port=514 state=connected connects=3 "
       "bytesSent=123456 eventsSent=1000 dnstapErrors=7]",
       "{\"listeners\":["
       "{\"id\":0,\"type\":\"etw\",\"numberOfBuffers\":64,\"freeBuffers\":60,\"eventsLost\":1,"
       "\"buffersWritten\":900,\"logBuffersLost\":2,\"realTimeBuffersLost\":3},"
       "{\"id\":1,\"type\":\"unix\",\"path\":\"\\/run\\/dns\\\\tap.sock\",\"accepts\":4,"
       "\"activeReceivers\":1,\"peakReceivers\":2},"
       "{\"id\":2,\"type\":\"ipv6\",\"host\":\"::1\",\"port\":6000,\"accepts\":9,"
       "\"activeReceivers\":2,\"peakReceivers\":2}],"
       "\"receivers\":["
       "{\"id\":3,\"listener\":1,\"type\":\"unix\",\"uid\":101,\"gid\":102,\"pid\":103,"
       "\"bytesReceived\":5000,\"eventsReceived\":50},"
       "{\"id\":0,\"listener\":2,\"type\":\"ipv6\",\"host\":\"::1\",\"port\":40000,"
       "\"bytesReceived\":10,\"eventsReceived\":1},"
       "{\"id\":1,\"listener\":2,\"type\":\"ipv4\",\"host\":\"192.0.2.9\",\"port\":40001,"
       "\"bytesReceived\":0,\"eventsReceived\":0}],"
       "\"queue\":{\"eventsProcessed\":100,\"eventsQueued\":20,\"eventsDropped\":5},"
       "\"forwarders\":[{\"id\":0,\"type\":\"ipv4\",\"host\":\"127.0.0.1\",\"port\":514,"
       "\"state\":\"connected\",\"connects\":3,\"bytesSent\":123456,\"eventsSent\":1000,"
       "\"dnstapErrors\":7}]}"});

  MetricsSnapshot forwarders;
  forwarders.forwarders = {forwarder(0, false, "collector", true),
                           forwarder(1, true, "2001:db8::5", false)};
  all.push_back(
      {"several forwarders", forwarders,
       "queue[type=message eventsProcessed=0 eventsQueued=0 eventsDropped=0] "
       "forwarder[id=0 type=ipv4 host=collector port=514 state=connected connects=3 "
       "bytesSent=123456 eventsSent=1000 dnstapErrors=7] "
       "forwarder[id=1 type=ipv6 host=2001:db8::5 port=514 state=not-connected connects=3 "
       "bytesSent=123456 eventsSent=1000 dnstapErrors=7]",
       "{\"listeners\":[],\"receivers\":[],\"queue\":{\"eventsProcessed\":0,\"eventsQueued\":0,"
       "\"eventsDropped\":0},\"forwarders\":["
       "{\"id\":0,\"type\":\"ipv4\",\"host\":\"collector\",\"port\":514,\"state\":\"connected\","
       "\"connects\":3,\"bytesSent\":123456,\"eventsSent\":1000,\"dnstapErrors\":7},"
       "{\"id\":1,\"type\":\"ipv6\",\"host\":\"2001:db8::5\",\"port\":514,"
       "\"state\":\"not-connected\",\"connects\":3,\"bytesSent\":123456,\"eventsSent\":1000,"
       "\"dnstapErrors\":7}]}"});
  return all;
}

TEST(MetricsReportTest, BothLayouts) {
  for (const Case& c : cases()) {
    std::string kv = "Metrics: ";
    formatReport(c.snapshot, false, kv);
    EXPECT_EQ(kv, "Metrics: " + c.kv) << c.name;
    std::string json;
    formatReport(c.snapshot, true, json);
    EXPECT_EQ(json, c.json) << c.name;
  }
}

TEST(MetricsReportTest, ClearEmptiesEveryGroup) {
  MetricsSnapshot snapshot = cases()[1].snapshot;
  snapshot.clear();
  std::string kv;
  formatReport(snapshot, false, kv);
  EXPECT_EQ(kv, cases()[0].kv);
}

}  // namespace
}  // namespace ns::format
