// Settings of one `listener` configuration line and their parser.
#pragma once

#include <memory>
#include <string>

#include "base/error.h"
#include "etw/etw_settings.h"
#include "filter/edge_filter.h"
#include "net/net_settings.h"

namespace vantrelo::worker::listener {

NS_DEFINE_ERROR(ListenerError);

enum class ListenerType { kEtw, kIpv4, kIpv6, kUnix };

struct ListenerSettings {
  bool etw = true;
  ListenerType type = ListenerType::kEtw;
  etw::EtwSettings etwSettings;
  net::SocketSettings socket;
  net::tls::TlsSettings tls;
  net::fstrm::FstrmSettings fstrm;
  // The agent-wide filters, shared by every listener; null when none is configured.
  std::shared_ptr<const filter::FilterSettings> filter;
};

// Parses one listener value: "<type> [<host> <port> | <path>] name=value...".
// Throws ListenerError with the offending part in the message.
ListenerSettings parse(const std::string& value);

}  // namespace vantrelo::worker::listener
