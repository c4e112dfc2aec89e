#include "worker/listener_settings.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

namespace vantrelo::worker::listener {
namespace {

std::string parseError(const std::string& value) {
  try {
    parse(value);
  } catch (const ListenerError& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(ListenerSettingsTest, SocketListeners) {
  // Type and host are case-insensitive; a path keeps its case.
  ListenerSettings s = parse("  IPV6 ::FFFF:1 6000 max-connections=2");
  EXPECT_EQ(std::make_tuple(s.etw, s.type, s.socket.unix, s.socket.ipv6, s.socket.host,
                            s.socket.port, s.socket.maxConnections),
            std::make_tuple(false, ListenerType::kIpv6, false, true, "::ffff:1", 6000, 2u));
  s = parse("UNIX /Run/Mixed.sock read-timeout=9");
  EXPECT_EQ(std::make_tuple(s.etw, s.type, s.socket.unix, s.socket.path, s.socket.readTimeout),
            std::make_tuple(false, ListenerType::kUnix, true, "/Run/Mixed.sock", 9u));
  // A TLS listener asks for no client certificate unless told to and is named after its host.
  s = parse("ipv4 0.0.0.0 6000");
  EXPECT_EQ(std::make_tuple(s.type, s.tls.server_role, s.tls.validate, s.tls.server_name),
            std::make_tuple(ListenerType::kIpv4, true, false, "0.0.0.0"));
  // Every option sets its own field; a number that does not read is 0, allowed for keepalive.
  s = parse(
      "ipv4 127.0.0.1 6000 KeepAlive=0 read-timeout=120 write-timeout=1 send-buffer-size=4096 "
      "recv-buffer-size=8192 listen-backlog=7 fstrm-control-frame-max-size=512 "
      "fstrm-data-frame-max-size=1024 tls=on tls-validate=on tls-server-name=\"My Server\" "
      "tls-certificate-store=MY tls-certificate-subject=\"CN=dns, O=Example\" "
      "tls-certificate-thumbprint=ab12 keepalive=abc");
  EXPECT_EQ(
      std::make_tuple(s.socket.keepalive, s.socket.readTimeout, s.socket.writeTimeout,
                      s.socket.sendBufferSize, s.socket.recvBufferSize, s.socket.listenBacklog,
                      s.fstrm.controlFrameMaxSize, s.fstrm.dataFrameMaxSize),
      std::make_tuple(0u, 120u, 1u, 4096u, 8192u, 7u, 512u, 1024u));
  EXPECT_EQ(std::make_tuple(s.tls.enabled, s.tls.validate, s.tls.server_name, s.tls.store,
                            s.tls.subject, s.tls.thumbprint),
            std::make_tuple(true, true, "My Server", "MY", "CN=dns, O=Example", "ab12"));
  // One separator character is skipped whatever it is, then white space; numbers read as atoi.
  s = parse("ipv4\t127.0.0.1\r\n6000  tls on read-timeout=10s TLS-SERVER-NAME=\"\"\r");
  EXPECT_EQ(std::make_tuple(s.socket.port, s.tls.enabled, s.socket.readTimeout, s.tls.server_name),
            std::make_tuple(6000, true, 10u, ""));
  EXPECT_TRUE(parse("ipv4 127.0.0.1 6000 tls=   on").tls.enabled);
}

TEST(ListenerSettingsTest, EtwListeners) {
  const std::pair<const char*, std::vector<uint16_t>> cases[] = {
      {"etw", {256, 257, 258, 284, 285, 287}},
      {"ETW resolver-query=on client-query=off", {257, 258, 260, 284, 285, 289}},
      {"etw client-query=off client-response=off resolver-response=on", {261, 290}},
      {"etw client-query=off client-response=off", {}},
  };
  for (const auto& [value, ids] : cases) {
    const ListenerSettings s = parse(value);
    EXPECT_TRUE(s.etw);
    EXPECT_EQ(s.etwSettings.eventIds, ids) << value;
  }
  const auto fields = [](const std::string& value) {
    const etw::EtwSettings s = parse(value).etwSettings;
    return std::make_tuple(s.identityFromEvent, s.hasVersion, s.version, s.hasExtra, s.extra);
  };
  EXPECT_EQ(fields("etw"), std::make_tuple(true, false, "", false, ""));
  EXPECT_EQ(fields("etw dnstap-identity=omit dnstap-version=vantrelo dnstap-extra=\"site 7\""),
            std::make_tuple(false, true, "Vantrelo 2.4.4", true, "site 7"));
  EXPECT_EQ(fields("etw dnstap-version=vantrelo dnstap-version=omit"),
            std::make_tuple(true, false, "", false, ""));
}

// "tcp h 1", "ipv4 h 0" and "etw keepalive=5" are settings_reader_test.cc's.
TEST(ListenerSettingsTest, Errors) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "Invalid protocol"},
      {"ipv4", "Invalid host"},
      {"ipv4 h", "Invalid port"},
      {"unix", "Invalid path"},
      {"ipv4 h 1 tls", "Invalid parameter 'tls'"},
      {"ipv4 h 1 tls-server-name=\"open", "Invalid parameter 'tls-server-name'"},
      {"ipv4 h 1 connect-timeout=3", "Unknown parameter 'connect-timeout'"},
      {"etw keepalive", "Invalid parameter 'keepalive'"},
      {"unix p tls=on", "Unknown parameter 'tls'"},
  };
  for (const auto& [value, message] : cases) EXPECT_EQ(parseError(value), message) << value;
  // A value out of range or not understood names its option.
  for (const std::string value :
       {"ipv4 h 1 read-timeout=121", "ipv4 h 1 read-timeout=0", "ipv4 h 1 keepalive=-1",
        "ipv4 h 1 max-connections=0", "unix p fstrm-data-frame-max-size=0", "ipv4 h 1 tls=ON",
        "etw client-query=1", "etw resolver-response=Off", "etw dnstap-identity=hostname",
        "etw dnstap-version=Vantrelo"}) {
    const std::string option = value.substr(value.rfind(' ') + 1);
    EXPECT_EQ(parseError(value), "Invalid " + option.substr(0, option.find('=')) + " option")
        << value;
  }
}

}  // namespace
}  // namespace vantrelo::worker::listener
