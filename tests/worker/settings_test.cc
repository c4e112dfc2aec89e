// Forwarder and listener settings strings: what each option sets, and the error a user sees
// for each kind of bad value.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "worker/forwarder_settings.h"
#include "worker/kafka_settings.h"
#include "worker/listener_settings.h"

namespace vantrelo::worker {
namespace {

// The message `parse` throws for `value`, or "(accepted)".
template <typename Error, typename Parse>
std::string parseError(Parse parse, const std::string& value) {
  try {
    parse(value);
  } catch (const Error& e) {
    return e.what();
  }
  return "(accepted)";
}

// Each value ends in an option whose value is out of range or not understood, and the error
// names that option.
template <typename Error, typename Parse>
void expectInvalidOption(Parse parse, std::initializer_list<std::string> values) {
  for (const std::string& value : values) {
    const std::string option = value.substr(value.rfind(' ') + 1);
    EXPECT_EQ(parseError<Error>(parse, value),
              "Invalid " + option.substr(0, option.find('=')) + " option")
        << value;
  }
}

TEST(ForwarderSettingsTest, TargetsAndOptions) {
  // The host is lower-cased and names the server a validating TLS client expects.
  forwarder::ForwarderSettings s = forwarder::parse("ipv4 Collector.Example 6000");
  EXPECT_EQ(std::make_tuple(s.socket.unix, s.socket.ipv6, s.socket.host, s.socket.port,
                            s.tls.server_role, s.tls.validate, s.tls.server_name, s.kafka.enabled),
            std::make_tuple(false, false, "collector.example", 6000, false, true,
                            "collector.example", false));
  EXPECT_TRUE(forwarder::parse("IPv6 ::1 65535").socket.ipv6);
  s = forwarder::parse(
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
    s = forwarder::parse(std::string("ipv4 127.0.0.1 1 ") + option);
    EXPECT_EQ(std::make_tuple(s.returnCurrent, s.returnPrevious, s.tls.client_certificate,
                              s.tls.client_certificate_auto),
              expected)
        << option;
  }
  // Kafka brokers are a list; its own options, and the TLS ones it shares.
  s = forwarder::parse("KAFKA Broker1:9092,[::1]:9093 topic=dns.events_1");
  EXPECT_EQ(std::make_tuple(s.kafka.enabled, s.kafka.brokers, s.kafka.topic, s.kafka.key,
                            s.kafka.compression, s.kafka.acks, s.batchSize, s.returnCurrent),
            std::make_tuple(true, "broker1:9092,[::1]:9093", "dns.events_1",
                            forwarder::KafkaKey::kNone, "none", "all", 100u, true));
  s = forwarder::parse(
      "kafka b:1 topic=t key=client compression=zstd acks=0 batch-size=500 recovery=drop "
      "delivery-timeout=2 tls=on tls-validate=off tls-client-certificate=manual "
      "tls-client-certificate-store=certs tls-client-certificate-thumbprint=00ff");
  EXPECT_EQ(std::make_tuple(s.kafka.key, s.kafka.compression, s.kafka.acks, s.kafka.deliveryTimeout,
                            s.batchSize, s.returnCurrent, s.tls.enabled, s.tls.validate,
                            s.tls.client_certificate, s.tls.store, s.tls.thumbprint),
            std::make_tuple(forwarder::KafkaKey::kClient, "zstd", "0", 2u, 500u, false, true, false,
                            true, "certs", "00ff"));
}

// One row per message a user can see.
TEST(ForwarderSettingsTest, Errors) {
  const std::pair<const char*, const char*> cases[] = {
      {"unix /tmp/s", "Invalid protocol"},
      {"ipv4", "Invalid host"},
      {"kafka b:1,,c:2 topic=t", "Invalid host"},
      {"kafka broker topic=t", "Invalid host"},
      {"ipv4 h 65536", "Invalid port"},
      {"kafka b:9x topic=t", "Invalid port"},
      {"ipv4 h 1 batch-size", "Invalid parameter 'batch-size'"},
      {"ipv4 h 1 tls-server-name=x", "Unknown parameter 'tls-server-name'"},
      {"kafka b:1", "Missing topic option"},
      {"kafka b:1 topic=t connect-timeout=3", "Unknown parameter 'connect-timeout'"},
      {"ipv4 h 1 topic=t", "Unknown parameter 'topic'"},
  };
  for (const auto& [value, message] : cases)
    EXPECT_EQ(parseError<forwarder::ForwarderError>(forwarder::parse, value), message) << value;
  expectInvalidOption<forwarder::ForwarderError>(
      forwarder::parse,
      {"ipv4 h 1 connect-timeout=121", "ipv4 h 1 write-timeout=-3", "ipv4 h 1 recv-buffer-size=no",
       "ipv4 h 1 batch-size=0", "ipv4 h 1 recovery=Durable", "ipv4 h 1 fstrm-mode=both",
       "ipv4 h 1 tls-client-certificate=off", "kafka b:1 topic=t topic=a/b",
       "kafka b:1 topic=t key=server", "kafka b:1 topic=t compression=brotli",
       "kafka b:1 topic=t acks=ALL", "kafka b:1 topic=t delivery-timeout=3601",
       "kafka b:1 topic=" + std::string(250, 'x')});
}

TEST(ListenerSettingsTest, SocketListeners) {
  // Type and host are case-insensitive; a path keeps its case.
  listener::ListenerSettings s = listener::parse("  IPV6 ::FFFF:1 6000 max-connections=2");
  EXPECT_EQ(
      std::make_tuple(s.etw, s.type, s.socket.unix, s.socket.ipv6, s.socket.host, s.socket.port,
                      s.socket.maxConnections),
      std::make_tuple(false, listener::ListenerType::kIpv6, false, true, "::ffff:1", 6000, 2u));
  s = listener::parse("UNIX /Run/Mixed.sock read-timeout=9");
  EXPECT_EQ(std::make_tuple(s.etw, s.type, s.socket.unix, s.socket.path, s.socket.readTimeout),
            std::make_tuple(false, listener::ListenerType::kUnix, true, "/Run/Mixed.sock", 9u));
  // A TLS listener asks for no client certificate unless told to and is named after its host.
  s = listener::parse("ipv4 0.0.0.0 6000");
  EXPECT_EQ(std::make_tuple(s.type, s.tls.server_role, s.tls.validate, s.tls.server_name),
            std::make_tuple(listener::ListenerType::kIpv4, true, false, "0.0.0.0"));
  // Every option sets its own field; a number that does not read is 0, allowed for keepalive.
  s = listener::parse(
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
  s = listener::parse("ipv4\t127.0.0.1\r\n6000  tls on read-timeout=10s TLS-SERVER-NAME=\"\"\r");
  EXPECT_EQ(std::make_tuple(s.socket.port, s.tls.enabled, s.socket.readTimeout, s.tls.server_name),
            std::make_tuple(6000, true, 10u, ""));
  EXPECT_TRUE(listener::parse("ipv4 127.0.0.1 6000 tls=   on").tls.enabled);
}

TEST(ListenerSettingsTest, EtwListeners) {
  const std::pair<const char*, std::vector<uint16_t>> cases[] = {
      {"etw", {256, 257, 258, 284, 285, 287}},
      {"ETW resolver-query=on client-query=off", {257, 258, 260, 284, 285, 289}},
      {"etw client-query=off client-response=off resolver-response=on", {261, 290}},
      {"etw client-query=off client-response=off", {}},
  };
  for (const auto& [value, ids] : cases) {
    const listener::ListenerSettings s = listener::parse(value);
    EXPECT_TRUE(s.etw);
    EXPECT_EQ(s.etwSettings.eventIds, ids) << value;
  }
  const auto fields = [](const std::string& value) {
    const etw::EtwSettings s = listener::parse(value).etwSettings;
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
      {"ipv4 h", "Invalid port"},
      {"unix", "Invalid path"},
      {"ipv4 h 1 tls-server-name=\"open", "Invalid parameter 'tls-server-name'"},
      {"unix p tls=on", "Unknown parameter 'tls'"},
  };
  for (const auto& [value, message] : cases)
    EXPECT_EQ(parseError<listener::ListenerError>(listener::parse, value), message) << value;
  expectInvalidOption<listener::ListenerError>(
      listener::parse,
      {"ipv4 h 1 read-timeout=121", "ipv4 h 1 keepalive=-1", "ipv4 h 1 max-connections=0",
       "unix p fstrm-data-frame-max-size=0", "ipv4 h 1 tls=ON", "etw resolver-response=Off",
       "etw dnstap-identity=hostname", "etw dnstap-version=Vantrelo"});
}

}  // namespace
}  // namespace vantrelo::worker
