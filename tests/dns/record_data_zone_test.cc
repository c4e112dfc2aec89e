// Compares the record data texts with those of a standard DNS tool for responses of a real
// authoritative server. The responses and the tool's texts were captured once by
// tools/capture_zone.py (see there) and are kept under data/zone/, so the test needs neither tool.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "dns/dns_message.h"

namespace vantrelo::net::dns {
namespace {

// The service binding texts differ on purpose in one point: every value is quoted here, while the
// tool quotes only some. Quotes are dropped from both sides for these types.
std::string comparable(uint16_t type, std::string text) {
  if (type == 64 || type == 65) text.erase(std::remove(text.begin(), text.end(), '"'), text.end());
  return text;
}

TEST(RecordDataZoneTest, MatchesStandardPresentation) {
  const std::string dir = std::string(VANTRELO_SOURCE_DIR) + "/tests/dns/data/zone/";
  std::map<std::string, std::vector<std::string>> expected;  // file -> the tool's texts
  std::ifstream list(dir + "expected.txt");
  ASSERT_TRUE(list);
  for (std::string line; std::getline(list, line);) {
    size_t tab = line.find('\t');
    ASSERT_NE(tab, std::string::npos) << line;
    expected[line.substr(0, tab)].push_back(line.substr(tab + 1));
  }
  ASSERT_EQ(expected.size(), 29u);
  DnsMessage message;
  size_t compared = 0;
  for (auto& [file, texts] : expected) {
    std::ifstream in(dir + file, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    parse(reinterpret_cast<const uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size()),
          message, true);
    ASSERT_EQ(message.error, "") << file;
    // Negative answers carry their proof in the authority section.
    const DnsSection& section = message.answers.empty() ? message.authority : message.answers;
    ASSERT_FALSE(section.empty()) << file;
    std::vector<std::string> ours;
    for (const DnsRecord& record : section) ours.push_back(comparable(record.type, record.data));
    for (std::string& text : texts) text = comparable(section.begin()->type, text);
    // The tool groups records by owner name, so compare without order.
    std::sort(ours.begin(), ours.end());
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(ours, texts) << file;
    compared += ours.size();
  }
  EXPECT_EQ(compared, 37u);  // lines of expected.txt
}

}  // namespace
}  // namespace vantrelo::net::dns
