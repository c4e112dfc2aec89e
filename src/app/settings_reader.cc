#include "app/settings_reader.h"

#include <cstdint>
#include <optional>
#include <string>

#include "app/kafka_support.h"
#include "app/platform.h"
#include "base/error.h"
#include "base/log.h"
#include "etw/windows_version.h"
#include "net/socket_platform.h"
#include "worker/value_syntax.h"

namespace vantrelo::app::config {

namespace {

using error::UnknownError;

constexpr const char* kDefaultQueueFilename = "message.queue";

// Maps the words a key accepts onto the values they stand for.
template <typename Value>
struct Word {
  const char* text;
  Value value;
};

// The value of the word `text`, or the error "<prefix> <key> specified in config file: <text>".
template <typename Value, size_t N>
Value wordValue(const Word<Value> (&words)[N], const char* prefix, const char* key,
                const std::string& text) {
  for (const Word<Value>& word : words) {
    if (text == word.text) return word.value;
  }
  throw UnknownError(std::string(prefix) + " " + key + " specified in config file: " + text);
}

UnknownError invalidValue(const char* key, const std::string& text) {
  return UnknownError(std::string("Invalid ") + key + " specified in config file: " + text);
}

const Word<bool> kOnOff[] = {{"on", true}, {"off", false}};

const Word<bool> kFqdnFormats[] = {
    {"with-trailing-dot", true},
    {"without-trailing-dot", false},
};

struct SuffixMode {
  bool enabled;
  bool builtin;
  bool configured;
};

const Word<SuffixMode> kSuffixModes[] = {
    {"all", {true, true, true}},
    {"builtin", {true, true, false}},
    {"config", {true, false, true}},
    {"off", {false, false, false}},
};

const Word<bool> kQuerylogFormats[] = {{"standard", false}, {"extended", true}};

const Word<format::MessageFormat> kMessageFormats[] = {
    {"json", format::MessageFormat::kJson},
    {"querylog", format::MessageFormat::kQuerylog},
    {"dnstap", format::MessageFormat::kDnstap},
};

// "rfc5424" and "none" both select style 0, the RFC 5424 header; both spellings are accepted.
const Word<uint8_t> kSyslogStyles[] = {
    {"bsd", 1},
    {"rfc3164", 1},
    {"rfc5424", 0},
    {"none", 0},
};

const Word<format::MetricsFormat> kMetricsFormats[] = {
    {"kv", format::MetricsFormat::kKv},
    {"json", format::MetricsFormat::kJson},
};

int32_t nonZero32(const AgentConfig& config, const char* key, int32_t fallback) {
  const std::optional<std::string> text = config.lookup(key);
  if (!text) return fallback;
  const int32_t number = worker::parseDecimal32(*text);
  if (number == 0) throw invalidValue(key, *text);
  return number;
}

}  // namespace

void readMessageSettings(const AgentConfig& config, format::MessageSettings& settings) {
  if (auto text = config.lookup("message-fqdn-format")) {
    settings.trailing_dot = wordValue(kFqdnFormats, "Unknown", "message-fqdn-format", *text);
  }
  if (auto text = config.lookup("domain-suffix-mode")) {
    const SuffixMode mode = wordValue(kSuffixModes, "Unknown", "domain-suffix-mode", *text);
    settings.suffix_enabled = mode.enabled;
    settings.suffix_builtin = mode.builtin;
    settings.suffix_config = mode.configured;
  }
  settings.suffixes.build_builtin_set(settings.trailing_dot);
  for (const std::string& text : config.lookupAll("domain-suffix")) {
    const size_t end = text.find_last_not_of('.');
    if (end == std::string::npos) {
      throw UnknownError("Unknown domain-suffix specified in config file: " + text);
    }
    settings.suffixes.add_configured_suffix(std::string_view(text).substr(0, end + 1),
                                            settings.trailing_dot);
  }
  if (auto text = config.lookup("message-querylog-format")) {
    settings.querylog_extended =
        wordValue(kQuerylogFormats, "Unknown", "message-querylog-format", *text);
  }
  if (auto text = config.lookup("message-format")) {
    settings.format = wordValue(kMessageFormats, "Unknown", "message-format", *text);
  }
  if (auto text = config.lookup("message-hostname")) {
    settings.hostname = *text;
  } else {
    settings.hostname = platform::hostName();
  }
  if (auto text = config.lookup("message-syslog-format")) {
    settings.syslog_style = wordValue(kSyslogStyles, "Unknown", "message-syslog-format", *text);
  }
  settings.syslog_priority = nonZero32(config, "message-syslog-priority", settings.syslog_priority);
  settings.process_id = platform::processId();
}

void readQueueSettings(const AgentConfig& config, event::queue::QueueOptions& options) {
  if (auto text = config.lookup("message-queue-size")) {
    const int64_t size = worker::parseDecimal64(*text);
    if (size == 0) throw invalidValue("message-queue-size", *text);
    options.size = static_cast<uint64_t>(size);
  }
  if (auto text = config.lookup("message-queue-recovery")) {
    options.recovery = wordValue(kOnOff, "Unknown", "message-queue-recovery", *text);
  }
  options.filename = config.lookup("message-queue-filename").value_or(kDefaultQueueFilename);
}

void readForwarderSettings(const AgentConfig& config, bool toStdout,
                           std::vector<worker::forwarder::ForwarderSettings>& forwarders) {
  for (const std::string& text : config.lookupAll("forwarder")) {
    forwarders.push_back(worker::forwarder::parse(text));
    checkForwarderSupported(forwarders.back());
    if (toStdout) forwarders.back().toStdout = true;
  }
}

void readEtwSettings(const AgentConfig& config, etw::EtwSettings& settings) {
  // Detection runs even when the release is configured, so an unsupported system is refused
  // whatever the configuration says.
  readEtwSettings(config, etw::detectWindowsVersion(), settings);
}

void readEtwSettings(const AgentConfig& config, uint32_t detectedVersion,
                     etw::EtwSettings& settings) {
  settings.windowsVersion = detectedVersion;
  if (auto text = config.lookup("etw-windows-version")) {
    const std::optional<uint32_t> index = etw::windowsVersionFromConfig(*text);
    if (!index) {
      throw UnknownError("Unknown etw-windows-version specified in config file: " + *text);
    }
    settings.windowsVersion = *index;
  }
  log::info("Using Windows Server " + etw::windowsVersionName(settings.windowsVersion) +
            " ETW semantics");
  // Unsigned session fields: a negative number is kept as its two's complement, as written.
  settings.bufferSize = static_cast<uint32_t>(
      nonZero32(config, "etw-buffer-size", static_cast<int32_t>(settings.bufferSize)));
  settings.minimumBuffers = static_cast<uint32_t>(
      nonZero32(config, "etw-minimum-buffers", static_cast<int32_t>(settings.minimumBuffers)));
  settings.maximumBuffers = static_cast<uint32_t>(
      nonZero32(config, "etw-maximum-buffers", static_cast<int32_t>(settings.maximumBuffers)));
  settings.flushTimer = static_cast<uint32_t>(
      nonZero32(config, "etw-flush-timer", static_cast<int32_t>(settings.flushTimer)));
  if (auto text = config.lookup("etw-filter")) {
    settings.filter = wordValue(kOnOff, "Unknown", "etw-filter", *text);
  }
  if (auto text = config.lookup("etw-level")) {
    const uint8_t level = static_cast<uint8_t>(worker::parseDecimal32(*text));
    if (level == 0) throw invalidValue("etw-level", *text);
    settings.level = level;
  }
  if (auto text = config.lookup("etw-match-any-keyword")) {
    settings.matchAnyKeyword = static_cast<uint64_t>(worker::parseDecimal64(*text));
  }
  if (auto text = config.lookup("etw-match-all-keyword")) {
    settings.matchAllKeyword = static_cast<uint64_t>(worker::parseDecimal64(*text));
  }
  if (auto text = config.lookup("etw-independent-session")) {
    settings.independentSession = wordValue(kOnOff, "Unknown", "etw-independent-session", *text);
  }
}

void readListenerSettings(const AgentConfig& config,
                          std::vector<worker::listener::ListenerSettings>& listeners) {
  bool etwListener = false;
  for (const std::string& text : config.lookupAll("listener")) {
    listeners.push_back(worker::listener::parse(text));
    if (!listeners.back().etw) continue;
    // The trace session is one per system: a second listener would take it from the first.
    if (etwListener) throw UnknownError("Only one etw listener may be configured");
    etwListener = true;
    readEtwSettings(config, listeners.back().etwSettings);
  }
}

void readMetricsSettings(const AgentConfig& config, format::MetricsSettings& settings) {
  if (auto text = config.lookup("metrics-interval")) {
    const int32_t interval = worker::parseDecimal32(*text);
    if (interval < 1) throw invalidValue("metrics-interval", *text);
    settings.interval = interval;
  }
  if (auto text = config.lookup("metrics-format")) {
    settings.format = wordValue(kMetricsFormats, "Invalid", "metrics-format", *text);
  }
}

void readEndpointSettings(const AgentConfig& config, metrics::EndpointSettings& settings) {
  const std::optional<std::string> text = config.lookup("metrics-listen");
  if (!text) return;
  worker::ValueReader reader(*text);
  const std::string type = worker::toLower(reader.nextWord());
  const std::string host = worker::toLower(reader.nextWord());
  const int32_t port = worker::parseDecimal32(reader.nextWord());
  const bool ipv6 = type == "ipv6";
  net::SocketAddress probe;
  if ((type != "ipv4" && !ipv6) || !net::sys::makeIpAddress(probe, ipv6, host, 0) || port < 1 ||
      port > 65535 || !reader.nextWord().empty()) {
    throw invalidValue("metrics-listen", *text);
  }
  settings.enabled = true;
  settings.socket.unix = false;
  settings.socket.ipv6 = ipv6;
  settings.socket.host = host;
  settings.socket.port = static_cast<uint16_t>(port);
}

}  // namespace vantrelo::app::config
