#include "format/message_formatter.h"

#include <string_view>

#include "dns/vocabulary.h"
#include "encoding/text_encoding.h"
#include "format/syslog.h"
#include "format/text_writer.h"

namespace vantrelo::format {

namespace {

using net::dns::append_name;
using net::dns::DnsMessage;
using net::dns::DnsRecord;
using net::dns::DnsSection;

// How each dnstap message type is introduced. Authoritative traffic is shown as "client" on
// purpose: to the collector it is traffic of the server's clients. The JSON values carry their
// quotes so they are appended as they stand.
struct TypeNames {
  std::string_view querylog_prefix;
  std::string_view json_value;
};

const TypeNames kTypeNames[kMessageTypeCount] = {
    {"", ""},
    {"queries: client ", "\"auth-query\""},
    {"queries: client ", "\"auth-response\""},
    {"queries: resolver ", "\"resolver-query\""},
    {"queries: resolver ", "\"resolver-response\""},
    {"queries: client ", "\"client-query\""},
    {"queries: client ", "\"client-response\""},
    {"queries: forwarder ", "\"forwarder-query\""},
    {"queries: forwarder ", "\"forwarder-response\""},
    {"queries: stub ", "\"stub-query\""},
    {"queries: stub ", "\"stub-response\""},
    {"queries: tool ", "\"tool-query\""},
    {"queries: tool ", "\"tool-response\""},
};

constexpr std::string_view kJsonErrorType = "\"error\"";
constexpr uint32_t kJsonSchema = 1;

// Socket protocols that run over a stream; the query log marks them with "T".
constexpr uint16_t kStreamProtocols[] = {2 /* TCP */, 3 /* DOT */, 4 /* DOH */,
                                         6 /* DNSCryptTCP */};

bool isStreamProtocol(uint16_t protocol) {
  for (uint16_t stream : kStreamProtocols) {
    if (protocol == stream) return true;
  }
  return false;
}

struct FlagBit {
  std::string_view key;
  uint16_t mask;
};

// The JSON flags object: a query carries only the first entry. "aa" is read from the AD bit,
// not from the AA bit; collectors built on this output expect exactly that.
const FlagBit kJsonFlags[] = {
    {"rd", net::dns::kFlagRd},
    {"ra", net::dns::kFlagRa},
    {"aa", net::dns::kFlagAd},
    {"tc", net::dns::kFlagTc},
};
constexpr size_t kQueryJsonFlagCount = 1;

void appendTypeName(std::string& out, uint16_t type) {
  append_name(out, net::dns::kRecordTypes, type, "TYPE");
}

void appendClassName(std::string& out, uint16_t klass) {
  append_name(out, net::dns::kClasses, klass, "CLASS");
}

void appendRcodeName(std::string& out, uint16_t flags) {
  append_name(out, net::dns::kResponseCodes, flags & net::dns::kRcodeMask, "RCODE");
}

void appendJsonKey(std::string& out, std::string_view key) {
  out.push_back('"');
  out.append(key);
  out.append("\":");
}

// A value put between quotes as it is; used for texts that cannot hold a byte to escape.
void appendQuoted(std::string& out, std::string_view text) {
  out.push_back('"');
  out.append(text);
  out.push_back('"');
}

void appendHex(std::string& out, const MessageView& view) {
  encoding::hex::hexEncode(out, view.wire, view.wire_length);
}

// {"timestamp":...,"host":...,"schema":1,"type":
void appendJsonEnvelope(std::string& out, const MessageSettings& settings, Rfc5424Clock& clock,
                        const MessageView& view) {
  out.append("{\"timestamp\":\"");
  clock.append(out, view.time_sec, view.time_nsec);
  out.append("\",\"host\":");
  appendJsonString(out, settings.hostname);
  out.append(",\"schema\":");
  appendDecimal(out, kJsonSchema);
  out.append(",\"type\":");
}

// "client":...,"server":...,"port":...
void appendJsonPeers(std::string& out, const MessageView& view) {
  out.append("{\"client\":");
  appendQuoted(out, view.client);
  out.append(",\"server\":");
  appendQuoted(out, view.server);
  out.append(",\"port\":");
  appendDecimal(out, view.client_port);
}

}  // namespace

void appendDnstapFrame(std::string& out, const uint8_t* data, uint32_t length) {
  const char prefix[kDnstapFrameLengthSize] = {
      static_cast<char>(length >> 24), static_cast<char>(length >> 16),
      static_cast<char>(length >> 8), static_cast<char>(length)};
  out.append(prefix, sizeof prefix);
  out.append(reinterpret_cast<const char*>(data), length);
}

MessageFormatter::MessageFormatter(const MessageSettings& settings) : settings_(settings) {}

bool MessageFormatter::format(const MessageView& view, std::string& out) {
  const bool json = settings_.format == MessageFormat::kJson;
  if (!json && settings_.format != MessageFormat::kQuerylog) return false;
  if (view.type >= kMessageTypeCount) return false;
  net::dns::parse(view.wire, view.wire_length, message_, settings_.trailing_dot);
  const bool parsed = message_.error.empty();
  if (json) {
    if (parsed) {
      appendJson(view, out);
    } else {
      appendJsonError(view, out);
    }
  } else {
    append_syslog_header(out, settings_, &clock_, view.time_sec, view.time_nsec);
    if (parsed) {
      appendQueryLog(view, out);
    } else {
      appendQueryLogError(view, out);
    }
  }
  return true;
}

bool MessageFormatter::formatEvent(const uint8_t* data, uint32_t size,
                                   encoding::dnstap::DnstapMessage& record, std::string& out) {
  record.decode(data, size, 0);
  if (settings_.format == MessageFormat::kDnstap) {
    if (!check_record(record)) return false;
    appendDnstapFrame(out, data, size);
    return true;
  }
  if (!make_view(record, view_)) return false;
  return format(view_, out);
}

void MessageFormatter::appendDomain(std::string& out, const std::string& lower_name) const {
  if (!settings_.suffix_enabled) return;
  const uint32_t length = static_cast<uint32_t>(lower_name.size());
  const uint32_t offset = settings_.suffixes.domain_offset(
      lower_name.data(), length, settings_.suffix_builtin, settings_.suffix_config);
  out.append(lower_name, offset, length - offset);
}

void MessageFormatter::appendJsonDomain(std::string& out, const std::string& lower_name) const {
  const uint32_t length = static_cast<uint32_t>(lower_name.size());
  const uint32_t offset = settings_.suffixes.domain_offset(
      lower_name.data(), length, settings_.suffix_builtin, settings_.suffix_config);
  appendJsonString(out, lower_name.data() + offset, length - offset);
}

void MessageFormatter::appendQueryLog(const MessageView& view, std::string& out) const {
  const bool extended = settings_.querylog_extended;
  out.append(kTypeNames[view.type].querylog_prefix);
  out.append(view.client);
  out.push_back('#');
  appendDecimal(out, view.client_port);
  if (extended) {
    out.append(" %");
    appendDecimal(out, message_.id);
  }
  out.append(view.is_query ? ": query: " : ": response: ");
  out.append(message_.qname);
  out.push_back(' ');
  if (extended) {
    out.push_back('[');
    appendDomain(out, message_.qname_lower);
    out.append("] ");
  }
  appendClassName(out, message_.qclass);
  out.push_back(' ');
  appendTypeName(out, message_.qtype);
  out.push_back(' ');
  out.push_back((message_.flags & net::dns::kFlagRd) != 0 ? '+' : '-');
  if (isStreamProtocol(view.protocol)) out.push_back('T');
  out.append(" (");
  out.append(view.server.empty() ? std::string_view("<unknown>") : std::string_view(view.server));
  if (extended) {
    out.push_back(' ');
    appendDecimal(out, view.wire_length);
    out.push_back('b');
  }
  out.push_back(')');
  if (!view.is_query) {
    out.push_back(' ');
    appendRcodeName(out, message_.flags);
    // Only the answers: authority and additional records would make the line unreadable.
    for (const DnsRecord& record : message_.answers) {
      out.append("; ");
      out.append(record.name);
      out.push_back(' ');
      if (extended) {
        out.push_back('[');
        appendDomain(out, record.name_lower);
        out.append("] ");
      }
      appendDecimal(out, record.ttl);
      out.push_back(' ');
      appendClassName(out, record.klass);
      out.push_back(' ');
      appendTypeName(out, record.type);
      out.push_back(' ');
      out.append(record.data);
    }
  }
  out.push_back('\n');
}

void MessageFormatter::appendQueryLogError(const MessageView& view, std::string& out) const {
  out.append("errors: ");
  out.append(message_.error);
  out.append(": client ");
  out.append(view.client);
  out.push_back('#');
  appendDecimal(out, view.client_port);
  out.append(": server ");
  out.append(view.server);
  out.append(": packet \\# ");
  appendDecimal(out, view.wire_length);
  out.push_back(' ');
  appendHex(out, view);
  out.push_back('\n');
}

void MessageFormatter::appendJson(const MessageView& view, std::string& out) const {
  appendJsonEnvelope(out, settings_, clock_, view);
  out.append(kTypeNames[view.type].json_value);
  out.append(",\"data\":");
  appendJsonPeers(out, view);
  out.append(",\"proto\":\"");
  append_name(out, net::dns::kSocketProtocols, view.protocol, "PROTO");
  out.append("\",\"size\":");
  appendDecimal(out, view.wire_length);
  out.append(",\"txid\":");
  appendDecimal(out, message_.id);
  out.append(",\"flags\":{");
  const size_t flagCount = view.is_query ? kQueryJsonFlagCount : std::size(kJsonFlags);
  for (size_t i = 0; i < flagCount; ++i) {
    if (i != 0) out.push_back(',');
    appendJsonKey(out, kJsonFlags[i].key);
    out.append((message_.flags & kJsonFlags[i].mask) != 0 ? "true" : "false");
  }
  out.append("},\"qname\":");
  appendJsonString(out, message_.qname);
  if (settings_.suffix_enabled) {
    out.append(",\"qdomain\":");
    appendJsonDomain(out, message_.qname_lower);
  }
  out.append(",\"qclass\":\"");
  appendClassName(out, message_.qclass);
  out.append("\",\"qtype\":\"");
  appendTypeName(out, message_.qtype);
  out.push_back('"');
  if (!view.is_query) {
    out.append(",\"rcode\":\"");
    appendRcodeName(out, message_.flags);
    out.append("\",\"answers\":");
    appendJsonRecords(message_.answers, out);
    out.append(",\"authority\":");
    appendJsonRecords(message_.authority, out);
    out.append(",\"additional\":");
    appendJsonRecords(message_.additional, out);
  }
  out.append("}}\n");
}

void MessageFormatter::appendJsonRecords(const DnsSection& section, std::string& out) const {
  out.push_back('[');
  bool first = true;
  for (const DnsRecord& record : section) {
    if (!first) out.push_back(',');
    first = false;
    out.append("{\"name\":");
    appendJsonString(out, record.name);
    if (settings_.suffix_enabled) {
      out.append(",\"domain\":");
      appendJsonDomain(out, record.name_lower);
    }
    out.append(",\"ttl\":");
    appendDecimal(out, record.ttl);
    out.append(",\"rrclass\":\"");
    appendClassName(out, record.klass);
    out.append("\",\"rrtype\":\"");
    appendTypeName(out, record.type);
    out.append("\",\"data\":");
    appendJsonString(out, record.data);
    out.push_back('}');
  }
  out.push_back(']');
}

void MessageFormatter::appendJsonError(const MessageView& view, std::string& out) const {
  appendJsonEnvelope(out, settings_, clock_, view);
  out.append(kJsonErrorType);
  out.append(",\"data\":");
  appendJsonPeers(out, view);
  out.append(",\"size\":");
  appendDecimal(out, view.wire_length);
  out.append(",\"packet\":\"");
  appendHex(out, view);
  out.append("\",\"text\":");
  appendJsonString(out, message_.error);
  out.append("}}\n");
}

}  // namespace vantrelo::format
