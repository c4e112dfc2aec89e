// The word grammar shared by `listener` and `forwarder` configuration values.
//
// A value is "<type> [<host> <port> | <path>] name=value ...": words split at white space, then
// options whose value may be double-quoted to hold white space. ValueReader walks one value
// text; it owns nothing beyond a view of the text, which must outlive it. Not thread-safe (one
// reader per parse). Numbers follow the C library's atoi/atoll reading: leading white space, an
// optional sign, decimal digits up to the first other character, 0 when there are none.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vantrelo::worker {

class ValueReader {
 public:
  enum class Option { kEnd, kFound, kMissingValue, kUnterminatedQuote };

  explicit ValueReader(std::string_view text) : text_(text) {}

  // The next white-space separated word; empty at the end of the text.
  std::string nextWord();
  // The next "name=value" option. The name (lower-cased) runs to the first '=' or white space;
  // one separator character is skipped, then white space. kMissingValue when the text ends
  // there, kUnterminatedQuote when a quoted value has no closing quote.
  Option nextOption(std::string& name, std::string& value);

 private:
  void skipSpace();

  std::string_view text_;
  size_t position_ = 0;
};

// Reads the options left in `reader`, handing each to apply(name, value). An option without a
// value or with an unterminated quote is thrown as Error "Invalid parameter '<name>'".
template <typename Error, typename Apply>
void forEachOption(ValueReader& reader, Apply apply) {
  std::string name;
  std::string value;
  for (;;) {
    const ValueReader::Option result = reader.nextOption(name, value);
    if (result == ValueReader::Option::kEnd) return;
    if (result != ValueReader::Option::kFound) throw Error("Invalid parameter '" + name + "'");
    apply(name, value);
  }
}

std::string toLower(std::string_view text);

// atoi: the 64-bit reading truncated to 32 bits.
int32_t parseDecimal32(std::string_view text);
// atoll: saturates at the 64-bit limits.
int64_t parseDecimal64(std::string_view text);

// Option value checks used by the option tables; false means the value is refused.
bool setInRange(uint32_t& field, const std::string& value, int32_t minimum, int32_t maximum);
bool setOnOff(bool& field, const std::string& value);
// A two-word option: field becomes true for whenTrue, false for whenFalse.
bool setChoice(bool& field, const std::string& value, const char* whenFalse, const char* whenTrue);

}  // namespace vantrelo::worker
