// The message formatter context: the settings every forwarder formats with, filled once while
// the configuration is read and shared read-only by all forwarder threads afterwards.
#pragma once

#include <cstdint>
#include <string>

#include "dns/public_suffix.h"

namespace vantrelo::format {

enum class MessageFormat : uint32_t { kJson = 0, kQuerylog = 1, kDnstap = 2 };

struct MessageSettings {
  MessageFormat format = MessageFormat::kJson;
  uint32_t process_id = 0;
  int32_t syslog_priority = 30;
  uint8_t syslog_style = 0;  // 1: RFC 3164 header, 0: RFC 5424 header
  std::string hostname;
  bool querylog_extended = false;
  bool suffix_enabled = true;
  bool suffix_builtin = true;
  bool suffix_config = true;
  bool trailing_dot = true;
  net::dns::DomainSuffixes suffixes;

  bool syslog_rfc3164() const { return syslog_style == 1; }
};

}  // namespace vantrelo::format
