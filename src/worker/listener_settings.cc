#include "worker/listener_settings.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <limits>

#include "worker/value_syntax.h"

namespace vantrelo::worker::listener {

namespace {

constexpr int32_t kUnbounded = std::numeric_limits<int32_t>::max();
constexpr int32_t kMaxTimeout = 120;
constexpr int32_t kMaxPort = 65535;

// The dnstap version text written when dnstap-version=vantrelo.
constexpr const char* kProductVersion = "Vantrelo 2.4.4";

// The DNS Server provider's event ids for each class of event the listener can capture; the
// second of each pair is the EDNS-aware event Windows Server 2025 raises for the same traffic.
constexpr uint16_t kClientQueryEvents[] = {256, 287};
constexpr uint16_t kClientResponseEvents[] = {257, 258, 284, 285};
constexpr uint16_t kResolverQueryEvents[] = {260, 289};
constexpr uint16_t kResolverResponseEvents[] = {261, 290};

// Which listener types accept an option.
constexpr uint32_t kEtwType = 1;
constexpr uint32_t kTcpType = 2;
constexpr uint32_t kUnixType = 4;
constexpr uint32_t kSocketTypes = kTcpType | kUnixType;

struct TypeName {
  const char* name;
  ListenerType type;
  uint32_t mask;
};

const TypeName kTypes[] = {
    {"ipv4", ListenerType::kIpv4, kTcpType},
    {"ipv6", ListenerType::kIpv6, kTcpType},
    {"etw", ListenerType::kEtw, kEtwType},
    {"unix", ListenerType::kUnix, kUnixType},
};

struct OptionRule {
  const char* name;
  uint32_t types;
  // Applies the value; false when the value is refused.
  bool (*apply)(ListenerSettings& settings, const std::string& value);
};

bool setIdentity(ListenerSettings& s, const std::string& value) {
  return setChoice(s.etwSettings.identityFromEvent, value, "omit", "event-hostname");
}

bool setVersion(ListenerSettings& s, const std::string& value) {
  if (value == "omit") {
    s.etwSettings.hasVersion = false;
    s.etwSettings.version.clear();
  } else if (value == "vantrelo") {
    s.etwSettings.hasVersion = true;
    s.etwSettings.version = kProductVersion;
  } else {
    return false;
  }
  return true;
}

const OptionRule kOptions[] = {
    {"keepalive", kSocketTypes,
     [](ListenerSettings& s, const std::string& v) {
       return setInRange(s.socket.keepalive, v, 0, kUnbounded);
     }},
    {"read-timeout", kSocketTypes,
     [](ListenerSettings& s, const std::string& v) {
       return setInRange(s.socket.readTimeout, v, 1, kMaxTimeout);
     }},
    {"write-timeout", kTcpType,
     [](ListenerSettings& s, const std::string& v) {
       return setInRange(s.socket.writeTimeout, v, 1, kMaxTimeout);
     }},
    {"send-buffer-size", kSocketTypes,
     [](ListenerSettings& s, const std::string& v) {
       return setInRange(s.socket.sendBufferSize, v, 1, kUnbounded);
     }},
    {"recv-buffer-size", kSocketTypes,
     [](ListenerSettings& s, const std::string& v) {
       return setInRange(s.socket.recvBufferSize, v, 1, kUnbounded);
     }},
    {"listen-backlog", kSocketTypes,
     [](ListenerSettings& s, const std::string& v) {
       return setInRange(s.socket.listenBacklog, v, 1, kUnbounded);
     }},
    {"max-connections", kSocketTypes,
     [](ListenerSettings& s, const std::string& v) {
       return setInRange(s.socket.maxConnections, v, 1, kUnbounded);
     }},
    {"fstrm-control-frame-max-size", kSocketTypes,
     [](ListenerSettings& s, const std::string& v) {
       return setInRange(s.fstrm.controlFrameMaxSize, v, 1, kUnbounded);
     }},
    {"fstrm-data-frame-max-size", kSocketTypes,
     [](ListenerSettings& s, const std::string& v) {
       return setInRange(s.fstrm.dataFrameMaxSize, v, 1, kUnbounded);
     }},
    {"tls", kTcpType,
     [](ListenerSettings& s, const std::string& v) { return setOnOff(s.tls.enabled, v); }},
    {"tls-validate", kTcpType,
     [](ListenerSettings& s, const std::string& v) { return setOnOff(s.tls.validate, v); }},
    {"tls-server-name", kTcpType,
     [](ListenerSettings& s, const std::string& v) {
       s.tls.server_name = v;
       return true;
     }},
    {"tls-certificate-store", kTcpType,
     [](ListenerSettings& s, const std::string& v) {
       s.tls.store = v;
       return true;
     }},
    {"tls-certificate-subject", kTcpType,
     [](ListenerSettings& s, const std::string& v) {
       s.tls.subject = v;
       return true;
     }},
    {"tls-certificate-thumbprint", kTcpType,
     [](ListenerSettings& s, const std::string& v) {
       s.tls.thumbprint = v;
       return true;
     }},
    {"client-query", kEtwType,
     [](ListenerSettings& s, const std::string& v) {
       return setOnOff(s.etwSettings.clientQuery, v);
     }},
    {"client-response", kEtwType,
     [](ListenerSettings& s, const std::string& v) {
       return setOnOff(s.etwSettings.clientResponse, v);
     }},
    {"resolver-query", kEtwType,
     [](ListenerSettings& s, const std::string& v) {
       return setOnOff(s.etwSettings.resolverQuery, v);
     }},
    {"resolver-response", kEtwType,
     [](ListenerSettings& s, const std::string& v) {
       return setOnOff(s.etwSettings.resolverResponse, v);
     }},
    {"dnstap-identity", kEtwType, setIdentity},
    {"dnstap-version", kEtwType, setVersion},
    {"dnstap-extra", kEtwType,
     [](ListenerSettings& s, const std::string& v) {
       s.etwSettings.hasExtra = true;
       s.etwSettings.extra = v;
       return true;
     }},
};

const OptionRule* findOption(const std::string& name, uint32_t typeMask) {
  for (const OptionRule& rule : kOptions) {
    if ((rule.types & typeMask) != 0 && name == rule.name) return &rule;
  }
  return nullptr;
}

// The provider event ids that the four capture switches select, in ascending order.
void deriveEventIds(etw::EtwSettings& etw) {
  etw.eventIds.clear();
  const auto add = [&etw](bool on, const auto& ids) {
    if (on) etw.eventIds.insert(etw.eventIds.end(), std::begin(ids), std::end(ids));
  };
  add(etw.clientQuery, kClientQueryEvents);
  add(etw.clientResponse, kClientResponseEvents);
  add(etw.resolverQuery, kResolverQueryEvents);
  add(etw.resolverResponse, kResolverResponseEvents);
  std::sort(etw.eventIds.begin(), etw.eventIds.end());
}

void readAddress(ValueReader& reader, ListenerSettings& settings, uint32_t typeMask) {
  if (typeMask == kUnixType) {
    std::string path = reader.nextWord();
    if (path.empty()) throw ListenerError("Invalid path");
    settings.socket.unix = true;
    settings.socket.path = std::move(path);
    return;
  }
  std::string host = toLower(reader.nextWord());
  if (host.empty()) throw ListenerError("Invalid host");
  const int32_t port = parseDecimal32(reader.nextWord());
  if (port < 1 || port > kMaxPort) throw ListenerError("Invalid port");
  settings.socket.unix = false;
  settings.socket.ipv6 = settings.type == ListenerType::kIpv6;
  settings.socket.host = host;
  settings.socket.port = static_cast<uint16_t>(port);
  // A TLS listener does not ask senders for certificates unless told to, and names itself
  // after the address it listens on.
  settings.tls.validate = false;
  settings.tls.server_name = std::move(host);
}

}  // namespace

ListenerSettings parse(const std::string& value) {
  ListenerSettings settings;
  settings.tls.server_role = true;
  ValueReader reader(value);

  const std::string type = toLower(reader.nextWord());
  uint32_t typeMask = 0;
  for (const TypeName& entry : kTypes) {
    if (type == entry.name) {
      settings.type = entry.type;
      typeMask = entry.mask;
    }
  }
  if (typeMask == 0) throw ListenerError("Invalid protocol");
  settings.etw = settings.type == ListenerType::kEtw;
  if (!settings.etw) readAddress(reader, settings, typeMask);

  forEachOption<ListenerError>(reader, [&](const std::string& name, const std::string& option) {
    const OptionRule* rule = findOption(name, typeMask);
    if (rule == nullptr) throw ListenerError("Unknown parameter '" + name + "'");
    if (!rule->apply(settings, option)) throw ListenerError("Invalid " + name + " option");
  });
  if (settings.etw) deriveEventIds(settings.etwSettings);
  return settings;
}

}  // namespace vantrelo::worker::listener
