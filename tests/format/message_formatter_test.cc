#include "format/message_formatter.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "wire_builder.h"

namespace vantrelo::format {

#ifndef VANTRELO_JSON_LINES
#define VANTRELO_JSON_LINES ""  // no strict parser in this build: the lines go nowhere
#endif

std::ostream& testing::jsonLines() {
  static std::ofstream file(VANTRELO_JSON_LINES, std::ios::binary | std::ios::trunc);
  return file;
}

namespace {

using encoding::dnstap::DnstapMessage;
using testing::makeRecord;
using testing::Wire;

const std::string kRfc5424 = "<134>1 2024-03-05T07:09:02.5Z dnsbox vantrelo 4242 - - ";
const std::string kRfc3164 = "<134>Mar  5 07:09:02 dnsbox vantrelo[4242]: ";
const std::string kJsonStart =
    R"({"timestamp":"2024-03-05T07:09:02.5Z","host":"dnsbox","schema":1,"type":)";
constexpr uint16_t kA = 1, kNs = 2, kCname = 5, kTxt = 16, kAaaa = 28, kOpt = 41, kIn = 1;

MessageSettings settingsFor(MessageFormat format, bool extended = false, uint8_t style = 0) {
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

std::string queryWire(const std::string& qname = "example.com", uint16_t id = 1,
                      uint16_t flags = 0x0100, uint16_t type = kA, uint16_t klass = kIn) {
  return Wire().header(id, flags, 1, 0, 0, 0).name(qname).u16(type).u16(klass).bytes();
}

const std::string kClientResponse =
    Wire().header(0x1234, 0x8180, 1, 1, 0, 0).name("host.example.com").u16(kA).u16(kIn).bytes() +
    Wire().u16(0xC00C).rr(kA, kIn, 300, std::string("\xC0\x00\x02\x50", 4)).bytes();

struct GoldenCase {
  DnstapMessage record;
  std::string standard;  // body of the standard query-log line, behind the header
  std::string extended;  // body of the extended query-log line
  std::string json;      // the JSON object behind its common start
};

std::vector<GoldenCase> goldenCases() {
  const std::string truncatedError =
      "Read DNS message failed: Read uint16_t failed: Offset 4 + 2 is out of bounds for data of "
      "5 bytes";
  const std::string truncatedLine = "errors: " + truncatedError +
                                    ": client 192.0.2.7#53124: server 192.0.2.53: packet \\# 5 "
                                    "1234818000\n";
  // QR, TC, AD and NXDOMAIN; AA clear. The OPT record is left out of the additional section.
  Wire full;
  full.header(0xBEEF, 0x8223, 1, 2, 1, 2).name("a/b\"c\\d.example.com").u16(kA).u16(kIn);
  full.u16(0xC00C).rr(kCname, kIn, 60, Wire().name("target.example.net").bytes());
  full.name("target.example.net").rr(kA, kIn, 30, std::string("\x0A\x01\x02\x03", 4));
  full.name("example.net").rr(kNs, kIn, 3600, Wire().name("ns1.example.net").bytes());
  full.name("ns1.example.net").rr(kAaaa, kIn, 3600, testing::ipBytes("2001:db8::53"));
  full.name("").rr(kOpt, 1232, 0, "");
  return {
      {makeRecord(5, 1, 1, "192.0.2.7", "192.0.2.53", 53124, queryWire("host.example.com", 0x1234)),
       "queries: client 192.0.2.7#53124: query: host.example.com. IN A + (192.0.2.53)\n",
       "queries: client 192.0.2.7#53124 %4660: query: host.example.com. [example.com.] IN A + "
       "(192.0.2.53 34b)\n",
       R"("client-query","data":{"client":"192.0.2.7","server":"192.0.2.53","port":53124,)"
       R"("proto":"UDP","size":34,"txid":4660,"flags":{"rd":true},"qname":"host.example.com.",)"
       R"("qdomain":"example.com.","qclass":"IN","qtype":"A"}})"},
      {makeRecord(6, 1, 2, "192.0.2.7", "192.0.2.53", 53124, kClientResponse),
       "queries: client 192.0.2.7#53124: response: host.example.com. IN A +T (192.0.2.53) "
       "NOERROR; host.example.com. 300 IN A 192.0.2.80\n",
       "queries: client 192.0.2.7#53124 %4660: response: host.example.com. [example.com.] IN A +T "
       "(192.0.2.53 50b) NOERROR; host.example.com. [example.com.] 300 IN A 192.0.2.80\n",
       R"("client-response","data":{"client":"192.0.2.7","server":"192.0.2.53","port":53124,)"
       R"("proto":"TCP","size":50,"txid":4660,"flags":{"rd":true,"ra":true,"aa":false,"tc":false},)"
       R"("qname":"host.example.com.","qdomain":"example.com.","qclass":"IN","qtype":"A",)"
       R"("rcode":"NOERROR","answers":[{"name":"host.example.com.","domain":"example.com.",)"
       R"("ttl":300,"rrclass":"IN","rrtype":"A","data":"192.0.2.80"}],"authority":[],)"
       R"("additional":[]}})"},
      {makeRecord(3, 2, 3, "2001:db8::1", "2001:db8::53", 5353,
                  queryWire("www.Example.CO.uk", 7, 0, kAaaa)),
       "queries: resolver 2001:db8::1#5353: query: www.Example.CO.uk. IN AAAA -T (2001:db8::53)\n",
       "queries: resolver 2001:db8::1#5353 %7: query: www.Example.CO.uk. [example.co.uk.] IN AAAA "
       "-T (2001:db8::53 35b)\n",
       R"("resolver-query","data":{"client":"2001:db8::1","server":"2001:db8::53","port":5353,)"
       R"("proto":"DOT","size":35,"txid":7,"flags":{"rd":false},"qname":"www.Example.CO.uk.",)"
       R"("qdomain":"example.co.uk.","qclass":"IN","qtype":"AAAA"}})"},
      // IPv4-mapped addresses under family INET are shown as IPv4.
      {makeRecord(7, 1, 7, "::ffff:198.51.100.4", "::ffff:198.51.100.1", 1000,
                  queryWire("version.bind", 1, 0x0100, kTxt, 3)),
       "queries: forwarder 198.51.100.4#1000: query: version.bind. CH TXT + (198.51.100.1)\n",
       "queries: forwarder 198.51.100.4#1000 %1: query: version.bind. [bind.] CH TXT + "
       "(198.51.100.1 30b)\n",
       R"("forwarder-query","data":{"client":"198.51.100.4","server":"198.51.100.1","port":1000,)"
       R"("proto":"DOQ","size":30,"txid":1,"flags":{"rd":true},"qname":"version.bind.",)"
       R"("qdomain":"bind.","qclass":"CH","qtype":"TXT"}})"},
      {makeRecord(9, 0, 0, "", "", 0, queryWire("example.org", 2, 0x0100, 65280, 2)),
       "queries: stub #0: query: example.org. CLASS2 TYPE65280 + (<unknown>)\n",
       "queries: stub #0 %2: query: example.org. [example.org.] CLASS2 TYPE65280 + "
       "(<unknown> 29b)\n",
       R"("stub-query","data":{"client":"","server":"","port":0,"proto":"PROTO0","size":29,)"
       R"("txid":2,"flags":{"rd":true},"qname":"example.org.","qdomain":"example.org.",)"
       R"("qclass":"CLASS2","qtype":"TYPE65280"}})"},
      {makeRecord(6, 1, 1, "192.0.2.7", "192.0.2.53", 53124,
                  std::string("\x12\x34\x81\x80\x00", 5)),
       truncatedLine, truncatedLine,
       R"("error","data":{"client":"192.0.2.7","server":"192.0.2.53","port":53124,"size":5,)"
       R"("packet":"1234818000","text":")" +
           truncatedError + R"("}})"},
      {makeRecord(8, 1, 2, "10.0.0.1", "10.0.0.2", 4444, full.bytes()),
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
       R"("data":"2001:db8::53"}]}})"},
  };
}

std::string formatRecord(const MessageSettings& settings, const DnstapMessage& record) {
  MessageView view;
  EXPECT_TRUE(make_view(record, view));
  std::string out;
  EXPECT_TRUE(MessageFormatter(settings).format(view, out));
  if (settings.format == MessageFormat::kJson) testing::jsonLines() << out;
  return out;
}

// Encodes `record` and formats it through the forwarder's entry point.
bool formatEncoded(MessageFormatter& formatter, DnstapMessage record, DnstapMessage& scratch,
                   std::string& out) {
  std::string encoded;
  record.encode(encoded);
  return formatter.formatEvent(reinterpret_cast<const uint8_t*>(encoded.data()),
                               static_cast<uint32_t>(encoded.size()), scratch, out);
}

TEST(MessageFormatterTest, GoldenQueryLogLinesAndJsonObjects) {
  const std::vector<GoldenCase> cases = goldenCases();
  std::string expected;
  for (const GoldenCase& c : cases) {
    SCOPED_TRACE(c.standard);
    for (uint8_t style : {0, 1}) {
      const std::string& header = style == 0 ? kRfc5424 : kRfc3164;
      EXPECT_EQ(formatRecord(settingsFor(MessageFormat::kQuerylog, false, style), c.record),
                header + c.standard);
      EXPECT_EQ(formatRecord(settingsFor(MessageFormat::kQuerylog, true, style), c.record),
                header + c.extended);
    }
    const std::string json = kJsonStart + c.json + "\n";
    EXPECT_EQ(formatRecord(settingsFor(MessageFormat::kJson), c.record), json);
    expected += json;
  }
  // One formatter reused for a batch, the big message first and the small ones after it, so
  // left-over records would show.
  const MessageSettings settings = settingsFor(MessageFormat::kJson);
  MessageFormatter formatter(settings);
  DnstapMessage scratch;
  std::string batch;
  for (auto it = cases.rbegin(); it != cases.rend(); ++it) {
    std::string line;
    ASSERT_TRUE(formatEncoded(formatter, it->record, scratch, line));
    batch.insert(0, line);
  }
  EXPECT_EQ(batch, expected);
}

TEST(MessageFormatterTest, SuffixSettingsAndNamesWithoutTrailingDot) {
  MessageSettings settings = settingsFor(MessageFormat::kQuerylog, true);
  settings.suffixes.add_configured_suffix("corp.example", true);
  const DnstapMessage corp =
      makeRecord(5, 1, 1, "192.0.2.7", "192.0.2.53", 1, queryWire("x.y.Corp.Example", 9, 0));
  const std::string line = "queries: client 192.0.2.7#1 %9: query: x.y.Corp.Example. [";
  EXPECT_EQ(formatRecord(settings, corp),
            kRfc5424 + line + "corp.example.] IN A - (192.0.2.53 34b)\n");
  settings.suffix_config = false;
  EXPECT_EQ(formatRecord(settings, corp), kRfc5424 + line + "example.] IN A - (192.0.2.53 34b)\n");

  settings.suffix_enabled = settings.suffix_builtin = settings.suffix_config = false;
  settings.trailing_dot = false;
  const DnstapMessage record = goldenCases()[1].record;  // the client response
  EXPECT_EQ(formatRecord(settings, record),
            kRfc5424 +
                "queries: client 192.0.2.7#53124 %4660: response: host.example.com [] IN A +T "
                "(192.0.2.53 50b) NOERROR; host.example.com [] 300 IN A 192.0.2.80\n");
  settings.format = MessageFormat::kJson;
  EXPECT_EQ(formatRecord(settings, record),
            kJsonStart +
                R"("client-response","data":{"client":"192.0.2.7","server":"192.0.2.53",)"
                R"("port":53124,"proto":"TCP","size":50,"txid":4660,"flags":{"rd":true,)"
                R"("ra":true,"aa":false,"tc":false},"qname":"host.example.com","qclass":"IN",)"
                R"("qtype":"A","rcode":"NOERROR","answers":[{"name":"host.example.com",)"
                R"("ttl":300,"rrclass":"IN","rrtype":"A","data":"192.0.2.80"}],"authority":[],)"
                R"("additional":[]}})"
                "\n");
}

TEST(MessageFormatterTest, MakeViewDropsAndFailures) {
  // Types outside 1..12, and records without the message of their direction: the other
  // direction's message does not count.
  for (const auto& [type, wire] : std::vector<std::pair<uint64_t, std::string>>{
           {0, queryWire()}, {13, queryWire()}, {14, queryWire()}, {5, ""}, {6, ""}}) {
    DnstapMessage record = makeRecord(type, 1, 1, "192.0.2.7", "", 1, wire);
    ((type & 1) != 0 ? record.response_message : record.query_message) = queryWire();
    MessageView view;
    EXPECT_FALSE(make_view(record, view)) << type;
    EXPECT_FALSE(check_record(record)) << type;
  }

  const auto valid = [](uint64_t type, uint64_t sec = testing::kSec,
                        uint32_t nsec = testing::kNsec) {
    return makeRecord(type, 1, 1, "192.0.2.7", "192.0.2.53", 1, queryWire(), sec, nsec);
  };
  DnstapMessage badQueryAddress = valid(5), badBothAddresses = valid(5);
  badQueryAddress.query_address = badBothAddresses.query_address = "12345";
  badBothAddresses.response_address = "123";  // the response address is checked first
  const std::vector<std::pair<DnstapMessage, std::string>> failures = {
      {valid(5, 0, 0), "Expected message query_time_sec not to be 0 but got 0"},
      {valid(6, testing::kSec, 4294967295u),
       "Expected message response_time_nsec to be less than 1000000000 but got 4294967295"},
      {badQueryAddress, "Expected message query_address to be 0, 4 or 16 bytes but got 5"},
      {badBothAddresses, "Expected message response_address to be 0, 4 or 16 bytes but got 3"},
  };
  // The dnstap output checks records without building the view, with the same verdicts.
  const MessageSettings json = settingsFor(MessageFormat::kJson);
  const MessageSettings dnstap = settingsFor(MessageFormat::kDnstap);
  MessageFormatter jsonFormatter(json), dnstapFormatter(dnstap);
  for (const auto& [record, expected] : failures) {
    for (bool viaView : {true, false}) {
      try {
        MessageView view;
        viaView ? make_view(record, view) : check_record(record);
        ADD_FAILURE() << "no error for " << expected;
      } catch (const net::dns::DnsError& e) {
        EXPECT_STREQ(e.what(), expected.c_str());
      }
    }
    // Through the forwarder's entry point the same error leaves the buffer untouched.
    for (MessageFormatter* formatter : {&jsonFormatter, &dnstapFormatter}) {
      std::string out = "before";
      DnstapMessage scratch;
      EXPECT_THROW(formatEncoded(*formatter, record, scratch, out), net::dns::DnsError);
      EXPECT_EQ(out, "before");
    }
  }
}

}  // namespace
}  // namespace vantrelo::format
