// Feeds arbitrary text to the domain list parser: it must return or throw FilterError. Every
// name it accepts is then found by a lookup of itself and of a name one label deeper.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "filter/domain_set.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using vantrelo::filter::DomainSet;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  DomainSet set;
  try {
    vantrelo::filter::parseDomainList(text, "fuzz", set);
  } catch (const vantrelo::filter::FilterError&) {
    return 0;
  }
  std::string problem;
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = std::min(text.find('\n', at), text.size());
    std::string_view line = text.substr(at, end - at);
    line = line.substr(0, line.find('#'));
    const std::string name = vantrelo::filter::canonicalName(line, problem);
    if (problem.empty()) {
      if (!set.covers(name) || !set.covers("x." + name)) std::abort();
    }
    at = end + 1;
  }
  return 0;
}
