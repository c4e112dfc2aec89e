#include "app/settings_reader.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <tuple>
#include <utility>

#include "etw/windows_version.h"
#include "net_test_support.h"

namespace vantrelo::app::config {
namespace {

using net::testing::errorOf;

// The Windows build carries no Kafka client and refuses a kafka forwarder when reading it.
#ifdef _WIN32
constexpr char kKafkaVerdict[] =
    "Kafka forwarders are not available in the Windows build: forward dnstap to a Linux "
    "vantrelo relay that writes to Kafka";
#else
constexpr char kKafkaVerdict[] = "(no error)";
#endif

AgentConfig configOf(const std::string& text) {
  AgentConfig config;
  config.readText(text);
  return config;
}

// Every reader in the agent's order, as the agent runs them, and the first error.
struct Settings {
  format::MessageSettings m;
  event::queue::QueueOptions q;
  std::vector<worker::forwarder::ForwarderSettings> forwarders;
  std::vector<worker::listener::ListenerSettings> listeners;
  format::MetricsSettings x;
  metrics::EndpointSettings e;
  std::string error;
};
Settings readAll(const std::string& text) {
  Settings s;
  s.error = errorOf([&, config = configOf(text)] {
    readMessageSettings(config, s.m);
    readQueueSettings(config, s.q);
    readForwarderSettings(config, false, s.forwarders);
    readListenerSettings(config, s.listeners);
    readMetricsSettings(config, s.x);
    readEndpointSettings(config, s.e);
  });
  return s;
}

TEST(SettingsReaderTest, RefusedValuesAndTheirMessages) {
  const struct {
    const char* text;
    const char* message;
  } cases[] = {
      {"message-format JSON", "Unknown message-format specified in config file: JSON"},
      {"domain-suffix-mode none", "Unknown domain-suffix-mode specified in config file: none"},
      {"domain-suffix", "Unknown domain-suffix specified in config file: "},
      {"message-syslog-priority 0", "Invalid message-syslog-priority specified in config file: 0"},
      {"message-queue-size 0", "Invalid message-queue-size specified in config file: 0"},
      {"metrics-interval -5", "Invalid metrics-interval specified in config file: -5"},
      {"metrics-format xml", "Invalid metrics-format specified in config file: xml"},
      // Readers run in a fixed order, so the first reader's error wins.
      {"metrics-interval 0\nmessage-format x",
       "Unknown message-format specified in config file: x"},
      {"listener bad\nforwarder bad", "Invalid protocol"},
      // Without an ETW listener the etw-* keys are not read at all.
      {"etw-level 0\netw-filter maybe\nlistener ipv4 127.0.0.1 6000", "(no error)"},
      // The listener's own option errors come before anything ETW.
      {"listener etw keepalive=5", "Unknown parameter 'keepalive'"},
      {"forwarder kafka k1:9092 topic=dns", kKafkaVerdict},
      {"forwarder kafka k1:9092 topic=dns acks=2", "Invalid acks option"},
      {"message-syslog-format none", "(no error)"},
      {"metrics-listen ipv4 ::1 9153",
       "Invalid metrics-listen specified in config file: ipv4 ::1 9153"},
      {"metrics-listen ipv4 127.0.0.1 9153 tls=on",
       "Invalid metrics-listen specified in config file: ipv4 127.0.0.1 9153 tls=on"},
  };
  for (const auto& c : cases) EXPECT_EQ(readAll(c.text).error, c.message) << c.text;
}

// What the readers make of a configuration, in short: message format, extended query log,
// trailing dot, suffixes (enabled, built-in, configured, count of configured), syslog style and
// priority, queue size, recovery and file name, metrics interval and format, metrics endpoint
// (enabled, IPv6, host, port).
std::string settingsOf(const std::string& text) {
  const auto [m, q, forwarders, listeners, x, e, error] = readAll(text);
  EXPECT_EQ(error, "(no error)");
  EXPECT_NE(m.process_id, 0u);
  std::ostringstream out;
  out << "format=" << int(m.format) << " extended=" << m.querylog_extended
      << " dot=" << m.trailing_dot << " suffix=" << m.suffix_enabled << "," << m.suffix_builtin
      << "," << m.suffix_config << "," << m.suffixes.configured_size()
      << " syslog=" << int(m.syslog_style) << "," << m.syslog_priority << " queue=" << q.size << ","
      << q.recovery << "," << q.filename << " metrics=" << x.interval << "," << int(x.format)
      << " listen=" << e.enabled << "," << e.socket.ipv6 << "," << e.socket.host << ","
      << e.socket.port;
  return out.str();
}

TEST(SettingsReaderTest, AcceptedValues) {
  const struct {
    const char* text;
    const char* settings;
  } cases[] = {
      {"",
       "format=0 extended=0 dot=1 suffix=1,1,1,0 syslog=0,30 queue=104857600,1,message.queue "
       "metrics=600,0 listen=0,0,127.0.0.1,514"},
      {"message-format querylog\nmessage-querylog-format extended\n"
       "message-fqdn-format without-trailing-dot\ndomain-suffix-mode builtin\n"
       "domain-suffix example.com..\ndomain-suffix Corp.Example.\nmessage-syslog-format bsd\n"
       "message-syslog-priority -1\nmessage-queue-size 4096\nmessage-queue-recovery off\n"
       "message-queue-filename state/q.bin\nmetrics-interval 10s\nmetrics-format json\n"
       "metrics-listen IPv6 ::1 9153",
       "format=1 extended=1 dot=0 suffix=1,1,0,2 syslog=1,-1 queue=4096,0,state/q.bin "
       "metrics=10,1 listen=1,1,::1,9153"},
      {"message-format dnstap\nmessage-syslog-format rfc3164\nmessage-queue-size -1\n"
       "domain-suffix-mode config",
       "format=2 extended=0 dot=1 suffix=1,0,1,0 syslog=1,30 "
       "queue=18446744073709551615,1,message.queue metrics=600,0 listen=0,0,127.0.0.1,514"},
      {"message-syslog-format rfc5424\nmessage-syslog-priority 13x\ndomain-suffix-mode off",
       "format=0 extended=0 dot=1 suffix=0,0,0,0 syslog=0,13 queue=104857600,1,message.queue "
       "metrics=600,0 listen=0,0,127.0.0.1,514"},
  };
  for (const auto& c : cases) EXPECT_EQ(settingsOf(c.text), c.settings) << c.text;
}

TEST(SettingsReaderTest, EtwListenerNeedsASupportedSystem) {
  // "(no error)" when this system can trace DNS Server events, else the reason it cannot.
  const std::string reason = errorOf([] { etw::detectWindowsVersion(); });
  const std::string two = "listener etw\nlistener ipv4 127.0.0.1 6000\nlistener etw";
  if (reason == "(no error)") {
    EXPECT_EQ(readAll("listener etw").error, "(no error)");
    EXPECT_EQ(readAll(two).error, "Only one etw listener may be configured");
    return;
  }
  // Detection runs even with the release named, after the listener's own option errors.
  EXPECT_EQ(readAll("listener etw").error, reason);
  EXPECT_EQ(readAll(two).error, reason);
  EXPECT_EQ(readAll("etw-windows-version windows2019\nlistener etw").error, reason);
  EXPECT_EQ(readAll("listener etw client-query=yes").error, "Invalid client-query option");
}

TEST(SettingsReaderTest, EtwKeys) {
  testing::internal::CaptureStdout();  // the semantics chosen, on an info line
  etw::EtwSettings s;
  readEtwSettings(configOf(""), etw::kWindows2022, s);
  EXPECT_EQ(std::make_tuple(s.windowsVersion, s.independentSession),
            std::make_tuple(etw::kWindows2022, true));
  readEtwSettings(configOf("etw-windows-version windows2012r2\netw-buffer-size 64\n"
                           "etw-minimum-buffers -1\netw-maximum-buffers 8\netw-flush-timer 2\n"
                           "etw-filter on\netw-level 257\netw-match-any-keyword 55\n"
                           "etw-match-all-keyword -1\netw-independent-session off\n"),
                  etw::kWindows2022, s);
  EXPECT_EQ(std::make_tuple(s.windowsVersion, s.bufferSize, s.minimumBuffers, s.maximumBuffers,
                            s.flushTimer, s.filter, s.level, s.matchAnyKeyword, s.matchAllKeyword,
                            s.independentSession),
            std::make_tuple(etw::kWindows2012R2, 64u, UINT32_MAX, 8u, 2u, true, 1, 55u, UINT64_MAX,
                            false));
  for (const auto& [text, message] : {
           std::pair{"etw-windows-version Windows2019",
                     "Unknown etw-windows-version specified in config file: Windows2019"},
           std::pair{"etw-maximum-buffers no",
                     "Invalid etw-maximum-buffers specified in config file: no"},
           std::pair{"etw-level 256", "Invalid etw-level specified in config file: 256"},
           std::pair{"etw-level 0\netw-buffer-size 0",
                     "Invalid etw-buffer-size specified in config file: 0"},
       }) {
    EXPECT_EQ(errorOf([&] { readEtwSettings(configOf(text), etw::kWindows2022, s); }), message)
        << text;
  }
  testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace vantrelo::app::config
