#include "kafka/kafka_config.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <string>

#include "net/certificate_store.h"

namespace vantrelo::kafka {

namespace {

using worker::forwarder::ForwarderSettings;

// The client holds at most this many batches; a small batch size still gets room for a burst.
constexpr uint32_t kBatchesInFlight = 10;
constexpr uint32_t kMinInFlight = 1000;
constexpr uint32_t kMaxInFlight = 1000000;
// How often the client reports broker states, from which the forwarder learns whether any
// broker is up and how many connections were made.
constexpr char kStatisticsIntervalMs[] = "1000";
// A record waits this long for others to share its request.
constexpr char kLingerMs[] = "5";
constexpr int kErrorTextSize = 512;

void set(rd_kafka_conf_t* conf, const char* name, const std::string& value) {
  char error[kErrorTextSize];
  if (rd_kafka_conf_set(conf, name, value.c_str(), error, sizeof(error)) != RD_KAFKA_CONF_OK) {
    throw KafkaError(std::string("Kafka setting ") + name + "=" + value + " refused: " + error);
  }
}

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

std::string toPem(X509* certificate) {
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(bio.get(), certificate);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

std::string toPem(EVP_PKEY* key) {
  std::unique_ptr<BIO, BioDeleter> bio(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

void setTls(rd_kafka_conf_t* conf, const net::tls::TlsSettings& tls) {
  set(conf, "security.protocol", "ssl");
  set(conf, "enable.ssl.certificate.verification", tls.validate ? "true" : "false");
  // Each broker's certificate must name the host the client connects to.
  set(conf, "ssl.endpoint.identification.algorithm", tls.validate ? "https" : "none");
  const bool needStore = tls.client_certificate || (tls.validate && !tls.store.empty());
  if (!needStore) return;
  const net::tls::CertificateStore store(tls.store);
  if (tls.validate && !tls.store.empty()) {
    // The store's CA certificates replace the system's as the brokers' trust anchors: a private
    // cluster's CA is what a configured store is for.
    std::string authorities;
    for (const net::tls::StoreEntry& entry : store.entries()) {
      if (X509_check_ca(entry.certificate.get()) != 0) {
        authorities += toPem(entry.certificate.get());
      }
    }
    if (!authorities.empty()) set(conf, "ssl.ca.pem", authorities);
  }
  if (!tls.client_certificate) return;
  const net::tls::StoreEntry* entry = tls.client_certificate_auto
                                          ? store.firstClientCertificate()
                                          : &store.find(tls.subject, tls.thumbprint);
  if (entry == nullptr) throw KafkaError("No client certificate found in store " + tls.store);
  // The client presents this one certificate; brokers must know its issuer.
  set(conf, "ssl.certificate.pem", toPem(entry->certificate.get()));
  set(conf, "ssl.key.pem", toPem(entry->key.get()));
}

}  // namespace

uint32_t inFlightLimit(uint32_t batchSize) {
  const uint64_t wanted = static_cast<uint64_t>(batchSize) * kBatchesInFlight;
  return static_cast<uint32_t>(std::clamp<uint64_t>(wanted, kMinInFlight, kMaxInFlight));
}

ConfPtr makeClientConfig(const ForwarderSettings& settings) {
  const worker::forwarder::KafkaSettings& kafka = settings.kafka;
  ConfPtr conf(rd_kafka_conf_new());
  rd_kafka_conf_t* c = conf.get();
  set(c, "bootstrap.servers", kafka.brokers);
  set(c, "compression.codec", kafka.compression);
  set(c, "acks", kafka.acks);
  // With every replica acknowledging, the idempotent producer keeps the records of a partition in
  // order across retries without cutting the requests in flight to one.
  if (kafka.acks == "all") {
    set(c, "enable.idempotence", "true");
  } else {
    set(c, "max.in.flight.requests.per.connection", "1");
  }
  const uint32_t limit = inFlightLimit(settings.batchSize);
  set(c, "batch.num.messages", std::to_string(std::min(settings.batchSize, limit)));
  set(c, "queue.buffering.max.messages", std::to_string(limit));
  set(c, "linger.ms", kLingerMs);
  set(c, "message.timeout.ms", std::to_string(kafka.deliveryTimeout * 1000ULL));
  set(c, "statistics.interval.ms", kStatisticsIntervalMs);
  if (settings.tls.enabled) setTls(c, settings.tls);
  return conf;
}

}  // namespace vantrelo::kafka
