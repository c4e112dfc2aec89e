#include "metrics/agent_series.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>

namespace vantrelo::metrics {
namespace {

TEST(AgentSeriesTest, SamplesOfEachRecord) {
  format::ListenerMetrics tcp, etw, unixListener;
  tcp.id = 1;
  tcp.is_ipv6 = true;
  tcp.host = "::1";
  tcp.port = 6000;
  tcp.accepts = 7;
  format::ReceiverMetrics& peer = tcp.receivers.emplace_back();
  peer.id = 4;
  peer.host = "127.0.0.1";
  peer.port = 0x409c;  // 40000 as the socket address holds it
  peer.bytes_received = 3400;
  etw.is_etw = true;
  etw.etw = {64, 60, 2, 900, 1, 3};
  etw.filter.sampling = true;  // only the rules that are set have a series
  etw.filter.sampled_out = 9;
  etw.filter.dropped_by_domain = 5;
  unixListener.id = 2;
  unixListener.is_unix = true;
  unixListener.path = "/run/a\"b.sock";
  ExpositionWriter writer;
  appendForwarder(writer, {1, false, "k1:9092,k2:9092", 0, false, 10, 1, 3, 0, true, "dns", 7});
  appendListener(writer, tcp);
  appendQueue(writer, {10, 8, 1, 1, 120, 4096});
  appendListener(writer, etw);
  appendListener(writer, unixListener);
  appendProcess(writer, "2.4.4", 1700000000.5);
  std::string text;
  writer.write(text);

  // One sample of each kind of record and label set; a real scrape checks the plain forwarder
  // and queue series.
  const char* expected[] = {
      R"(vantrelo_forwarder_delivery_failures_total{id="1",type="kafka",target="k1:9092,k2:9092/dns"} 7)",
      R"(vantrelo_listener_accepts_total{id="1",type="ipv6",address="[::1]:6000"} 7)",
      R"(vantrelo_listener_peak_receivers{id="2",type="unix",address="/run/a\"b.sock"} 0)",
      R"(vantrelo_receiver_bytes_received_total{listener="1",id="4",peer="127.0.0.1:40000"} 3400)",
      "vantrelo_queue_used_bytes 120",
      R"(vantrelo_etw_free_buffers{id="0"} 60)",
      R"(vantrelo_etw_real_time_buffers_lost_total{id="0"} 3)",
      R"(vantrelo_listener_events_filtered_total{id="0",type="etw",address="",reason="sampled_out"} 9)",
      R"(vantrelo_build_info{version="2.4.4"} 1)",
      "process_start_time_seconds 1700000000.5",
  };
  for (const char* line : expected) {
    EXPECT_NE(text.find("\n" + std::string(line) + "\n"), std::string::npos) << line;
  }
  // 6 Kafka forwarder, 2 x 3 listener, 2 receiver, 6 queue, 6 ETW, 1 filter and 2 process
  // samples, and a HELP and a TYPE line for each of their 26 families.
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 29 + 2 * 26) << text;
}

// Samples come out under their family's HELP and TYPE, whatever order they were added in.
TEST(AgentSeriesTest, ExpositionTextEscapedAndGrouped) {
  const MetricFamily family{"x_total", MetricType::kCounter, "a \\ back\nslash \"kept\""};
  const MetricFamily gauge{"y", MetricType::kGauge, "Y."};
  ExpositionWriter writer;
  writer.add(family, {{"v", "a\\b\nc\"d"}}, uint64_t{18446744073709551615u});
  writer.add(gauge, {}, 0.25);
  writer.add(family, {{"v", ""}}, -std::numeric_limits<double>::infinity());
  std::string text;
  writer.write(text);
  EXPECT_EQ(text,
            "# HELP x_total a \\\\ back\\nslash \"kept\"\n# TYPE x_total counter\n"
            "x_total{v=\"a\\\\b\\nc\\\"d\"} 18446744073709551615\nx_total{v=\"\"} -Inf\n"
            "# HELP y Y.\n# TYPE y gauge\ny 0.25\n");
}

}  // namespace
}  // namespace vantrelo::metrics
