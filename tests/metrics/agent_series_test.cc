#include "metrics/agent_series.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <map>
#include <sstream>
#include <string>

namespace vantrelo::metrics {
namespace {

// Every family's HELP and TYPE come once, right before all of its samples, whatever order the
// samples were added in; returns the sample lines.
std::vector<std::string> checkedSamples(const std::string& text) {
  std::vector<std::string> samples;
  std::map<std::string, int> typeLines;
  std::string family;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("# HELP ")) {
      family = line.substr(7, line.find(' ', 7) - 7);
    } else if (line.starts_with("# TYPE ")) {
      EXPECT_EQ(++typeLines[family], 1) << family;
    } else {
      EXPECT_TRUE(line.starts_with(family + "{") || line.starts_with(family + " ")) << line;
      samples.push_back(line);
    }
  }
  return samples;
}

TEST(AgentSeriesTest, SamplesOfEachRecord) {
  format::ListenerMetrics tcp;
  tcp.id = 1;
  tcp.is_ipv6 = true;
  tcp.host = "::1";
  tcp.port = 6000;
  tcp.accepts = 7;
  tcp.active_receivers = 1;
  tcp.peak_receivers = 3;
  format::ReceiverMetrics& peer = tcp.receivers.emplace_back();
  peer.id = 4;
  peer.host = "127.0.0.1";
  peer.port = 0x409c;  // 40000 as the socket address holds it
  peer.events_received = 12;
  peer.bytes_received = 3400;
  format::ListenerMetrics etw;
  etw.is_etw = true;
  etw.etw = {64, 60, 2, 900, 1, 3};
  etw.filter.sampling = true;  // only the rules that are set have a series
  etw.filter.sampled_out = 9;
  etw.filter.dropped_by_domain = 5;
  format::ListenerMetrics unixListener;
  unixListener.id = 2;
  unixListener.is_unix = true;
  unixListener.path = "/run/a\"b.sock";
  format::ForwarderMetrics forwarder{0, false, "collector.example", 514, true, 5000, 50, 2, 1};
  format::ForwarderMetrics kafka{1,     false, "k1:9092,k2:9092", 0, false, 10, 1, 3, 0, true,
                                 "dns", 7};

  ExpositionWriter writer;
  appendForwarder(writer, forwarder);
  appendForwarder(writer, kafka);
  appendListener(writer, tcp);
  appendQueue(writer, {10, 8, 1, 1, 120, 4096});
  appendListener(writer, etw);
  appendListener(writer, unixListener);
  appendProcess(writer, "2.4.4", 1700000000.5);
  std::string text;
  writer.write(text);
  const std::vector<std::string> samples = checkedSamples(text);

  // One sample of each kind of record and label set; every family is checked for grouping.
  const char* expected[] = {
      R"(vantrelo_forwarder_events_sent_total{id="0",type="ipv4",target="collector.example:514"} 50)",
      R"(vantrelo_forwarder_connected{id="0",type="ipv4",target="collector.example:514"} 1)",
      R"(vantrelo_forwarder_delivery_failures_total{id="1",type="kafka",target="k1:9092,k2:9092/dns"} 7)",
      R"(vantrelo_listener_accepts_total{id="1",type="ipv6",address="[::1]:6000"} 7)",
      R"(vantrelo_listener_peak_receivers{id="2",type="unix",address="/run/a\"b.sock"} 0)",
      R"(vantrelo_receiver_bytes_received_total{listener="1",id="4",peer="127.0.0.1:40000"} 3400)",
      "vantrelo_queue_events_in_total 10",
      "vantrelo_queue_used_bytes 120",
      R"(vantrelo_etw_free_buffers{id="0"} 60)",
      R"(vantrelo_etw_real_time_buffers_lost_total{id="0"} 3)",
      R"(vantrelo_listener_events_filtered_total{id="0",type="etw",address="",reason="sampled_out"} 9)",
      R"(vantrelo_build_info{version="2.4.4"} 1)",
      "process_start_time_seconds 1700000000.5",
  };
  for (const char* line : expected) {
    EXPECT_NE(std::find(samples.begin(), samples.end(), line), samples.end()) << line;
  }
  // 5 + 6 forwarder (Kafka: delivery failures too), 2 x 3 listener, 2 receiver, 6 queue, 6 ETW,
  // 1 filter and 2 process samples.
  EXPECT_EQ(samples.size(), 34u);
}

TEST(AgentSeriesTest, EscapingAndSpecialValues) {
  const MetricFamily family{"x_total", MetricType::kCounter, "a \\ back\nslash \"kept\""};
  ExpositionWriter writer;
  writer.add(family, {{"v", "a\\b\nc\"d"}}, uint64_t{18446744073709551615u});
  writer.add(family, {{"v", ""}}, -std::numeric_limits<double>::infinity());
  std::string text;
  writer.write(text);
  EXPECT_EQ(text,
            "# HELP x_total a \\\\ back\\nslash \"kept\"\n# TYPE x_total counter\n"
            "x_total{v=\"a\\\\b\\nc\\\"d\"} 18446744073709551615\nx_total{v=\"\"} -Inf\n");
}

}  // namespace
}  // namespace vantrelo::metrics
