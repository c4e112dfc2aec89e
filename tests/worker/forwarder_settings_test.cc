#include "worker/forwarder_settings.h"

#include <gtest/gtest.h>

#include <string>

#include "worker/value_syntax.h"

namespace ns::worker::forwarder {
namespace {

std::string parseError(const std::string& value) {
  try {
    parse(value);
  } catch (const ForwarderError& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(ForwarderSettingsTest, Target) {
  const ForwarderSettings s = parse("ipv4 Collector.Example 6000");
  EXPECT_FALSE(s.socket.unix);
  EXPECT_FALSE(s.socket.ipv6);
  EXPECT_EQ(s.socket.host, "collector.example");
  EXPECT_EQ(s.socket.port, 6000);
  EXPECT_FALSE(s.tls.server_role);
  EXPECT_TRUE(s.tls.validate);
  EXPECT_EQ(s.tls.server_name, "collector.example");
  EXPECT_TRUE(parse("IPv6 ::1 65535").socket.ipv6);
}

TEST(ForwarderSettingsTest, Options) {
  const ForwarderSettings s = parse(
      "ipv4 192.0.2.1 6000 connect-timeout=120 read-timeout=1 write-timeout=9 "
      "send-buffer-size=1 recv-buffer-size=2 batch-size=1 recovery=durable "
      "fstrm-mode=unidirectional fstrm-control-frame-max-size=100 tls=on tls-validate=off "
      "tls-validate-server-name=\"collector one\" tls-client-certificate=auto "
      "tls-client-certificate-store=MY tls-client-certificate-subject=agent "
      "tls-client-certificate-thumbprint=00ff");
  EXPECT_EQ(s.socket.connectTimeout, 120u);
  EXPECT_EQ(s.socket.readTimeout, 1u);
  EXPECT_EQ(s.socket.writeTimeout, 9u);
  EXPECT_EQ(s.socket.sendBufferSize, 1u);
  EXPECT_EQ(s.socket.recvBufferSize, 2u);
  EXPECT_EQ(s.batchSize, 1u);
  EXPECT_TRUE(s.returnCurrent);
  EXPECT_TRUE(s.returnPrevious);
  EXPECT_FALSE(s.fstrm.bidirectional);
  EXPECT_EQ(s.fstrm.controlFrameMaxSize, 100u);
  EXPECT_TRUE(s.tls.enabled);
  EXPECT_FALSE(s.tls.validate);
  EXPECT_EQ(s.tls.server_name, "collector one");
  EXPECT_TRUE(s.tls.client_certificate);
  EXPECT_TRUE(s.tls.client_certificate_auto);
  EXPECT_EQ(s.tls.store, "MY");
  EXPECT_EQ(s.tls.subject, "agent");
  EXPECT_EQ(s.tls.thumbprint, "00ff");
}

TEST(ForwarderSettingsTest, RecoveryAndCertificateModes) {
  struct Case {
    const char* option;
    bool returnCurrent, returnPrevious, certificate, automatic;
  };
  const Case cases[] = {
      {"recovery=drop", false, false, false, false},
      {"recovery=best-effort", true, false, false, false},
      {"recovery=durable", true, true, false, false},
      {"tls-client-certificate=manual", true, false, true, false},
      {"tls-client-certificate=auto", true, false, true, true},
  };
  for (const Case& c : cases) {
    const ForwarderSettings s = parse(std::string("ipv4 127.0.0.1 1 ") + c.option);
    EXPECT_EQ(s.returnCurrent, c.returnCurrent) << c.option;
    EXPECT_EQ(s.returnPrevious, c.returnPrevious) << c.option;
    EXPECT_EQ(s.tls.client_certificate, c.certificate) << c.option;
    EXPECT_EQ(s.tls.client_certificate_auto, c.automatic) << c.option;
  }
}

TEST(ForwarderSettingsTest, Errors) {
  struct Case {
    const char* value;
    const char* message;
  };
  const Case cases[] = {
      {"etw", "Invalid protocol"},
      {"unix /tmp/s", "Invalid protocol"},
      {"ipv4", "Invalid host"},
      {"ipv4 h 65536", "Invalid port"},
      {"ipv4 h port", "Invalid port"},
      {"ipv4 h 1 batch-size", "Invalid parameter 'batch-size'"},
      {"ipv4 h 1 keepalive=5", "Unknown parameter 'keepalive'"},
      {"ipv4 h 1 max-connections=5", "Unknown parameter 'max-connections'"},
      {"ipv4 h 1 fstrm-data-frame-max-size=5", "Unknown parameter 'fstrm-data-frame-max-size'"},
      {"ipv4 h 1 tls-server-name=x", "Unknown parameter 'tls-server-name'"},
      {"ipv4 h 1 connect-timeout=0", "Invalid connect-timeout option"},
      {"ipv4 h 1 connect-timeout=121", "Invalid connect-timeout option"},
      {"ipv4 h 1 read-timeout=200", "Invalid read-timeout option"},
      {"ipv4 h 1 write-timeout=-3", "Invalid write-timeout option"},
      {"ipv4 h 1 send-buffer-size=0", "Invalid send-buffer-size option"},
      {"ipv4 h 1 recv-buffer-size=no", "Invalid recv-buffer-size option"},
      {"ipv4 h 1 batch-size=0", "Invalid batch-size option"},
      {"ipv4 h 1 recovery=Durable", "Invalid recovery option"},
      {"ipv4 h 1 fstrm-mode=both", "Invalid fstrm-mode option"},
      {"ipv4 h 1 fstrm-control-frame-max-size=0", "Invalid fstrm-control-frame-max-size option"},
      {"ipv4 h 1 tls=yes", "Invalid tls option"},
      {"ipv4 h 1 tls-validate=1", "Invalid tls-validate option"},
      {"ipv4 h 1 tls-client-certificate=off", "Invalid tls-client-certificate option"},
  };
  for (const Case& c : cases) EXPECT_EQ(parseError(c.value), c.message) << c.value;
}

// The number reading every option and key relies on: the C library's atoi and atoll.
TEST(ValueSyntaxTest, DecimalReadingFollowsTheCLibrary) {
  struct Case {
    const char* text;
    int32_t value32;
    int64_t value64;
  };
  const Case cases[] = {
      {"10s", 10, 10},
      {"  +42", 42, 42},
      {"-5", -5, -5},
      {"abc", 0, 0},
      {"", 0, 0},
      {"- 5", 0, 0},
      {"0x37", 0, 0},
      {"4294967297", 1, 4294967297},
      {"9223372036854775808", -1, INT64_MAX},
      {"-9223372036854775809", 0, INT64_MIN},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(parseDecimal32(c.text), c.value32) << c.text;
    EXPECT_EQ(parseDecimal64(c.text), c.value64) << c.text;
  }
}

}  // namespace
}  // namespace ns::worker::forwarder
