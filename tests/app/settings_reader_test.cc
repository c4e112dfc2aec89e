#include "app/settings_reader.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>

#include "etw/windows_version.h"

namespace ns::app::config {
namespace {

AgentConfig configOf(const std::string& text) {
  AgentConfig config;
  config.readText(text);
  return config;
}

// Runs every reader in the agent's order, as the agent does, and returns the first error.
std::string firstError(const std::string& text) {
  const AgentConfig config = configOf(text);
  format::MessageSettings message;
  event::queue::QueueOptions queue;
  std::vector<worker::forwarder::ForwarderSettings> forwarders;
  std::vector<worker::listener::ListenerSettings> listeners;
  format::MetricsSettings metrics;
  try {
    readMessageSettings(config, message);
    readQueueSettings(config, queue);
    readForwarderSettings(config, false, forwarders);
    readListenerSettings(config, listeners);
    readMetricsSettings(config, metrics);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(SettingsReaderTest, RefusedValuesAndTheirMessages) {
  struct Case {
    const char* text;
    const char* message;
  };
  const Case cases[] = {
      {"message-format JSON", "Unknown message-format specified in config file: JSON"},
      {"message-querylog-format full",
       "Unknown message-querylog-format specified in config file: full"},
      {"message-fqdn-format dot", "Unknown message-fqdn-format specified in config file: dot"},
      {"domain-suffix-mode none", "Unknown domain-suffix-mode specified in config file: none"},
      {"domain-suffix ...", "Unknown domain-suffix specified in config file: ..."},
      {"domain-suffix", "Unknown domain-suffix specified in config file: "},
      {"message-syslog-format RFC5424",
       "Unknown message-syslog-format specified in config file: RFC5424"},
      {"message-syslog-priority 0", "Invalid message-syslog-priority specified in config file: 0"},
      {"message-syslog-priority x", "Invalid message-syslog-priority specified in config file: x"},
      {"message-queue-size 0", "Invalid message-queue-size specified in config file: 0"},
      {"message-queue-recovery yes",
       "Unknown message-queue-recovery specified in config file: yes"},
      {"metrics-interval 0", "Invalid metrics-interval specified in config file: 0"},
      {"metrics-interval abc", "Invalid metrics-interval specified in config file: abc"},
      {"metrics-interval -5", "Invalid metrics-interval specified in config file: -5"},
      {"metrics-format xml", "Invalid metrics-format specified in config file: xml"},
      {"forwarder tcp h 1", "Invalid protocol"},
      {"listener ipv4 h 0", "Invalid port"},
      // Readers run in a fixed order, so the first reader's error wins.
      {"metrics-interval 0\nmessage-format x",
       "Unknown message-format specified in config file: x"},
      {"listener bad\nforwarder bad", "Invalid protocol"},
      {"message-format x\nmessage-fqdn-format y",
       "Unknown message-fqdn-format specified in config file: y"},
      // Without an ETW listener the etw-* keys are not read at all.
      {"etw-level 0\netw-filter maybe\nlistener ipv4 127.0.0.1 6000", "(accepted)"},
      // The listener's own option errors come before anything ETW.
      {"listener etw keepalive=5", "Unknown parameter 'keepalive'"},
      {"message-format json\nmessage-format JSON", "(accepted)"},
      {"metrics-interval 10s", "(accepted)"},
  };
  for (const Case& c : cases) EXPECT_EQ(firstError(c.text), c.message) << c.text;
}

TEST(SettingsReaderTest, MessageSettings) {
  format::MessageSettings s;
  readMessageSettings(configOf("message-format querylog\nmessage-querylog-format extended\n"
                               "message-fqdn-format without-trailing-dot\n"
                               "domain-suffix-mode builtin\ndomain-suffix example.com..\n"
                               "domain-suffix Corp.Example.\nmessage-hostname dns-1.site\n"
                               "message-syslog-format bsd\nmessage-syslog-priority -1\n"),
                      s);
  EXPECT_EQ(std::make_tuple(s.format, s.querylog_extended, s.trailing_dot, s.suffix_enabled,
                            s.suffix_builtin, s.suffix_config, s.hostname, s.syslog_style,
                            s.syslog_priority, s.suffixes.configured_size()),
            std::make_tuple(format::MessageFormat::kQuerylog, true, false, true, true, false,
                            "dns-1.site", 1, -1, 2u));
  EXPECT_GT(s.suffixes.builtin_size(), 1000u);
  EXPECT_NE(s.process_id, 0u);
}

TEST(SettingsReaderTest, MessageDefaultsAndWordTables) {
  format::MessageSettings s;
  readMessageSettings(configOf(""), s);
  EXPECT_FALSE(s.hostname.empty());
  EXPECT_LT(s.hostname.size(), 16u);
  EXPECT_EQ(s.syslog_style, 0);
  EXPECT_EQ(s.syslog_priority, 30);

  struct Case {
    const char* text;
    std::function<bool(const format::MessageSettings&)> check;
  };
  const Case cases[] = {
      {"message-format dnstap", [](auto& m) { return m.format == format::MessageFormat::kDnstap; }},
      {"message-syslog-format rfc3164", [](auto& m) { return m.syslog_style == 1; }},
      {"message-syslog-format rfc5424", [](auto& m) { return m.syslog_style == 0; }},
      {"message-syslog-format none", [](auto& m) { return m.syslog_style == 0; }},
      {"domain-suffix-mode config",
       [](auto& m) { return m.suffix_enabled && !m.suffix_builtin && m.suffix_config; }},
      {"domain-suffix-mode off",
       [](auto& m) { return !m.suffix_enabled && !m.suffix_builtin && !m.suffix_config; }},
      {"message-syslog-priority 13x", [](auto& m) { return m.syslog_priority == 13; }},
  };
  for (const Case& c : cases) {
    format::MessageSettings m;
    readMessageSettings(configOf(c.text), m);
    EXPECT_TRUE(c.check(m)) << c.text;
  }
}

TEST(SettingsReaderTest, QueueAndMetrics) {
  event::queue::QueueOptions q;
  readQueueSettings(configOf(""), q);
  EXPECT_EQ(std::make_tuple(q.size, q.recovery, q.filename),
            std::make_tuple(104857600u, true, "message.queue"));
  readQueueSettings(configOf("message-queue-size 4096\nmessage-queue-recovery off\n"
                             "message-queue-filename state/q.bin\n"),
                    q);
  EXPECT_EQ(std::make_tuple(q.size, q.recovery, q.filename),
            std::make_tuple(4096u, false, "state/q.bin"));
  readQueueSettings(configOf("message-queue-size -1"), q);
  EXPECT_EQ(q.size, UINT64_MAX);

  format::MetricsSettings m;
  readMetricsSettings(configOf(""), m);
  EXPECT_EQ(std::make_tuple(m.interval, m.format),
            std::make_tuple(600, format::MetricsFormat::kKv));
  readMetricsSettings(configOf("metrics-interval 10s\nmetrics-format json"), m);
  EXPECT_EQ(std::make_tuple(m.interval, m.format),
            std::make_tuple(10, format::MetricsFormat::kJson));
}

TEST(SettingsReaderTest, ForwardersAndListenersInFileOrder) {
  const AgentConfig config = configOf(
      "forwarder ipv4 a 1\nlistener ipv4 127.0.0.1 6000\nforwarder ipv6 b 2\n"
      "listener unix /tmp/x.sock\n");
  std::vector<worker::forwarder::ForwarderSettings> forwarders;
  readForwarderSettings(config, true, forwarders);
  ASSERT_EQ(forwarders.size(), 2u);
  EXPECT_EQ(forwarders[0].socket.host, "a");
  EXPECT_EQ(forwarders[1].socket.host, "b");
  EXPECT_TRUE(forwarders[0].toStdout && forwarders[1].toStdout);
  std::vector<worker::listener::ListenerSettings> listeners;
  readListenerSettings(config, listeners);
  ASSERT_EQ(listeners.size(), 2u);
  EXPECT_EQ(listeners[0].socket.port, 6000);
  EXPECT_EQ(listeners[1].socket.path, "/tmp/x.sock");
}

// Empty when this system can trace DNS Server events, else the reason it cannot.
std::string etwUnavailableReason() {
  try {
    etw::detectWindowsVersion();
    return "";
  } catch (const etw::EtwError& e) {
    return e.what();
  }
}

TEST(SettingsReaderTest, EtwListenerNeedsASupportedSystem) {
  const std::string reason = etwUnavailableReason();
  if (reason.empty()) {
    EXPECT_EQ(firstError("listener etw"), "(accepted)");
    return;
  }
  // Detection runs even with the release named, after the listener's own option errors.
  EXPECT_EQ(firstError("listener etw"), reason);
  EXPECT_EQ(firstError("etw-windows-version windows2019\nlistener etw"), reason);
  EXPECT_EQ(firstError("listener etw client-query=yes"), "Invalid client-query option");
}

std::string etwError(const std::string& text) {
  etw::EtwSettings s;
  try {
    readEtwSettings(configOf(text), etw::kWindows2022, s);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(SettingsReaderTest, EtwKeys) {
  testing::internal::CaptureStdout();
  etw::EtwSettings s;
  readEtwSettings(configOf(""), etw::kWindows2022, s);
  EXPECT_EQ(s.windowsVersion, etw::kWindows2022);
  readEtwSettings(configOf("etw-windows-version windows2012r2\netw-buffer-size 64\n"
                           "etw-minimum-buffers -1\netw-maximum-buffers 8\netw-flush-timer 2\n"
                           "etw-filter on\netw-level 257\netw-match-any-keyword 55\n"
                           "etw-match-all-keyword -1\n"),
                  etw::kWindows2022, s);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "[INFO] Using Windows Server 2022 ETW semantics\n"
            "[INFO] Using Windows Server 2012R2 ETW semantics\n");
  EXPECT_EQ(
      std::make_tuple(s.windowsVersion, s.bufferSize, s.minimumBuffers, s.maximumBuffers,
                      s.flushTimer, s.filter, s.level, s.matchAnyKeyword, s.matchAllKeyword),
      std::make_tuple(etw::kWindows2012R2, 64u, UINT32_MAX, 8u, 2u, true, 1, 55u, UINT64_MAX));

  struct Case {
    const char* text;
    const char* message;
  };
  const Case cases[] = {
      {"etw-windows-version Windows2019",
       "Unknown etw-windows-version specified in config file: Windows2019"},
      {"etw-buffer-size 0", "Invalid etw-buffer-size specified in config file: 0"},
      {"etw-minimum-buffers 0", "Invalid etw-minimum-buffers specified in config file: 0"},
      {"etw-maximum-buffers no", "Invalid etw-maximum-buffers specified in config file: no"},
      {"etw-flush-timer 0", "Invalid etw-flush-timer specified in config file: 0"},
      {"etw-filter ON", "Unknown etw-filter specified in config file: ON"},
      {"etw-level 256", "Invalid etw-level specified in config file: 256"},
      {"etw-level 0\netw-buffer-size 0", "Invalid etw-buffer-size specified in config file: 0"},
      {"etw-level 512\netw-filter x", "Unknown etw-filter specified in config file: x"},
  };
  testing::internal::CaptureStdout();
  for (const Case& c : cases) EXPECT_EQ(etwError(c.text), c.message) << c.text;
  testing::internal::GetCapturedStdout();
}

}  // namespace
}  // namespace ns::app::config
