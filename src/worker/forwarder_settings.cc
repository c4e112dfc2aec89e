#include "worker/forwarder_settings.h"

#include <cstdint>
#include <limits>

#include "worker/value_syntax.h"

namespace vantrelo::worker::forwarder {

namespace {

constexpr int32_t kUnbounded = std::numeric_limits<int32_t>::max();
constexpr int32_t kMaxTimeout = 120;
constexpr int32_t kMaxPort = 65535;
constexpr char kKafkaType[] = "kafka";

struct TypeName {
  const char* name;
  bool ipv6;
};

const TypeName kTypes[] = {
    {"ipv4", false},
    {"ipv6", true},
};

// What each recovery mode returns to the queue after a failed write.
struct RecoveryMode {
  const char* name;
  bool returnCurrent;
  bool returnPrevious;
};

const RecoveryMode kRecoveryModes[] = {
    {"drop", false, false},
    {"best-effort", true, false},
    {"durable", true, true},
};

struct ClientCertificateMode {
  const char* name;
  bool present;
  bool automatic;
};

const ClientCertificateMode kClientCertificateModes[] = {
    {"manual", true, false},
    {"auto", true, true},
};

struct OptionRule {
  const char* name;
  // Applies the value; false when the value is refused.
  bool (*apply)(ForwarderSettings& settings, const std::string& value);
};

bool setRecovery(ForwarderSettings& s, const std::string& value) {
  for (const RecoveryMode& mode : kRecoveryModes) {
    if (value == mode.name) {
      s.returnCurrent = mode.returnCurrent;
      s.returnPrevious = mode.returnPrevious;
      return true;
    }
  }
  return false;
}

bool setFstrmMode(ForwarderSettings& s, const std::string& value) {
  return setChoice(s.fstrm.bidirectional, value, "unidirectional", "bidirectional");
}

bool setClientCertificate(ForwarderSettings& s, const std::string& value) {
  for (const ClientCertificateMode& mode : kClientCertificateModes) {
    if (value == mode.name) {
      s.tls.client_certificate = mode.present;
      s.tls.client_certificate_auto = mode.automatic;
      return true;
    }
  }
  return false;
}

const OptionRule kOptions[] = {
    {"connect-timeout",
     [](ForwarderSettings& s, const std::string& v) {
       return setInRange(s.socket.connectTimeout, v, 1, kMaxTimeout);
     }},
    {"read-timeout",
     [](ForwarderSettings& s, const std::string& v) {
       return setInRange(s.socket.readTimeout, v, 1, kMaxTimeout);
     }},
    {"write-timeout",
     [](ForwarderSettings& s, const std::string& v) {
       return setInRange(s.socket.writeTimeout, v, 1, kMaxTimeout);
     }},
    {"send-buffer-size",
     [](ForwarderSettings& s, const std::string& v) {
       return setInRange(s.socket.sendBufferSize, v, 1, kUnbounded);
     }},
    {"recv-buffer-size",
     [](ForwarderSettings& s, const std::string& v) {
       return setInRange(s.socket.recvBufferSize, v, 1, kUnbounded);
     }},
    {"batch-size", [](ForwarderSettings& s,
                      const std::string& v) { return setInRange(s.batchSize, v, 1, kUnbounded); }},
    {"recovery", setRecovery},
    {"fstrm-mode", setFstrmMode},
    {"fstrm-control-frame-max-size",
     [](ForwarderSettings& s, const std::string& v) {
       return setInRange(s.fstrm.controlFrameMaxSize, v, 1, kUnbounded);
     }},
    {"tls", [](ForwarderSettings& s, const std::string& v) { return setOnOff(s.tls.enabled, v); }},
    {"tls-validate",
     [](ForwarderSettings& s, const std::string& v) { return setOnOff(s.tls.validate, v); }},
    {"tls-validate-server-name",
     [](ForwarderSettings& s, const std::string& v) {
       s.tls.server_name = v;
       return true;
     }},
    {"tls-client-certificate", setClientCertificate},
    {"tls-client-certificate-store",
     [](ForwarderSettings& s, const std::string& v) {
       s.tls.store = v;
       return true;
     }},
    {"tls-client-certificate-subject",
     [](ForwarderSettings& s, const std::string& v) {
       s.tls.subject = v;
       return true;
     }},
    {"tls-client-certificate-thumbprint",
     [](ForwarderSettings& s, const std::string& v) {
       s.tls.thumbprint = v;
       return true;
     }},
};

const OptionRule* findOption(const std::string& name) {
  for (const OptionRule& rule : kOptions) {
    if (name == rule.name) return &rule;
  }
  return nullptr;
}

void applyOption(ForwarderSettings& settings, const std::string& name, const std::string& value) {
  if (settings.kafka.enabled) {
    const KafkaOption result = applyKafkaOption(settings, name, value);
    if (result == KafkaOption::kApplied) return;
    if (result == KafkaOption::kRefused) throw ForwarderError("Invalid " + name + " option");
    if (!kafkaSharesOption(name)) throw ForwarderError("Unknown parameter '" + name + "'");
  }
  const OptionRule* rule = findOption(name);
  if (rule == nullptr) throw ForwarderError("Unknown parameter '" + name + "'");
  if (!rule->apply(settings, value)) throw ForwarderError("Invalid " + name + " option");
}

void readOptions(ValueReader& reader, ForwarderSettings& settings) {
  forEachOption<ForwarderError>(reader, [&](const std::string& name, const std::string& value) {
    applyOption(settings, name, value);
  });
}

ForwarderSettings parseKafka(ValueReader& reader, ForwarderSettings& settings) {
  parseBrokers(reader.nextWord(), settings.kafka);
  readOptions(reader, settings);
  checkKafkaSettings(settings.kafka);
  return settings;
}

}  // namespace

ForwarderSettings parse(const std::string& value) {
  ForwarderSettings settings;
  settings.tls.server_role = false;
  ValueReader reader(value);

  const std::string type = toLower(reader.nextWord());
  if (type == kKafkaType) return parseKafka(reader, settings);
  const TypeName* found = nullptr;
  for (const TypeName& entry : kTypes) {
    if (type == entry.name) found = &entry;
  }
  if (found == nullptr) throw ForwarderError("Invalid protocol");

  std::string host = toLower(reader.nextWord());
  if (host.empty()) throw ForwarderError("Invalid host");
  const int32_t port = parseDecimal32(reader.nextWord());
  if (port < 1 || port > kMaxPort) throw ForwarderError("Invalid port");
  settings.socket.unix = false;
  settings.socket.ipv6 = found->ipv6;
  settings.socket.host = host;
  settings.socket.port = static_cast<uint16_t>(port);
  // The collector's certificate is checked against the name the forwarder connects to unless
  // an option names another one.
  settings.tls.server_name = std::move(host);

  readOptions(reader, settings);
  return settings;
}

}  // namespace vantrelo::worker::forwarder
