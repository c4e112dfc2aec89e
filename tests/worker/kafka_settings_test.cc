#include "worker/kafka_settings.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "worker/forwarder_settings.h"

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

TEST(KafkaSettingsTest, BrokersAndOptions) {
  ForwarderSettings s = parse("KAFKA Broker1:9092,[::1]:9093 topic=dns.events_1");
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
  EXPECT_FALSE(parse("ipv4 h 1").kafka.enabled);
}

TEST(KafkaSettingsTest, Errors) {
  const std::pair<const char*, const char*> cases[] = {
      {"kafka", "Invalid host"},
      {"kafka b:1,,c:2 topic=t", "Invalid host"},
      {"kafka :9092 topic=t", "Invalid host"},
      {"kafka broker topic=t", "Invalid host"},
      {"kafka b:0 topic=t", "Invalid port"},
      {"kafka b:65536 topic=t", "Invalid port"},
      {"kafka b:9x topic=t", "Invalid port"},
      {"kafka b:1", "Missing topic option"},
      {"kafka b:1 topic", "Invalid parameter 'topic'"},
      {"kafka b:1 topic=t connect-timeout=3", "Unknown parameter 'connect-timeout'"},
      {"kafka b:1 topic=t fstrm-mode=bidirectional", "Unknown parameter 'fstrm-mode'"},
      {"kafka b:1 topic=t tls-validate-server-name=x",
       "Unknown parameter 'tls-validate-server-name'"},
      {"ipv4 h 1 topic=t", "Unknown parameter 'topic'"},
      {"ipv4 h 1 compression=gzip", "Unknown parameter 'compression'"},
  };
  for (const auto& [value, message] : cases) EXPECT_EQ(parseError(value), message) << value;
  for (const std::string option :
       {"topic=a/b", "topic=..", "key=server", "compression=brotli", "acks=2", "acks=ALL",
        "delivery-timeout=0", "delivery-timeout=3601", "batch-size=0", "recovery=later",
        "tls=yes"}) {
    EXPECT_EQ(parseError("kafka b:1 topic=t " + option),
              "Invalid " + option.substr(0, option.find('=')) + " option")
        << option;
  }
  EXPECT_EQ(parseError("kafka b:1 topic=" + std::string(250, 'x')), "Invalid topic option");
}

}  // namespace
}  // namespace vantrelo::worker::forwarder
