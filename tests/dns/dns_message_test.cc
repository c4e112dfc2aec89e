#include "dns/dns_message.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "wire_builder.h"

namespace ns::net::dns {
namespace {

using testing::Bytes;
using testing::wire_name;
using testing::WireBuilder;

DnsMessage parsed(const Bytes& bytes, bool trailing_dot = true) {
  DnsMessage message;
  parse(bytes.data(), static_cast<uint32_t>(bytes.size()), message, trailing_dot);
  return message;
}

// "a.b." question and one A answer; 37 bytes. Cutting it after each field must name that field.
TEST(DnsParseTest, TruncationAtEveryField) {
  Bytes full = WireBuilder(1).record(1, {1, 2, 3, 4}).bytes();
  ASSERT_EQ(full.size(), 37u);
  struct Case {
    size_t length;
    std::string error;
  };
  const std::string prefix = "Read DNS message failed: ";
  const std::vector<Case> cases = {
      {0, "Read uint16_t failed: Offset 0 + 2 is out of bounds for data of 0 bytes"},
      {3, "Read uint16_t failed: Offset 2 + 2 is out of bounds for data of 3 bytes"},
      {11, "Read uint16_t failed: Offset 10 + 2 is out of bounds for data of 11 bytes"},
      {12, "Read uint8_t failed: Offset 12 + 1 is out of bounds for data of 12 bytes"},
      {13, "Read FQDN failed: DNS name offset + label length 14 which is past packet len 13"},
      // The label ends on the last byte: no room for the terminator.
      {14, "Read FQDN failed: DNS name offset + label length 14 which is past packet len 14"},
      {16, "Read FQDN failed: DNS name offset + label length 16 which is past packet len 16"},
      {17, "Read uint16_t failed: Offset 17 + 2 is out of bounds for data of 17 bytes"},
      {20, "Read uint16_t failed: Offset 19 + 2 is out of bounds for data of 20 bytes"},
      {21, "Read uint8_t failed: Offset 21 + 1 is out of bounds for data of 21 bytes"},
      {22, "Read uint8_t failed: Offset 22 + 1 is out of bounds for data of 22 bytes"},
      {24, "Read uint16_t failed: Offset 23 + 2 is out of bounds for data of 24 bytes"},
      {26, "Read uint16_t failed: Offset 25 + 2 is out of bounds for data of 26 bytes"},
      {30, "Read uint32_t failed: Offset 27 + 4 is out of bounds for data of 30 bytes"},
      {32, "Read uint16_t failed: Offset 31 + 2 is out of bounds for data of 32 bytes"},
      {36, "Offset 33 + record data length 4 is out of bounds for packet of 36 bytes"},
  };
  for (const Case& c : cases) {
    Bytes cut(full.begin(), full.begin() + c.length);
    DnsMessage message = parsed(cut);
    EXPECT_EQ(message.error, prefix + c.error) << "length " << c.length;
    EXPECT_EQ(message.size, c.length);
  }
  // Data ending exactly at the end is fine, and bytes behind the last record are ignored.
  Bytes longer = full;
  longer.push_back(0xEE);
  for (const Bytes& bytes : {full, longer}) {
    DnsMessage message = parsed(bytes);
    EXPECT_EQ(message.error, "");
    ASSERT_EQ(message.answers.size, 1u);
    EXPECT_EQ(message.answers.records[0].data, "1.2.3.4");
  }
}

TEST(DnsParseTest, QuestionCountMustBeOne) {
  for (uint16_t count : {0, 2, 65535}) {
    Bytes bytes = WireBuilder(0).bytes();
    bytes[4] = static_cast<uint8_t>(count >> 8);
    bytes[5] = static_cast<uint8_t>(count);
    EXPECT_EQ(parsed(bytes).error,
              "Read DNS message failed: No question RRs " + std::to_string(count) + " is not 1");
  }
}

TEST(DnsParseTest, HeaderAndNamesInBothForms) {
  Bytes bytes = testing::cat({{0xAB, 0xCD, 0x85, 0x83, 0, 1, 0, 1, 0, 0, 0, 0},
                              wire_name("Host.Example.COM"),
                              {0, 28, 0, 1},
                              {0xC0, 0x11},  // "Example.COM"
                              {0, 5, 0, 3, 0, 0, 0, 60, 0, 2, 0xC0, 0x0C}});
  for (bool trailing_dot : {true, false}) {
    std::string dot = trailing_dot ? "." : "";
    DnsMessage m = parsed(bytes, trailing_dot);
    ASSERT_EQ(m.error, "");
    EXPECT_EQ(m.id, 0xABCD);
    EXPECT_EQ(m.flags, 0x8583);
    EXPECT_EQ(m.qname, "Host.Example.COM" + dot);
    EXPECT_EQ(m.qname_lower, "host.example.com" + dot);
    EXPECT_EQ(m.qtype, 28);
    EXPECT_EQ(m.qclass, 1);
    ASSERT_EQ(m.answers.size, 1u);
    const DnsRecord& r = m.answers.records[0];
    EXPECT_EQ(r.name, "Example.COM" + dot);
    EXPECT_EQ(r.name_lower, "example.com" + dot);
    EXPECT_EQ(r.type, 5);
    EXPECT_EQ(r.klass, 3);
    EXPECT_EQ(r.ttl, 60u);
    EXPECT_EQ(r.data, "Host.Example.COM" + dot);
  }
}

TEST(DnsParseTest, HiddenAdditionalRecordsAreDropped) {
  struct Case {
    uint16_t type;
    bool kept;
  };
  for (Case c : {Case{24, false}, Case{41, false}, Case{250, false}, Case{1, true}}) {
    Bytes rdata = c.type == 1 ? Bytes{9, 9, 9, 9} : Bytes{};
    Bytes bytes = WireBuilder(0, 0, 3)
                      .record(1, {10, 0, 0, 1})
                      .record({0}, c.type, rdata)
                      .record(1, {10, 0, 0, 2})
                      .bytes();
    DnsMessage m = parsed(bytes);
    ASSERT_EQ(m.error, "") << c.type;
    EXPECT_EQ(m.arcount, c.kept ? 3 : 2) << c.type;
    ASSERT_EQ(m.additional.size, m.arcount);
    EXPECT_EQ(m.additional.records[0].data, "10.0.0.1");
    EXPECT_EQ(m.additional.records[m.arcount - 1].data, "10.0.0.2");
  }
  // In the answer section an OPT record is an ordinary record.
  DnsMessage m = parsed(WireBuilder(1).record({0}, 41, {}).bytes());
  ASSERT_EQ(m.answers.size, 1u);
  EXPECT_EQ(m.answers.records[0].data, "\\# 0 ");
  EXPECT_EQ(m.answers.records[0].name, ".");
}

TEST(DnsParseTest, ReusedMessageMatchesFreshOne) {
  const std::vector<Bytes> messages = {
      WireBuilder(2, 1, 1)
          .record(wire_name("Long.Owner.Name.Example"), 16, {3, 'a', 'b', 'c', 1, 'd'})
          .record(1, {1, 1, 1, 1})
          .record(2, {0xC0, 0x0C})
          .record(28, Bytes(16, 0))
          .bytes(),
      WireBuilder(1).record(1, {2, 2, 2, 2}).bytes(),
      WireBuilder(1).record(1, {2, 2, 2}).bytes(),  // fails in the record data
      WireBuilder(0, 0, 1).record({0}, 41, {}).bytes(),
      WireBuilder(1, 1).record(15, {0, 10, 0xC0, 0x0C}).record(16, {0}).bytes(),
  };
  DnsMessage reused;
  for (int round = 0; round < 2; ++round) {
    for (const Bytes& bytes : messages) {
      parse(bytes.data(), static_cast<uint32_t>(bytes.size()), reused, true);
      DnsMessage fresh = parsed(bytes);
      EXPECT_EQ(reused.error, fresh.error);
      EXPECT_EQ(reused.qname, fresh.qname);
      EXPECT_EQ(reused.arcount, fresh.arcount);
      for (auto section : {&DnsMessage::answers, &DnsMessage::authority, &DnsMessage::additional}) {
        const DnsSection& a = reused.*section;
        const DnsSection& b = fresh.*section;
        ASSERT_EQ(a.size, b.size);
        for (uint32_t i = 0; i < a.size; ++i) {
          EXPECT_EQ(a.records[i].name, b.records[i].name);
          EXPECT_EQ(a.records[i].name_lower, b.records[i].name_lower);
          EXPECT_EQ(a.records[i].type, b.records[i].type);
          EXPECT_EQ(a.records[i].ttl, b.records[i].ttl);
          EXPECT_EQ(a.records[i].data, b.records[i].data);
        }
      }
    }
  }
}

struct NameCase {
  const char* label;
  Bytes bytes;
  uint32_t offset;
  std::string text;  // expected text, or the DnsError message when `end` is 0
  uint32_t end;
};

// Pointer i at offset 2*i points to offset 2*(i+1); after `count` pointers comes the name "x".
Bytes pointer_chain(uint32_t count) {
  Bytes bytes;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t target = 2 * (i + 1);
    bytes.push_back(static_cast<uint8_t>(0xC0 | (target >> 8)));
    bytes.push_back(static_cast<uint8_t>(target));
  }
  Bytes tail = wire_name("x");
  bytes.insert(bytes.end(), tail.begin(), tail.end());
  return bytes;
}

TEST(ReadNameTest, PointersAndLabels) {
  const std::string too_many =
      "Read FQDN failed: DNS name has at least 128 label pointers which is more than the maximum "
      "allowed of 127";
  const std::vector<NameCase> cases = {
      {"root", {0}, 0, ".", 1},
      {"backward", testing::cat({wire_name("ab.c"), {1, 'x', 0xC0, 0x00}}), 6, "x.ab.c.", 10},
      {"forward", testing::cat({{0xC0, 0x02}, wire_name("fw")}), 0, "fw.", 2},
      {"127 pointers", pointer_chain(127), 0, "x.", 2},
      {"128 pointers", pointer_chain(128), 0, too_many, 0},
      {"self loop", {0xC0, 0x00}, 0, too_many, 0},
      {"past end",
       {0xC0, 0x02},
       0,
       "Read FQDN failed: DNS name uses pointer offset 2 which is past packet len 2",
       0},
      // 0x40..0xBF are pointers as well, into offsets of 0x4000 and more.
      {"0x40 pointer",
       {0x40, 0x00, 0},
       0,
       "Read FQDN failed: DNS name uses pointer offset 32768 which is past packet len 3",
       0},
      {"0x80 pointer",
       {0x80, 0x01, 0},
       0,
       "Read FQDN failed: DNS name uses pointer offset 16385 which is past packet len 3",
       0},
      {"label on last byte",
       {1, 'a'},
       0,
       "Read FQDN failed: DNS name offset + label length 2 which is past packet len 2",
       0},
      {"label to terminator", {1, 'a', 0}, 0, "a.", 3},
      {"escapes", {5, 'a', '"', 'b', '\\', 'c', 0}, 0, "a\\\"b\\\\c.", 7},
      {"control bytes",
       {6, 0x00, 0x0A, 0x1F, 0x7F, 0x80, 0xFF, 0},
       0,
       "\\000\\010\\031\\127\\128\\255.",
       8},
      {"kept as is", {7, ' ', '.', ';', '(', ')', '~', '!', 0}, 0, " .;()~!.", 9},
  };
  for (const NameCase& c : cases) {
    std::string out = "prefix:";
    if (c.end == 0) {
      try {
        read_name(c.offset, c.bytes.data(), static_cast<uint32_t>(c.bytes.size()), out, true);
        ADD_FAILURE() << c.label << " did not fail";
      } catch (const DnsError& e) {
        EXPECT_EQ(std::string(e.what()), c.text) << c.label;
      }
      continue;
    }
    uint32_t end =
        read_name(c.offset, c.bytes.data(), static_cast<uint32_t>(c.bytes.size()), out, true);
    EXPECT_EQ(out, "prefix:" + c.text) << c.label;
    EXPECT_EQ(end, c.end) << c.label;
  }
}

TEST(ReadNameTest, RootWithoutTrailingDotIsEmpty) {
  const uint8_t root[] = {0};
  std::string out;
  EXPECT_EQ(read_name(0, root, 1, out, false), 1u);
  EXPECT_EQ(out, "");
}

}  // namespace
}  // namespace ns::net::dns
