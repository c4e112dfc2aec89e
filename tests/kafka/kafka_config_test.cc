#include "kafka/kafka_config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "net_test_support.h"
#include "worker/forwarder_settings.h"

namespace vantrelo::kafka {
namespace {

// The client accepts the TLS material taken from a certificate store: it builds its TLS context
// (and checks that key and certificate match) when it is created.
TEST(KafkaConfigTest, TlsFromCertificateStore) {
  const std::string dir = net::testing::makeTempDirectory("kafka-tls");
  const std::string make =
      "cd " + dir +
      " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
      "-subj '/CN=Kafka Test CA' -addext basicConstraints=critical,CA:true -keyout ca.key "
      "-out ca.pem && openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
      "-subj '/CN=agent' -keyout agent.key -out agent.csr && openssl x509 -req -in agent.csr "
      "-CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -out agent.pem && rm ca.key agent.csr";
  ASSERT_EQ(std::system(("(" + make + ") >/dev/null 2>&1").c_str()), 0);
  const std::string base = "kafka b:9093 topic=t tls=on tls-client-certificate-store=" + dir + " ";
  const std::pair<std::string, std::string> cases[] = {
      {"tls-client-certificate=manual tls-client-certificate-subject=CN=agent", ""},
      {"tls-client-certificate=auto", ""},
      {"tls-validate=off", ""},
      {"tls-client-certificate=manual tls-client-certificate-subject=CN=nobody", "not found"},
  };
  for (const auto& [options, error] : cases) {
    std::string failure;
    try {
      ConfPtr conf = makeClientConfig(worker::forwarder::parse(base + options));
      char text[512];
      rd_kafka_t* client = rd_kafka_new(RD_KAFKA_PRODUCER, conf.get(), text, sizeof(text));
      if (client == nullptr) {
        failure = text;
      } else {
        conf.release();  // the client's now
        rd_kafka_destroy(client);
      }
    } catch (const std::exception& e) {
      failure = e.what();
    }
    if (error.empty()) {
      EXPECT_EQ(failure, "") << options;
    } else {
      EXPECT_NE(failure.find(error), std::string::npos) << options << ": " << failure;
    }
  }
}

}  // namespace
}  // namespace vantrelo::kafka
