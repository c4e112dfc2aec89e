#include "format/text_writer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <utility>

namespace vantrelo::format {
namespace {

TEST(TextWriterTest, JsonStringEscapesOnlyItsEightBytes) {
  const std::pair<std::string, std::string> cases[] = {
      // Slash, quote and backslash are in the formatter's golden JSON.
      {"\b\t\n\f\r", "\"\\b\\t\\n\\f\\r\""},
      // Other control bytes and high bytes go out raw; there is never a \u escape.
      {std::string("\x01\x1f\x7f\xc3\xa9", 5), std::string("\"\x01\x1f\x7f\xc3\xa9\"", 7)},
      {std::string("a\0b", 3), std::string("\"a\0b\"", 5)},
  };
  for (const auto& [input, expected] : cases) {
    std::string out = "<";
    appendJsonString(out, input);
    EXPECT_EQ(out, "<" + expected);
  }
}

}  // namespace
}  // namespace vantrelo::format
