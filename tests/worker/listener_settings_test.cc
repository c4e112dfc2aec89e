#include "worker/listener_settings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ns::worker::listener {
namespace {

std::string parseError(const std::string& value) {
  try {
    parse(value);
  } catch (const ListenerError& e) {
    return e.what();
  }
  return "(accepted)";
}

TEST(ListenerSettingsTest, TcpListener) {
  const ListenerSettings s = parse("ipv4 0.0.0.0 6000");
  EXPECT_FALSE(s.etw);
  EXPECT_EQ(s.type, ListenerType::kIpv4);
  EXPECT_FALSE(s.socket.unix);
  EXPECT_FALSE(s.socket.ipv6);
  EXPECT_EQ(s.socket.host, "0.0.0.0");
  EXPECT_EQ(s.socket.port, 6000);
  // A TLS listener asks for no client certificate unless told to and is named after its host.
  EXPECT_TRUE(s.tls.server_role);
  EXPECT_FALSE(s.tls.enabled);
  EXPECT_FALSE(s.tls.validate);
  EXPECT_EQ(s.tls.server_name, "0.0.0.0");
}

TEST(ListenerSettingsTest, TypeAndHostAreCaseInsensitive) {
  const ListenerSettings s = parse("  IPV6 ::FFFF:1 6000 max-connections=2");
  EXPECT_EQ(s.type, ListenerType::kIpv6);
  EXPECT_TRUE(s.socket.ipv6);
  EXPECT_EQ(s.socket.host, "::ffff:1");
  EXPECT_EQ(s.socket.maxConnections, 2u);
}

TEST(ListenerSettingsTest, OptionsSetTheirFields) {
  const ListenerSettings s = parse(
      "ipv4 127.0.0.1 6000 KeepAlive=0 read-timeout=120 write-timeout=1 send-buffer-size=4096 "
      "recv-buffer-size=8192 listen-backlog=7 fstrm-control-frame-max-size=512 "
      "fstrm-data-frame-max-size=1024 tls=on tls-validate=on tls-server-name=\"My Server\" "
      "tls-certificate-store=MY tls-certificate-subject=\"CN=dns, O=Example\" "
      "tls-certificate-thumbprint=ab12 keepalive=abc");
  EXPECT_EQ(s.socket.keepalive, 0u);  // "abc" reads as 0, which is allowed
  EXPECT_EQ(s.socket.readTimeout, 120u);
  EXPECT_EQ(s.socket.writeTimeout, 1u);
  EXPECT_EQ(s.socket.sendBufferSize, 4096u);
  EXPECT_EQ(s.socket.recvBufferSize, 8192u);
  EXPECT_EQ(s.socket.listenBacklog, 7u);
  EXPECT_EQ(s.fstrm.controlFrameMaxSize, 512u);
  EXPECT_EQ(s.fstrm.dataFrameMaxSize, 1024u);
  EXPECT_TRUE(s.tls.enabled);
  EXPECT_TRUE(s.tls.validate);
  EXPECT_EQ(s.tls.server_name, "My Server");
  EXPECT_EQ(s.tls.store, "MY");
  EXPECT_EQ(s.tls.subject, "CN=dns, O=Example");
  EXPECT_EQ(s.tls.thumbprint, "ab12");
}

TEST(ListenerSettingsTest, UnixListener) {
  const ListenerSettings s =
      parse("unix /run/vantrelo/dnstap.sock read-timeout=9 max-connections=4");
  EXPECT_EQ(s.type, ListenerType::kUnix);
  EXPECT_FALSE(s.etw);
  EXPECT_TRUE(s.socket.unix);
  EXPECT_EQ(s.socket.path, "/run/vantrelo/dnstap.sock");
  EXPECT_EQ(s.socket.readTimeout, 9u);
  EXPECT_EQ(s.socket.maxConnections, 4u);
  EXPECT_EQ(parse("UNIX /Run/Mixed.sock").socket.path, "/Run/Mixed.sock");
}

TEST(ListenerSettingsTest, EtwListenerEventIds) {
  struct Case {
    const char* value;
    std::vector<uint16_t> ids;
  };
  const Case cases[] = {
      {"etw", {256, 257, 258}},
      {"ETW resolver-query=on client-query=off", {257, 258, 260}},
      {"etw client-query=off client-response=off resolver-response=on", {261}},
      {"etw client-query=off client-response=off", {}},
      {"etw resolver-query=on resolver-response=on", {256, 257, 258, 260, 261}},
  };
  for (const Case& c : cases) {
    const ListenerSettings s = parse(c.value);
    EXPECT_TRUE(s.etw);
    EXPECT_EQ(s.etwSettings.eventIds, c.ids) << c.value;
  }
}

TEST(ListenerSettingsTest, EtwDnstapFields) {
  ListenerSettings s = parse("etw");
  EXPECT_TRUE(s.etwSettings.identityFromEvent);
  EXPECT_FALSE(s.etwSettings.hasVersion);
  EXPECT_FALSE(s.etwSettings.hasExtra);
  s = parse("etw dnstap-identity=omit dnstap-version=vantrelo dnstap-extra=\"site 7\"");
  EXPECT_FALSE(s.etwSettings.identityFromEvent);
  EXPECT_TRUE(s.etwSettings.hasVersion);
  EXPECT_EQ(s.etwSettings.version, "Vantrelo 2.4.4");
  EXPECT_TRUE(s.etwSettings.hasExtra);
  EXPECT_EQ(s.etwSettings.extra, "site 7");
  s = parse("etw dnstap-version=vantrelo dnstap-version=omit");
  EXPECT_FALSE(s.etwSettings.hasVersion);
  EXPECT_EQ(s.etwSettings.version, "");
}

TEST(ListenerSettingsTest, Errors) {
  struct Case {
    const char* value;
    const char* message;
  };
  const Case cases[] = {
      {"", "Invalid protocol"},
      {"tcp 127.0.0.1 6000", "Invalid protocol"},
      {"ipv4", "Invalid host"},
      {"ipv4 127.0.0.1", "Invalid port"},
      {"ipv4 127.0.0.1 0", "Invalid port"},
      {"ipv4 127.0.0.1 70000", "Invalid port"},
      {"ipv4 127.0.0.1 -1", "Invalid port"},
      {"unix", "Invalid path"},
      {"ipv4 127.0.0.1 6000 tls", "Invalid parameter 'tls'"},
      {"ipv4 127.0.0.1 6000 tls=", "Invalid parameter 'tls'"},
      {"ipv4 127.0.0.1 6000 tls-server-name=\"open", "Invalid parameter 'tls-server-name'"},
      {"ipv4 127.0.0.1 6000 connect-timeout=3", "Unknown parameter 'connect-timeout'"},
      {"ipv4 127.0.0.1 6000 fstrm-mode=bidirectional", "Unknown parameter 'fstrm-mode'"},
      {"ipv4 127.0.0.1 6000 client-query=on", "Unknown parameter 'client-query'"},
      {"etw keepalive=5", "Unknown parameter 'keepalive'"},
      {"etw keepalive", "Invalid parameter 'keepalive'"},
      {"unix /tmp/s tls=on", "Unknown parameter 'tls'"},
      {"unix /tmp/s write-timeout=5", "Unknown parameter 'write-timeout'"},
      {"ipv4 127.0.0.1 6000 read-timeout=121", "Invalid read-timeout option"},
      {"ipv4 127.0.0.1 6000 read-timeout=0", "Invalid read-timeout option"},
      {"ipv4 127.0.0.1 6000 write-timeout=x", "Invalid write-timeout option"},
      {"ipv4 127.0.0.1 6000 keepalive=-1", "Invalid keepalive option"},
      {"ipv4 127.0.0.1 6000 send-buffer-size=0", "Invalid send-buffer-size option"},
      {"ipv4 127.0.0.1 6000 recv-buffer-size=0", "Invalid recv-buffer-size option"},
      {"ipv4 127.0.0.1 6000 listen-backlog=0", "Invalid listen-backlog option"},
      {"ipv4 127.0.0.1 6000 max-connections=0", "Invalid max-connections option"},
      {"unix /tmp/s fstrm-data-frame-max-size=0", "Invalid fstrm-data-frame-max-size option"},
      {"ipv4 127.0.0.1 6000 fstrm-control-frame-max-size=-5",
       "Invalid fstrm-control-frame-max-size option"},
      {"ipv4 127.0.0.1 6000 tls=ON", "Invalid tls option"},
      {"ipv4 127.0.0.1 6000 tls-validate=yes", "Invalid tls-validate option"},
      {"etw client-query=1", "Invalid client-query option"},
      {"etw client-response=", "Invalid parameter 'client-response'"},
      {"etw resolver-query=true", "Invalid resolver-query option"},
      {"etw resolver-response=Off", "Invalid resolver-response option"},
      {"etw dnstap-identity=hostname", "Invalid dnstap-identity option"},
      {"etw dnstap-version=Vantrelo", "Invalid dnstap-version option"},
  };
  for (const Case& c : cases) EXPECT_EQ(parseError(c.value), c.message) << c.value;
}

TEST(ListenerSettingsTest, SeparatorAndQuoting) {
  // One separator character is skipped whatever it is, then white space.
  EXPECT_TRUE(parse("ipv4 127.0.0.1 6000 tls on").tls.enabled);
  EXPECT_TRUE(parse("ipv4 127.0.0.1 6000 tls=   on").tls.enabled);
  EXPECT_EQ(parse("ipv4 127.0.0.1 6000 tls-server-name=\"\"").tls.server_name, "");
  EXPECT_EQ(parse("ipv4 127.0.0.1 6000 TLS-SERVER-NAME=Mixed").tls.server_name, "Mixed");
  EXPECT_EQ(parse("ipv4\t127.0.0.1\r\n6000  read-timeout=7\r").socket.readTimeout, 7u);
}

}  // namespace
}  // namespace ns::worker::listener
