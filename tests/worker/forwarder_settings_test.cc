#include "worker/forwarder_settings.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace vantrelo::worker::forwarder {
namespace {

std::string parseError(const std::string& value) {
  try {
    parse(value);
  } catch (const ForwarderError& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(ForwarderSettingsTest, TargetAndOptions) {
  // The host is lower-cased and names the server a validating TLS client expects.
  ForwarderSettings s = parse("ipv4 Collector.Example 6000");
  EXPECT_EQ(
      std::make_tuple(s.socket.unix, s.socket.ipv6, s.socket.host, s.socket.port, s.tls.server_role,
                      s.tls.validate, s.tls.server_name),
      std::make_tuple(false, false, "collector.example", 6000, false, true, "collector.example"));
  EXPECT_TRUE(parse("IPv6 ::1 65535").socket.ipv6);
  s = parse(
      "ipv4 192.0.2.1 6000 connect-timeout=120 read-timeout=1 write-timeout=9 "
      "send-buffer-size=1 recv-buffer-size=2 batch-size=1 fstrm-mode=unidirectional "
      "fstrm-control-frame-max-size=100 tls=on tls-validate=off "
      "tls-validate-server-name=\"collector one\" tls-client-certificate-store=MY "
      "tls-client-certificate-subject=agent tls-client-certificate-thumbprint=00ff");
  EXPECT_EQ(std::make_tuple(s.socket.connectTimeout, s.socket.readTimeout, s.socket.writeTimeout,
                            s.socket.sendBufferSize, s.socket.recvBufferSize, s.batchSize,
                            s.fstrm.bidirectional, s.fstrm.controlFrameMaxSize),
            std::make_tuple(120u, 1u, 9u, 1u, 2u, 1u, false, 100u));
  EXPECT_EQ(std::make_tuple(s.tls.enabled, s.tls.validate, s.tls.server_name, s.tls.store,
                            s.tls.subject, s.tls.thumbprint),
            std::make_tuple(true, false, "collector one", "MY", "agent", "00ff"));
  // Recovery modes and client certificates: {returnCurrent, returnPrevious, present, automatic}.
  const std::pair<const char*, std::tuple<bool, bool, bool, bool>> modes[] = {
      {"", {true, false, false, false}},
      {"recovery=drop", {false, false, false, false}},
      {"recovery=durable", {true, true, false, false}},
      {"tls-client-certificate=manual", {true, false, true, false}},
      {"tls-client-certificate=auto", {true, false, true, true}},
  };
  for (const auto& [option, expected] : modes) {
    s = parse(std::string("ipv4 127.0.0.1 1 ") + option);
    EXPECT_EQ(std::make_tuple(s.returnCurrent, s.returnPrevious, s.tls.client_certificate,
                              s.tls.client_certificate_auto),
              expected)
        << option;
  }
}

TEST(ForwarderSettingsTest, Errors) {
  const std::pair<const char*, const char*> cases[] = {
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
  };
  for (const auto& [value, message] : cases) EXPECT_EQ(parseError(value), message) << value;
  // A value out of range or not understood names its option.
  for (const std::string value :
       {"ipv4 h 1 connect-timeout=0", "ipv4 h 1 connect-timeout=121", "ipv4 h 1 read-timeout=200",
        "ipv4 h 1 write-timeout=-3", "ipv4 h 1 send-buffer-size=0", "ipv4 h 1 recv-buffer-size=no",
        "ipv4 h 1 batch-size=0", "ipv4 h 1 recovery=Durable", "ipv4 h 1 fstrm-mode=both",
        "ipv4 h 1 fstrm-control-frame-max-size=0", "ipv4 h 1 tls=yes", "ipv4 h 1 tls-validate=1",
        "ipv4 h 1 tls-client-certificate=off"}) {
    const std::string option = value.substr(value.rfind(' ') + 1);
    EXPECT_EQ(parseError(value), "Invalid " + option.substr(0, option.find('=')) + " option")
        << value;
  }
}

}  // namespace
}  // namespace vantrelo::worker::forwarder
