#include "worker/forwarder_settings.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "worker/kafka_settings.h"

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

TEST(ForwarderSettingsTest, TargetsAndOptions) {
  // The host is lower-cased and names the server a validating TLS client expects.
  ForwarderSettings s = parse("ipv4 Collector.Example 6000");
  EXPECT_EQ(std::make_tuple(s.socket.unix, s.socket.ipv6, s.socket.host, s.socket.port,
                            s.tls.server_role, s.tls.validate, s.tls.server_name, s.kafka.enabled),
            std::make_tuple(false, false, "collector.example", 6000, false, true,
                            "collector.example", false));
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
  // Kafka brokers are a list; its own options, and the TLS ones it shares.
  s = parse("KAFKA Broker1:9092,[::1]:9093 topic=dns.events_1");
  EXPECT_EQ(std::make_tuple(s.kafka.enabled, s.kafka.brokers, s.kafka.topic, s.kafka.key,
                            s.kafka.compression, s.kafka.acks, s.batchSize, s.returnCurrent),
            std::make_tuple(true, "broker1:9092,[::1]:9093", "dns.events_1", KafkaKey::kNone,
                            "none", "all", 100u, true));
  s = parse(
      "kafka b:1 topic=t key=client compression=zstd acks=0 batch-size=500 recovery=drop "
      "delivery-timeout=2 tls=on tls-validate=off tls-client-certificate=manual "
      "tls-client-certificate-store=certs tls-client-certificate-thumbprint=00ff");
  EXPECT_EQ(std::make_tuple(s.kafka.key, s.kafka.compression, s.kafka.acks, s.kafka.deliveryTimeout,
                            s.batchSize, s.returnCurrent, s.tls.enabled, s.tls.validate,
                            s.tls.client_certificate, s.tls.store, s.tls.thumbprint),
            std::make_tuple(KafkaKey::kClient, "zstd", "0", 2u, 500u, false, true, false, true,
                            "certs", "00ff"));
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
      {"ipv4 h 1 tls-server-name=x", "Unknown parameter 'tls-server-name'"},
      {"kafka", "Invalid host"},
      {"kafka b:1,,c:2 topic=t", "Invalid host"},
      {"kafka :9092 topic=t", "Invalid host"},
      {"kafka broker topic=t", "Invalid host"},
      {"kafka b:0 topic=t", "Invalid port"},
      {"kafka b:9x topic=t", "Invalid port"},
      {"kafka b:1", "Missing topic option"},
      {"kafka b:1 topic", "Invalid parameter 'topic'"},
      {"kafka b:1 topic=t connect-timeout=3", "Unknown parameter 'connect-timeout'"},
      {"kafka b:1 topic=t tls-validate-server-name=x",
       "Unknown parameter 'tls-validate-server-name'"},
      {"ipv4 h 1 topic=t", "Unknown parameter 'topic'"},
  };
  for (const auto& [value, message] : cases) EXPECT_EQ(parseError(value), message) << value;
  // A value out of range or not understood names its option.
  for (const std::string value :
       {"ipv4 h 1 connect-timeout=0", "ipv4 h 1 connect-timeout=121", "ipv4 h 1 write-timeout=-3",
        "ipv4 h 1 recv-buffer-size=no", "ipv4 h 1 batch-size=0", "ipv4 h 1 recovery=Durable",
        "ipv4 h 1 fstrm-mode=both", "ipv4 h 1 tls-client-certificate=off"}) {
    const std::string option = value.substr(value.rfind(' ') + 1);
    EXPECT_EQ(parseError(value), "Invalid " + option.substr(0, option.find('=')) + " option")
        << value;
  }
  for (const std::string& option : std::initializer_list<std::string>{
           "topic=a/b", "topic=..", "key=server", "compression=brotli", "acks=ALL",
           "delivery-timeout=3601", "recovery=later",
           std::string("topic=") + std::string(250, 'x')}) {
    EXPECT_EQ(parseError("kafka b:1 topic=t " + option),
              "Invalid " + option.substr(0, option.find('=')) + " option")
        << option.substr(0, 30);
  }
}

}  // namespace
}  // namespace vantrelo::worker::forwarder
