#include "encoding/data.h"

#include <gtest/gtest.h>

#include <string>

namespace ns::encoding::data {
namespace {

// 01 02 03 04: big-endian 0x0102 / 0x01020304.
const uint8_t kBytes[] = {0x01, 0x02, 0x03, 0x04};

TEST(DataTest, ReadsBigEndianAndReturnsTheNextOffset) {
  uint8_t u8 = 0;
  uint16_t u16 = 0, last16 = 0;
  uint32_t u32 = 0;
  EXPECT_EQ(readUint8(u8, kBytes, 4, 3) + readUint16(u16, kBytes, 4, 0) +
                readUint16(last16, kBytes, 4, 2) + readUint32(u32, kBytes, 4, 0),
            4u + 2 + 4 + 4);
  EXPECT_EQ(u8, 0x04);
  EXPECT_EQ(u16, 0x0102);
  EXPECT_EQ(last16, 0x0304);  // the last two bytes: offset size - 2
  EXPECT_EQ(u32, 0x01020304u);
}

TEST(DataTest, OutOfBoundsReadsNameOffsetAndSizeAndKeepTheOutput) {
  struct Case {
    int width;
    uint32_t size;
    uint32_t offset;
    const char* message;
  };
  const Case cases[] = {
      {1, 4, 4, "Read uint8_t failed: Offset 4 + 1 is out of bounds for data of 4 bytes"},
      {1, 0, 0, "Read uint8_t failed: Offset 0 + 1 is out of bounds for data of 0 bytes"},
      {2, 4, 3, "Read uint16_t failed: Offset 3 + 2 is out of bounds for data of 4 bytes"},
      {4, 4, 1, "Read uint32_t failed: Offset 1 + 4 is out of bounds for data of 4 bytes"},
      {4, 3, 0, "Read uint32_t failed: Offset 0 + 4 is out of bounds for data of 3 bytes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    uint8_t u8 = 0xAA;
    uint16_t u16 = 0xAAAA;
    uint32_t u32 = 0xAAAAAAAA;
    try {
      if (c.width == 1) readUint8(u8, kBytes, c.size, c.offset);
      if (c.width == 2) readUint16(u16, kBytes, c.size, c.offset);
      if (c.width == 4) readUint32(u32, kBytes, c.size, c.offset);
      ADD_FAILURE() << "no exception";
    } catch (const DataError& e) {
      EXPECT_STREQ(e.what(), c.message);
    }
    EXPECT_EQ(u8, 0xAA);
    EXPECT_EQ(u16, 0xAAAA);
    EXPECT_EQ(u32, 0xAAAAAAAAu);
  }
}

}  // namespace
}  // namespace ns::encoding::data
