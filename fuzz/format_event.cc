// Formats arbitrary bytes as an encoded event, the way a forwarder does with what it pops from
// the queue: every format and name setting, never a crash, and a rejected event leaves the
// output buffer as it was.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>

#include "encoding/dnstap_message.h"
#include "format/message_formatter.h"
#include "format/message_settings.h"

namespace {

using vantrelo::format::MessageFormat;
using vantrelo::format::MessageSettings;

MessageSettings makeSettings(MessageFormat format, bool extended, bool trailingDot) {
  MessageSettings settings;
  settings.format = format;
  settings.hostname = "fuzzhost";
  settings.process_id = 4242;
  settings.querylog_extended = extended;
  settings.trailing_dot = trailingDot;
  settings.suffixes.build_builtin_set(trailingDot);
  settings.suffixes.add_configured_suffix("corp.example", trailingDot);
  return settings;
}

struct Formatters {
  MessageSettings settings[4] = {
      makeSettings(MessageFormat::kJson, false, true),
      makeSettings(MessageFormat::kQuerylog, false, false),
      makeSettings(MessageFormat::kQuerylog, true, true),
      makeSettings(MessageFormat::kDnstap, false, true),
  };
  vantrelo::format::MessageFormatter formatters[4] = {
      vantrelo::format::MessageFormatter(settings[0]),
      vantrelo::format::MessageFormatter(settings[1]),
      vantrelo::format::MessageFormatter(settings[2]),
      vantrelo::format::MessageFormatter(settings[3])};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Formatters* all = new Formatters();
  static vantrelo::encoding::dnstap::DnstapMessage record;
  std::string out;
  for (auto& formatter : all->formatters) {
    const size_t before = out.size();
    try {
      formatter.formatEvent(data, static_cast<uint32_t>(size), record, out);
    } catch (const std::exception&) {
      // A rejected event must not leave half a message behind.
      if (out.size() != before) std::abort();
    }
  }
  return 0;
}
