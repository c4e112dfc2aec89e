#include "etw/property_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace vantrelo::etw {
namespace {

// The string ends the decoder's layouts never produce: no terminator before the end of the
// data, an offset at the end, and, for Unicode (kept here as its little-endian bytes), a zero
// byte inside a unit and an odd trailing byte. Reading and skipping end at the same offset.
TEST(PropertyReader, StringEnds) {
  const std::tuple<uint16_t, std::string, uint32_t, std::string, uint32_t> cases[] = {
      {kInTypeAnsiString, std::string("ns1\0rest", 8), 0, "ns1", 4},
      {kInTypeAnsiString, std::string("ns1\0rest", 8), 4, "rest", 8},
      {kInTypeAnsiString, "abc", 3, "", 3},
      {kInTypeUnicodeString, std::string("A\0B\0\0\0x", 7), 0, "", 6},
      {kInTypeUnicodeString, std::string("\0\x01\0\0", 4), 0, "", 4},
      {kInTypeUnicodeString, std::string("A\0B", 3), 0, "", 3},
      {kInTypeUnicodeString, std::string("A\0", 2), 2, "", 2}};
  for (const auto& [inType, data, offset, text, end] : cases) {
    SCOPED_TRACE(data);
    const PropertyInfo declaration{inType, 0};
    const EventProperties event{&declaration, 1, reinterpret_cast<const uint8_t*>(data.data()),
                                static_cast<uint32_t>(data.size())};
    if (inType == kInTypeUnicodeString) {
      EXPECT_EQ(skipUnicodeString(event, 0, offset), end);
      continue;
    }
    std::string read = "stale";
    EXPECT_EQ(readAnsiString(event, 0, offset, read), end);
    EXPECT_EQ(read, text);
    EXPECT_EQ(skipAnsiString(event, 0, offset), end);
  }
}

}  // namespace
}  // namespace vantrelo::etw
