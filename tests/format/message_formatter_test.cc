#include "format/message_formatter.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "format/metrics_report.h"
#include "wire_builder.h"

namespace ns::format {
namespace {

using encoding::dnstap::DnstapMessage;
using testing::makeRecord;
using testing::nameBytes;
using testing::Wire;

constexpr uint64_t kSec = 1709622542;  // 2024-03-05 07:09:02 UTC
constexpr uint32_t kNsec = 5000;
const std::string kRfc5424 = "<134>1 2024-03-05T07:09:02.5Z dnsbox vantrelo 4242 - - ";
const std::string kRfc3164 = "<134>Mar  5 07:09:02 dnsbox vantrelo[4242]: ";
const std::string kJsonStart =
    R"({"timestamp":"2024-03-05T07:09:02.5Z","host":"dnsbox","schema":1,"type":)";

constexpr uint16_t kA = 1, kNs = 2, kCname = 5, kTxt = 16, kAaaa = 28, kOpt = 41;
constexpr uint16_t kIn = 1, kCh = 3;

MessageSettings baseSettings(MessageFormat format, bool extended, uint8_t style) {
  MessageSettings settings;
  settings.format = format;
  settings.querylog_extended = extended;
  settings.syslog_style = style;
  settings.syslog_priority = 134;
  settings.hostname = "dnsbox";
  settings.process_id = 4242;
  settings.suffixes.build_builtin_set(true);
  return settings;
}

struct GoldenCase {
  const char* name;
  DnstapMessage record;
  std::string standard;  // body of the standard query-log line, behind the header
  std::string extended;  // body of the extended query-log line
  std::string json;      // the JSON object behind its common start
};

std::string clientResponseWire() {
  return Wire()
      .header(0x1234, 0x8180, 1, 1, 0, 0)
      .question("host.example.com", kA, kIn)
      .pointer(12)
      .rr(kA, kIn, 300, std::string("\xC0\x00\x02\x50", 4))
      .bytes();
}

std::vector<GoldenCase> goldenCases() {
  std::vector<GoldenCase> cases;
  cases.push_back(
      {"client query, UDP, IPv4",
       makeRecord(
           5, 1, 1, "192.0.2.7", "192.0.2.53", 53124,
           Wire().header(0x1234, 0x0100, 1, 0, 0, 0).question("host.example.com", kA, kIn).bytes(),
           kSec, kNsec),
       "queries: client 192.0.2.7#53124: query: host.example.com. IN A + (192.0.2.53)\n",
       "queries: client 192.0.2.7#53124 %4660: query: host.example.com. [example.com.] IN A + "
       "(192.0.2.53 34b)\n",
       R"("client-query","data":{"client":"192.0.2.7","server":"192.0.2.53","port":53124,)"
       R"("proto":"UDP","size":34,"txid":4660,"flags":{"rd":true},"qname":"host.example.com.",)"
       R"("qdomain":"example.com.","qclass":"IN","qtype":"A"}})"});
  cases.push_back(
      {"client response, TCP, one answer",
       makeRecord(6, 1, 2, "192.0.2.7", "192.0.2.53", 53124, clientResponseWire(), kSec, kNsec),
       "queries: client 192.0.2.7#53124: response: host.example.com. IN A +T (192.0.2.53) "
       "NOERROR; host.example.com. 300 IN A 192.0.2.80\n",
       "queries: client 192.0.2.7#53124 %4660: response: host.example.com. [example.com.] IN A +T "
       "(192.0.2.53 50b) NOERROR; host.example.com. [example.com.] 300 IN A 192.0.2.80\n",
       R"("client-response","data":{"client":"192.0.2.7","server":"192.0.2.53","port":53124,)"
       R"("proto":"TCP","size":50,"txid":4660,"flags":{"rd":true,"ra":true,"aa":false,"tc":false},)"
       R"("qname":"host.example.com.","qdomain":"example.com.","qclass":"IN","qtype":"A",)"
       R"("rcode":"NOERROR","answers":[{"name":"host.example.com.","domain":"example.com.",)"
       R"("ttl":300,"rrclass":"IN","rrtype":"A","data":"192.0.2.80"}],"authority":[],)"
       R"("additional":[]}})"});
  cases.push_back(
      {"resolver query, DOT, IPv6, no RD",
       makeRecord(3, 2, 3, "2001:db8::1", "2001:db8::53", 5353,
                  Wire().header(7, 0, 1, 0, 0, 0).question("www.Example.CO.uk", kAaaa, kIn).bytes(),
                  kSec, kNsec),
       "queries: resolver 2001:db8::1#5353: query: www.Example.CO.uk. IN AAAA -T (2001:db8::53)\n",
       "queries: resolver 2001:db8::1#5353 %7: query: www.Example.CO.uk. [example.co.uk.] IN AAAA "
       "-T (2001:db8::53 35b)\n",
       R"("resolver-query","data":{"client":"2001:db8::1","server":"2001:db8::53","port":5353,)"
       R"("proto":"DOT","size":35,"txid":7,"flags":{"rd":false},"qname":"www.Example.CO.uk.",)"
       R"("qdomain":"example.co.uk.","qclass":"IN","qtype":"AAAA"}})"});
  cases.push_back(
      {"forwarder query, DOQ, IPv4-mapped addresses under family INET",
       makeRecord(7, 1, 7, "::ffff:198.51.100.4", "::ffff:198.51.100.1", 1000,
                  Wire().header(1, 0x0100, 1, 0, 0, 0).question("version.bind", kTxt, kCh).bytes(),
                  kSec, kNsec),
       "queries: forwarder 198.51.100.4#1000: query: version.bind. CH TXT + (198.51.100.1)\n",
       "queries: forwarder 198.51.100.4#1000 %1: query: version.bind. [bind.] CH TXT + "
       "(198.51.100.1 30b)\n",
       R"("forwarder-query","data":{"client":"198.51.100.4","server":"198.51.100.1","port":1000,)"
       R"("proto":"DOQ","size":30,"txid":1,"flags":{"rd":true},"qname":"version.bind.",)"
       R"("qdomain":"bind.","qclass":"CH","qtype":"TXT"}})"});
  cases.push_back(
      {"stub query without addresses, protocol, known class or type",
       makeRecord(9, 0, 0, "", "", 0,
                  Wire().header(2, 0x0100, 1, 0, 0, 0).question("example.org", 65280, 2).bytes(),
                  kSec, kNsec),
       "queries: stub #0: query: example.org. CLASS2 TYPE65280 + (<unknown>)\n",
       "queries: stub #0 %2: query: example.org. [example.org.] CLASS2 TYPE65280 + "
       "(<unknown> 29b)\n",
       R"("stub-query","data":{"client":"","server":"","port":0,"proto":"PROTO0","size":29,)"
       R"("txid":2,"flags":{"rd":true},"qname":"example.org.","qdomain":"example.org.",)"
       R"("qclass":"CLASS2","qtype":"TYPE65280"}})"});

  const std::string truncated("\x12\x34\x81\x80\x00", 5);
  const std::string truncatedError =
      "Read DNS message failed: Read uint16_t failed: Offset 4 + 2 is out of bounds for data of "
      "5 bytes";
  const std::string truncatedLine = "errors: " + truncatedError +
                                    ": client 192.0.2.7#53124: server 192.0.2.53: packet \\# 5 "
                                    "1234818000\n";
  cases.push_back(
      {"response that fails to parse",
       makeRecord(6, 1, 1, "192.0.2.7", "192.0.2.53", 53124, truncated, kSec, kNsec), truncatedLine,
       truncatedLine,
       R"("error","data":{"client":"192.0.2.7","server":"192.0.2.53","port":53124,"size":5,)"
       R"("packet":"1234818000","text":")" +
           truncatedError + R"("}})"});

  const std::string noQuestionLine =
      "errors: Read DNS message failed: No question RRs 0 is not 1: client 192.0.2.7#53124: "
      "server : packet \\# 12 000184000000000000000000\n";
  cases.push_back({"auth response without question or server address",
                   makeRecord(2, 1, 1, "192.0.2.7", "", 53124,
                              Wire().header(1, 0x8400, 0, 0, 0, 0).bytes(), kSec, kNsec),
                   noQuestionLine, noQuestionLine,
                   R"("error","data":{"client":"192.0.2.7","server":"","port":53124,"size":12,)"
                   R"("packet":"000184000000000000000000",)"
                   R"("text":"Read DNS message failed: No question RRs 0 is not 1"}})"});

  // QR, TC, AD and NXDOMAIN; AA clear. The OPT record is left out of the additional section.
  const std::string special = "a/b\"c\\d.example.com";
  const std::string full = Wire()
                               .header(0xBEEF, 0x8223, 1, 2, 1, 2)
                               .question(special, kA, kIn)
                               .pointer(12)
                               .rr(kCname, kIn, 60, nameBytes("target.example.net"))
                               .name("target.example.net")
                               .rr(kA, kIn, 30, std::string("\x0A\x01\x02\x03", 4))
                               .name("example.net")
                               .rr(kNs, kIn, 3600, nameBytes("ns1.example.net"))
                               .name("ns1.example.net")
                               .rr(kAaaa, kIn, 3600, testing::ipBytes("2001:db8::53"))
                               .name("")
                               .rr(kOpt, 1232, 0, "")
                               .bytes();
  cases.push_back(
      {"forwarder response with every section and escaped names",
       makeRecord(8, 1, 2, "10.0.0.1", "10.0.0.2", 4444, full, kSec, kNsec),
       R"(queries: forwarder 10.0.0.1#4444: response: a/b\"c\\d.example.com. IN A -T (10.0.0.2) )"
       R"(NXDOMAIN; a/b\"c\\d.example.com. 60 IN CNAME target.example.net.; target.example.net. )"
       "30 IN A 10.1.2.3\n",
       R"(queries: forwarder 10.0.0.1#4444 %48879: response: a/b\"c\\d.example.com. )"
       R"([example.com.] IN A -T (10.0.0.2 197b) NXDOMAIN; a/b\"c\\d.example.com. [example.com.] )"
       R"(60 IN CNAME target.example.net.; target.example.net. [example.net.] 30 IN A 10.1.2.3)"
       "\n",
       R"("forwarder-response","data":{"client":"10.0.0.1","server":"10.0.0.2","port":4444,)"
       R"("proto":"TCP","size":197,"txid":48879,"flags":{"rd":false,"ra":false,"aa":true,)"
       R"("tc":true},"qname":"a\/b\\\"c\\\\d.example.com.","qdomain":"example.com.",)"
       R"("qclass":"IN","qtype":"A","rcode":"NXDOMAIN","answers":[)"
       R"({"name":"a\/b\\\"c\\\\d.example.com.","domain":"example.com.","ttl":60,)"
       R"("rrclass":"IN","rrtype":"CNAME","data":"target.example.net."},)"
       R"({"name":"target.example.net.","domain":"example.net.","ttl":30,"rrclass":"IN",)"
       R"("rrtype":"A","data":"10.1.2.3"}],"authority":[{"name":"example.net.",)"
       R"("domain":"example.net.","ttl":3600,"rrclass":"IN","rrtype":"NS",)"
       R"("data":"ns1.example.net."}],"additional":[{"name":"ns1.example.net.",)"
       R"("domain":"example.net.","ttl":3600,"rrclass":"IN","rrtype":"AAAA",)"
       R"("data":"2001:db8::53"}]}})"});
  return cases;
}

// Collects every JSON text the tests produce, for the strict parser run after this program.
std::vector<std::string>& jsonLines() {
  static std::vector<std::string> lines;
  return lines;
}

std::string formatRecord(const MessageSettings& settings, const DnstapMessage& record) {
  MessageFormatter formatter(settings);
  MessageView view;
  EXPECT_TRUE(make_view(record, view));
  std::string out;
  EXPECT_TRUE(formatter.format(view, out));
  return out;
}

TEST(MessageFormatterTest, GoldenQueryLogLinesAndJsonObjects) {
  const MessageSettings standard5424 = baseSettings(MessageFormat::kQuerylog, false, 0);
  const MessageSettings standard3164 = baseSettings(MessageFormat::kQuerylog, false, 1);
  const MessageSettings extended5424 = baseSettings(MessageFormat::kQuerylog, true, 0);
  const MessageSettings extended3164 = baseSettings(MessageFormat::kQuerylog, true, 1);
  const MessageSettings json = baseSettings(MessageFormat::kJson, false, 1);
  for (const GoldenCase& c : goldenCases()) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(formatRecord(standard5424, c.record), kRfc5424 + c.standard);
    EXPECT_EQ(formatRecord(standard3164, c.record), kRfc3164 + c.standard);
    EXPECT_EQ(formatRecord(extended5424, c.record), kRfc5424 + c.extended);
    EXPECT_EQ(formatRecord(extended3164, c.record), kRfc3164 + c.extended);
    const std::string object = formatRecord(json, c.record);
    EXPECT_EQ(object, kJsonStart + c.json + "\n");
    jsonLines().push_back(object.substr(0, object.size() - 1));
  }
}

TEST(MessageFormatterTest, OneFormatterReusedForABatchGivesTheSameLines) {
  const MessageSettings settings = baseSettings(MessageFormat::kJson, false, 0);
  std::vector<GoldenCase> cases = goldenCases();
  std::string expected;
  for (const GoldenCase& c : cases) expected += formatRecord(settings, c.record);
  // Run the big message first and the small ones after it, so left-over records would show.
  MessageFormatter formatter(settings);
  std::string batch;
  DnstapMessage record;
  for (auto it = cases.rbegin(); it != cases.rend(); ++it) {
    std::string encoded;
    it->record.encode(encoded);
    std::string line;
    ASSERT_TRUE(formatter.formatEvent(reinterpret_cast<const uint8_t*>(encoded.data()),
                                      static_cast<uint32_t>(encoded.size()), record, line));
    batch.insert(0, line);
  }
  EXPECT_EQ(batch, expected);
}

TEST(MessageFormatterTest, SuffixOffAndNamesWithoutTrailingDot) {
  MessageSettings settings = baseSettings(MessageFormat::kQuerylog, true, 0);
  settings.suffix_enabled = false;
  settings.suffix_builtin = false;
  settings.suffix_config = false;
  settings.trailing_dot = false;
  const DnstapMessage record =
      makeRecord(6, 1, 2, "192.0.2.7", "192.0.2.53", 53124, clientResponseWire(), kSec, kNsec);
  EXPECT_EQ(formatRecord(settings, record),
            kRfc5424 +
                "queries: client 192.0.2.7#53124 %4660: response: host.example.com [] IN A +T "
                "(192.0.2.53 50b) NOERROR; host.example.com [] 300 IN A 192.0.2.80\n");
  settings.format = MessageFormat::kJson;
  const std::string object = formatRecord(settings, record);
  EXPECT_EQ(object,
            kJsonStart +
                R"("client-response","data":{"client":"192.0.2.7","server":"192.0.2.53",)"
                R"("port":53124,"proto":"TCP","size":50,"txid":4660,"flags":{"rd":true,)"
                R"("ra":true,"aa":false,"tc":false},"qname":"host.example.com","qclass":"IN",)"
                R"("qtype":"A","rcode":"NOERROR","answers":[{"name":"host.example.com",)"
                R"("ttl":300,"rrclass":"IN","rrtype":"A","data":"192.0.2.80"}],"authority":[],)"
                R"("additional":[]}})"
                "\n");
  jsonLines().push_back(object.substr(0, object.size() - 1));
}

TEST(MessageFormatterTest, ConfiguredSuffixWinsOverThePublicSuffix) {
  MessageSettings settings = baseSettings(MessageFormat::kQuerylog, true, 0);
  settings.suffixes.add_configured_suffix("corp.example", true);
  const DnstapMessage record = makeRecord(
      5, 1, 1, "192.0.2.7", "192.0.2.53", 1,
      Wire().header(9, 0, 1, 0, 0, 0).question("x.y.Corp.Example", kA, kIn).bytes(), kSec, kNsec);
  EXPECT_EQ(formatRecord(settings, record),
            kRfc5424 +
                "queries: client 192.0.2.7#1 %9: query: x.y.Corp.Example. [corp.example.] "
                "IN A - (192.0.2.53 34b)\n");
  settings.suffix_config = false;
  EXPECT_EQ(formatRecord(settings, record),
            kRfc5424 +
                "queries: client 192.0.2.7#1 %9: query: x.y.Corp.Example. [example.] "
                "IN A - (192.0.2.53 34b)\n");
}

TEST(MessageFormatterTest, StreamProtocolsAreMarkedWithT) {
  struct Case {
    uint64_t protocol;
    const char* marker;
    const char* json_proto;
  };
  const Case cases[] = {
      {0, "+ (", "PROTO0"},       {1, "+ (", "UDP"},  {2, "+T (", "TCP"},
      {3, "+T (", "DOT"},         {4, "+T (", "DOH"}, {5, "+ (", "DNSCryptUDP"},
      {6, "+T (", "DNSCryptTCP"}, {7, "+ (", "DOQ"},  {9, "+ (", "PROTO9"},
  };
  const MessageSettings querylog = baseSettings(MessageFormat::kQuerylog, false, 0);
  const MessageSettings json = baseSettings(MessageFormat::kJson, false, 0);
  const std::string wire =
      Wire().header(1, 0x0100, 1, 0, 0, 0).question("example.com", kA, kIn).bytes();
  for (const Case& c : cases) {
    const DnstapMessage record =
        makeRecord(5, 1, c.protocol, "192.0.2.7", "192.0.2.53", 1, wire, kSec, kNsec);
    EXPECT_NE(formatRecord(querylog, record).find(std::string("IN A ") + c.marker),
              std::string::npos)
        << c.protocol;
    EXPECT_NE(formatRecord(json, record).find(std::string("\"proto\":\"") + c.json_proto + "\""),
              std::string::npos)
        << c.protocol;
  }
}

TEST(MessageFormatterTest, RecordsWithoutAMessageAreDropped) {
  const std::string wire =
      Wire().header(1, 0x0100, 1, 0, 0, 0).question("example.com", kA, kIn).bytes();
  struct Case {
    const char* name;
    DnstapMessage record;
  };
  DnstapMessage emptyQuery = makeRecord(5, 1, 1, "192.0.2.7", "", 1, wire, kSec, kNsec);
  emptyQuery.query_message.clear();
  emptyQuery.response_message = wire;  // the other direction's message does not count
  const Case cases[] = {
      {"type 0", makeRecord(0, 1, 1, "192.0.2.7", "", 1, wire, kSec, kNsec)},
      {"type 13", makeRecord(13, 1, 1, "192.0.2.7", "", 1, wire, kSec, kNsec)},
      {"type 14", makeRecord(14, 1, 1, "192.0.2.7", "", 1, wire, kSec, kNsec)},
      {"empty query message", emptyQuery},
      {"empty response message", makeRecord(6, 1, 1, "192.0.2.7", "", 1, "", kSec, kNsec)},
  };
  for (const Case& c : cases) {
    MessageView view;
    EXPECT_FALSE(make_view(c.record, view)) << c.name;
  }
}

TEST(MessageFormatterTest, InvalidRecordsFailWithTheirReason) {
  const std::string wire =
      Wire().header(1, 0x0100, 1, 0, 0, 0).question("example.com", kA, kIn).bytes();
  struct Case {
    DnstapMessage record;
    const char* expected;
  };
  std::vector<Case> cases;
  DnstapMessage r = makeRecord(5, 1, 1, "192.0.2.7", "192.0.2.53", 1, wire, 0, 0);
  cases.push_back({r, "Expected message query_time_sec not to be 0 but got 0"});
  r = makeRecord(6, 1, 1, "192.0.2.7", "192.0.2.53", 1, wire, 0, 0);
  cases.push_back({r, "Expected message response_time_sec not to be 0 but got 0"});
  r = makeRecord(5, 1, 1, "192.0.2.7", "192.0.2.53", 1, wire, kSec, 1000000000);
  cases.push_back(
      {r, "Expected message query_time_nsec to be less than 1000000000 but got 1000000000"});
  r = makeRecord(6, 1, 1, "192.0.2.7", "192.0.2.53", 1, wire, kSec, 4294967295u);
  cases.push_back(
      {r, "Expected message response_time_nsec to be less than 1000000000 but got 4294967295"});
  r = makeRecord(5, 1, 1, "192.0.2.7", "192.0.2.53", 1, wire, kSec, kNsec);
  r.query_address = "12345";
  cases.push_back({r, "Expected message query_address to be 0, 4 or 16 bytes but got 5"});
  r.response_address = "123";  // the response address is checked first
  cases.push_back({r, "Expected message response_address to be 0, 4 or 16 bytes but got 3"});

  const MessageSettings settings = baseSettings(MessageFormat::kJson, false, 0);
  MessageFormatter formatter(settings);
  for (const Case& c : cases) {
    MessageView view;
    try {
      make_view(c.record, view);
      ADD_FAILURE() << "no error for " << c.expected;
    } catch (const net::dns::DnsError& e) {
      EXPECT_STREQ(e.what(), c.expected);
    }
    // Through the forwarder's entry point the same error leaves the buffer untouched.
    std::string encoded;
    DnstapMessage copy = c.record;
    copy.encode(encoded);
    std::string out = "before";
    DnstapMessage scratch;
    EXPECT_THROW(formatter.formatEvent(reinterpret_cast<const uint8_t*>(encoded.data()),
                                       static_cast<uint32_t>(encoded.size()), scratch, out),
                 net::dns::DnsError);
    EXPECT_EQ(out, "before");
  }
}

TEST(MessageFormatterTest, FormatRefusesTypesWithoutANameAndOtherFormats) {
  const DnstapMessage record = makeRecord(
      5, 1, 1, "192.0.2.7", "192.0.2.53", 1,
      Wire().header(1, 0x0100, 1, 0, 0, 0).question("example.com", kA, kIn).bytes(), kSec, kNsec);
  MessageView view;
  ASSERT_TRUE(make_view(record, view));
  for (MessageFormat format : {MessageFormat::kJson, MessageFormat::kQuerylog}) {
    const MessageSettings settings = baseSettings(format, true, 0);
    MessageFormatter formatter(settings);
    view.type = 13;
    std::string out = "kept";
    EXPECT_FALSE(formatter.format(view, out));
    EXPECT_EQ(out, "kept");
    view.type = 5;
    EXPECT_TRUE(formatter.format(view, out));
    EXPECT_GT(out.size(), 4u);
  }
  const MessageSettings dnstapSettings = baseSettings(MessageFormat::kDnstap, false, 0);
  MessageFormatter dnstap(dnstapSettings);
  std::string out;
  EXPECT_FALSE(dnstap.format(view, out));
  EXPECT_TRUE(out.empty());
}

TEST(MessageFormatterTest, DnstapFormatSendsEachEventAsOneDataFrame) {
  const MessageSettings settings = baseSettings(MessageFormat::kDnstap, false, 0);
  MessageFormatter formatter(settings);
  const DnstapMessage record =
      makeRecord(6, 1, 2, "192.0.2.7", "192.0.2.53", 53124, clientResponseWire(), kSec, kNsec);
  std::string encoded;
  DnstapMessage(record).encode(encoded);
  std::string out = "x";
  DnstapMessage scratch;
  const auto* bytes = reinterpret_cast<const uint8_t*>(encoded.data());
  const uint32_t size = static_cast<uint32_t>(encoded.size());
  ASSERT_TRUE(formatter.formatEvent(bytes, size, scratch, out));
  ASSERT_TRUE(formatter.formatEvent(bytes, size, scratch, out));
  ASSERT_LT(size, 256u);
  const std::string frame = std::string("\0\0\0", 3) + static_cast<char>(size) + encoded;
  EXPECT_EQ(out, "x" + frame + frame);

  std::string big;
  appendDnstapFrame(big, bytes, 0);  // an empty event is one empty frame
  EXPECT_EQ(big, std::string(4, '\0'));
  std::string payload(0x010203, 'p');
  big.clear();
  appendDnstapFrame(big, reinterpret_cast<const uint8_t*>(payload.data()),
                    static_cast<uint32_t>(payload.size()));
  EXPECT_EQ(big.substr(0, 4), std::string("\x00\x01\x02\x03", 4));
  EXPECT_EQ(big.size(), payload.size() + 4);

  // Records not worth a message and bytes that are not dnstap.
  DnstapMessage dropped = record;
  dropped.type = 13;
  encoded.clear();
  dropped.encode(encoded);
  out.clear();
  EXPECT_FALSE(formatter.formatEvent(reinterpret_cast<const uint8_t*>(encoded.data()),
                                     static_cast<uint32_t>(encoded.size()), scratch, out));
  EXPECT_TRUE(out.empty());
  const uint8_t notDnstap[] = {0x78, 0x02};  // Dnstap type 2
  EXPECT_THROW(formatter.formatEvent(notDnstap, sizeof notDnstap, scratch, out),
               encoding::dnstap::DnstapError);
  EXPECT_TRUE(out.empty());
}

TEST(MessageFormatterTest, MetricsJsonGoesToTheStrictParserToo) {
  MetricsSnapshot snapshot;
  ForwarderMetrics forwarder;
  forwarder.host = "a/\"b\\\t";
  snapshot.forwarders.push_back(forwarder);
  ListenerMetrics listener;
  listener.is_unix = true;
  listener.path = "/run/x.sock";
  listener.receivers.resize(2);
  snapshot.listeners.push_back(listener);
  std::string json;
  formatReport(snapshot, true, json);
  jsonLines().push_back(json);
}

// Writes the collected JSON texts, one a line, for the strict parser that ctest runs next.
class JsonLinesWriter : public ::testing::Environment {
 public:
  void TearDown() override {
#ifdef VANTRELO_JSON_LINES
    std::ofstream file(VANTRELO_JSON_LINES, std::ios::binary | std::ios::trunc);
    ASSERT_TRUE(file) << VANTRELO_JSON_LINES;
    for (const std::string& line : jsonLines()) file << line << '\n';
#endif
  }
};

const auto* const kJsonLinesWriter = ::testing::AddGlobalTestEnvironment(new JsonLinesWriter);

}  // namespace
}  // namespace ns::format
