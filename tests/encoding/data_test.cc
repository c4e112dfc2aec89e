#include "encoding/data.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "test_helpers.h"

namespace ns::encoding::data {
namespace {

// Big-endian reads of 01 02 03 04 within its first `size` bytes: the next offset and the value,
// or the failure, which leaves the output untouched.
TEST(DataTest, ReadsBigEndianWithinTheBounds) {
  const uint8_t kBytes[] = {0x01, 0x02, 0x03, 0x04};
  const std::string kFailed = " failed: Offset ";
  const std::tuple<int, uint32_t, uint32_t, std::string> cases[] = {
      {1, 4, 3, "4 4"},
      {2, 4, 0, "2 258"},       // 0x0102
      {2, 4, 2, "4 772"},       // 0x0304
      {4, 4, 0, "4 16909060"},  // 0x01020304
      {1, 4, 4, "Read uint8_t" + kFailed + "4 + 1 is out of bounds for data of 4 bytes"},
      {1, 0, 0, "Read uint8_t" + kFailed + "0 + 1 is out of bounds for data of 0 bytes"},
      {2, 4, 3, "Read uint16_t" + kFailed + "3 + 2 is out of bounds for data of 4 bytes"},
      {4, 4, 1, "Read uint32_t" + kFailed + "1 + 4 is out of bounds for data of 4 bytes"},
      {4, 3, 0, "Read uint32_t" + kFailed + "0 + 4 is out of bounds for data of 3 bytes"}};
  for (const auto& [width, size, offset, expected] : cases) {
    uint8_t u8 = 7;
    uint16_t u16 = 7;
    uint32_t u32 = 7, next = 0;
    const std::string error = test::errorOf<DataError>([&] {
      next = width == 1   ? readUint8(u8, kBytes, size, offset)
             : width == 2 ? readUint16(u16, kBytes, size, offset)
                          : readUint32(u32, kBytes, size, offset);
    });
    const uint32_t value = width == 1 ? u8 : width == 2 ? u16 : u32;
    EXPECT_EQ(error.empty() ? std::to_string(next) + " " + std::to_string(value) : error, expected);
    EXPECT_TRUE(error.empty() || value == 7) << expected;
  }
}

}  // namespace
}  // namespace ns::encoding::data
