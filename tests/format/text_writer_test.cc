#include "format/text_writer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace ns::format {
namespace {

TEST(TextWriterTest, JsonStringEscapesOnlyItsEightBytes) {
  struct Case {
    std::string input;
    std::string expected;
  };
  const Case cases[] = {
      {"", "\"\""},
      {"plain.example.", "\"plain.example.\""},
      {"a/b", "\"a\\/b\""},
      {"q\"b\\s", "\"q\\\"b\\\\s\""},
      {"\b\t\n\f\r", "\"\\b\\t\\n\\f\\r\""},
      // Other control bytes and high bytes go out raw; there is never a \u escape.
      {std::string("\x01\x1f\x7f\xc3\xa9", 5), std::string("\"\x01\x1f\x7f\xc3\xa9\"", 7)},
      {std::string("a\0b", 3), std::string("\"a\0b\"", 5)},
      {"//", "\"\\/\\/\""},
  };
  for (const Case& c : cases) {
    std::string out = "<";
    appendJsonString(out, c.input);
    EXPECT_EQ(out, "<" + c.expected);
  }
}

}  // namespace
}  // namespace ns::format
