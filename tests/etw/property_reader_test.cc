#include "etw/property_reader.h"

#include <gtest/gtest.h>

#include <string>

#include "etw/windows_version.h"
#include "event_builder.h"

namespace ns::etw {
namespace {

using testing::singleProperty;
using testing::SyntheticEvent;

TEST(PropertyReader, Strings) {
  struct Case {
    std::string data;
    uint32_t offset;
    std::string text;
    uint32_t end;
  };
  // ANSI: to and including the zero byte, or to the end of the data.
  const Case ansi[] = {
      {std::string("ns1\0rest", 8), 0, "ns1", 4},
      {std::string("ns1\0rest", 8), 4, "rest", 8},
      {std::string("\0", 1), 0, "", 1},
      {"", 0, "", 0},
      {"abc", 3, "", 3},
  };
  for (const Case& c : ansi) {
    SCOPED_TRACE(c.data);
    SyntheticEvent event = singleProperty(kInTypeAnsiString, 0, c.data);
    std::string text = "stale";
    EXPECT_EQ(readAnsiString(event, 0, c.offset, text), c.end);
    EXPECT_EQ(text, c.text);
    EXPECT_EQ(skipAnsiString(event, 0, c.offset), c.end);
  }
  // Unicode: 16-bit units; a zero byte inside a unit does not end the string, and an odd
  // trailing byte is consumed with the unterminated string.
  struct UnicodeCase {
    std::string data;
    uint32_t offset;
    std::u16string text;
    uint32_t end;
  };
  const UnicodeCase unicode[] = {
      {std::string("A\0B\0\0\0x", 7), 0, u"AB", 6},
      {std::string("\0\x01\0\0", 4), 0, u"\x0100", 4},
      {std::string("A\0B", 3), 0, u"A", 3},
      {std::string("A\0", 2), 2, u"", 2},
  };
  for (const UnicodeCase& c : unicode) {
    SCOPED_TRACE(c.end);
    SyntheticEvent event = singleProperty(kInTypeUnicodeString, 0, c.data);
    std::u16string text = u"stale";
    EXPECT_EQ(readUnicodeString(event, 0, c.offset, text), c.end);
    EXPECT_EQ(text, c.text);
    EXPECT_EQ(skipUnicodeString(event, 0, c.offset), c.end);
  }
}

TEST(PropertyReader, SkippingFormsCheckLikeKeepingForms) {
  struct Case {
    uint16_t inType;
    uint16_t length;
    std::string data;
    uint32_t (*skip)(const EventRecordView&, uint32_t, uint32_t);
    const char* message;
  };
  const Case cases[] = {
      {kInTypeUint8, 1, "", skipUint8,
       "Expected at least 1 byte of user data for property 0 but got 0"},
      {kInTypeUint32, 4, "abc", skipUint32,
       "Expected at least 4 bytes of user data for property 0 but got 3"},
      {kInTypeUint8, 1, "a", skipUint32, "Expected property 0 to be a uint32_t but got 4"},
      {kInTypeUint32, 4, "abcd", skipUint8, "Expected property 0 to be a uint8_t but got 8"},
      {kInTypeAnsiString, 0, "a", skipUnicodeString,
       "Expected property 0 to be a unicode string but got 2"},
      {kInTypeUnicodeString, 2, "a", skipUnicodeString,
       "Expected property 0 to be length 0 but got 2"},
      {kInTypeAnsiString, 1, "a", skipAnsiString, "Expected property 0 to be length 0 but got 1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    SyntheticEvent event = singleProperty(c.inType, c.length, c.data);
    try {
      c.skip(event, 0, 0);
      ADD_FAILURE() << "no error";
    } catch (const EtwError& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
  }
}

}  // namespace
}  // namespace ns::etw
