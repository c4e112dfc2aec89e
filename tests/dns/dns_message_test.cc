#include "dns/dns_message.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "wire_builder.h"

namespace vantrelo::net::dns {
namespace {

using testing::Bytes;
using testing::cat;
using testing::parsed;
using testing::wire_name;
using testing::WireBuilder;

// "a.b." question and one A answer; 37 bytes. Cutting it inside a field must name that field.
// Header fields, names in both forms and reusing one message for many parses are covered by
// the formatter's golden cases.
TEST(DnsParseTest, TruncatedAndMalformedMessages) {
  const Bytes full = WireBuilder(1).record(1, {1, 2, 3, 4}).bytes();
  ASSERT_EQ(full.size(), 37u);
  auto cut = [&](size_t length) { return Bytes(full.begin(), full.begin() + length); };
  auto questions = [&](uint16_t count) { return cat({cut(4), testing::be16(count), cut(12)}); };
  const std::vector<std::pair<Bytes, std::string>> cases = {
      {cut(0), "Read uint16_t failed: Offset 0 + 2 is out of bounds for data of 0 bytes"},
      {cut(12), "Read uint8_t failed: Offset 12 + 1 is out of bounds for data of 12 bytes"},
      {cut(13), "Read FQDN failed: DNS name offset + label length 14 which is past packet len 13"},
      // The label ends on the last byte: no room for the terminator.
      {cut(14), "Read FQDN failed: DNS name offset + label length 14 which is past packet len 14"},
      {cut(30), "Read uint32_t failed: Offset 27 + 4 is out of bounds for data of 30 bytes"},
      {cut(36), "Offset 33 + record data length 4 is out of bounds for packet of 36 bytes"},
      {questions(2), "No question RRs 2 is not 1"},
  };
  for (const auto& [bytes, error] : cases) {
    DnsMessage message = parsed(bytes);
    EXPECT_EQ(message.error, "Read DNS message failed: " + error);
    EXPECT_EQ(message.size, bytes.size());
  }
  // Data ending exactly at the end is fine, and bytes behind the last record are ignored.
  for (const Bytes& bytes : {full, cat({full, {0xEE}})}) {
    DnsMessage message = parsed(bytes);
    EXPECT_EQ(message.error, "");
    ASSERT_EQ(message.answers.size, 1u);
    EXPECT_EQ(message.answers.records[0].data, "1.2.3.4");
  }
}

// SIG, OPT and TSIG records are left out of the additional section and its count, not out of
// the answers.
TEST(DnsParseTest, HiddenAdditionalRecordsAreDropped) {
  for (uint16_t type : {24, 41, 250, 16}) {
    const DnsMessage m = parsed(WireBuilder(0, 0, 3)
                                    .record(1, {10, 0, 0, 1})
                                    .record({0}, type, {})
                                    .record(1, {1, 0, 0, 2})
                                    .bytes());
    std::string kept = std::to_string(m.arcount);
    for (const DnsRecord& r : m.additional) kept += " " + r.name + " " + r.data + ";";
    EXPECT_EQ(kept,
              type == 16 ? "3 a.b. 10.0.0.1; . ; a.b. 1.0.0.2;" : "2 a.b. 10.0.0.1; a.b. 1.0.0.2;");
  }
  const DnsMessage opt = parsed(WireBuilder(1).record({0}, 41, {}).bytes());
  ASSERT_EQ(opt.answers.size, 1u);
  EXPECT_EQ(opt.answers.records[0].data, "\\# 0 ");
}

// Pointer i at offset 2*i points to offset 2*(i+1); after `count` pointers comes the name "x".
Bytes pointer_chain(uint32_t count) {
  Bytes bytes;
  for (uint32_t i = 1; i <= count; ++i)
    bytes = cat({bytes, {uint8_t(0xC0 | (2 * i) >> 8), uint8_t(2 * i)}});
  return cat({bytes, wire_name("x")});
}

// The name at `offset` and the offset after it, or "!" and the DnsError text.
std::string read(const Bytes& bytes, uint32_t offset) {
  std::string out = "prefix:";
  try {
    uint32_t end = read_name(offset, bytes.data(), static_cast<uint32_t>(bytes.size()), out, true);
    return out + "@" + std::to_string(end);
  } catch (const DnsError& e) {
    return std::string("!") + e.what();
  }
}

TEST(ReadNameTest, PointersLabelsAndEscapes) {
  const std::string too_many =
      "!Read FQDN failed: DNS name has at least 128 label pointers which is more than the maximum "
      "allowed of 127";
  const std::string past = "!Read FQDN failed: DNS name ";
  const std::vector<std::tuple<Bytes, uint32_t, std::string>> cases = {
      {{0}, 0, "prefix:.@1"},
      {cat({wire_name("ab.c"), {1, 'x', 0xC0, 0x00}}), 6, "prefix:x.ab.c.@10"},  // backward
      {cat({{0xC0, 0x02}, wire_name("fw")}), 0, "prefix:fw.@2"},                 // forward
      {pointer_chain(127), 0, "prefix:x.@2"},
      {pointer_chain(128), 0, too_many},
      {{0xC0, 0x00}, 0, too_many},  // self loop
      {{0xC0, 0x02}, 0, past + "uses pointer offset 2 which is past packet len 2"},
      // 0x40..0xBF are pointers as well, into offsets of 0x4000 and more.
      {{0x40, 0x00, 0}, 0, past + "uses pointer offset 32768 which is past packet len 3"},
      {{1, 'a'}, 0, past + "offset + label length 2 which is past packet len 2"},
      // Quotes, backslashes and bytes outside 0x20..0x7E are escaped; the rest is kept as is.
      {{8, 'a', '"', '\\', 0x00, 0x1F, 0x7F, 0x80, 0xFF, 7, ' ', '.', ';', '(', ')', '~', '!', 0},
       0,
       "prefix:a\\\"\\\\\\000\\031\\127\\128\\255. .;()~!.@18"},
  };
  for (const auto& [bytes, offset, expected] : cases) EXPECT_EQ(read(bytes, offset), expected);
}

}  // namespace
}  // namespace vantrelo::net::dns
