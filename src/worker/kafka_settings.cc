#include "worker/kafka_settings.h"

#include <cstdint>

#include "worker/forwarder_settings.h"
#include "worker/value_syntax.h"

namespace vantrelo::worker::forwarder {

namespace {

constexpr int32_t kMaxPort = 65535;
constexpr int32_t kMaxDeliveryTimeout = 3600;
// Kafka's own limit on topic names.
constexpr size_t kMaxTopicLength = 249;

const char* const kCompressions[] = {"none", "gzip", "snappy", "lz4", "zstd"};
// "all" waits for every in-sync replica, "1" for the leader, "0" for nothing.
const char* const kAcks[] = {"all", "1", "0"};

struct KeyName {
  const char* name;
  KafkaKey key;
};
const KeyName kKeys[] = {{"none", KafkaKey::kNone}, {"client", KafkaKey::kClient}};

// The TCP forwarder's options that mean the same for Kafka: events per round, what happens to a
// record that fails, and TLS to the brokers. The socket and Frame Streams options do not apply;
// the brokers' names are checked against their certificates, so no other name can be given.
const char* const kSharedOptions[] = {
    "batch-size",
    "recovery",
    "tls",
    "tls-validate",
    "tls-client-certificate",
    "tls-client-certificate-store",
    "tls-client-certificate-subject",
    "tls-client-certificate-thumbprint",
};

template <size_t N>
bool setWord(std::string& field, const std::string& value, const char* const (&words)[N]) {
  for (const char* word : words) {
    if (value == word) {
      field = word;
      return true;
    }
  }
  return false;
}

bool validTopic(const std::string& topic) {
  if (topic.empty() || topic.size() > kMaxTopicLength || topic == "." || topic == "..") {
    return false;
  }
  for (char c : topic) {
    const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
    if (!allowed) return false;
  }
  return true;
}

struct KafkaRule {
  const char* name;
  bool (*apply)(KafkaSettings& kafka, const std::string& value);
};

const KafkaRule kKafkaOptions[] = {
    {"topic",
     [](KafkaSettings& k, const std::string& v) {
       if (!validTopic(v)) return false;
       k.topic = v;
       return true;
     }},
    {"key",
     [](KafkaSettings& k, const std::string& v) {
       for (const KeyName& entry : kKeys) {
         if (v == entry.name) {
           k.key = entry.key;
           return true;
         }
       }
       return false;
     }},
    {"compression", [](KafkaSettings& k,
                       const std::string& v) { return setWord(k.compression, v, kCompressions); }},
    {"acks", [](KafkaSettings& k, const std::string& v) { return setWord(k.acks, v, kAcks); }},
    {"delivery-timeout",
     [](KafkaSettings& k, const std::string& v) {
       return setInRange(k.deliveryTimeout, v, 1, kMaxDeliveryTimeout);
     }},
};

}  // namespace

void parseBrokers(const std::string& word, KafkaSettings& kafka) {
  if (word.empty()) throw ForwarderError("Invalid host");
  size_t start = 0;
  while (start <= word.size()) {
    size_t end = word.find(',', start);
    if (end == std::string::npos) end = word.size();
    const std::string entry = word.substr(start, end - start);
    // The port follows the last colon, so a bracketed IPv6 address keeps its own colons.
    const size_t colon = entry.rfind(':');
    if (colon == std::string::npos || colon == 0) throw ForwarderError("Invalid host");
    const std::string port = entry.substr(colon + 1);
    const int32_t number = parseDecimal32(port);
    if (port.find_first_not_of("0123456789") != std::string::npos || number < 1 ||
        number > kMaxPort) {
      throw ForwarderError("Invalid port");
    }
    start = end + 1;
  }
  kafka.enabled = true;
  kafka.brokers = toLower(word);
}

KafkaOption applyKafkaOption(ForwarderSettings& settings, const std::string& name,
                             const std::string& value) {
  for (const KafkaRule& rule : kKafkaOptions) {
    if (name == rule.name) {
      return rule.apply(settings.kafka, value) ? KafkaOption::kApplied : KafkaOption::kRefused;
    }
  }
  return KafkaOption::kUnknown;
}

bool kafkaSharesOption(const std::string& name) {
  for (const char* shared : kSharedOptions) {
    if (name == shared) return true;
  }
  return false;
}

void checkKafkaSettings(const KafkaSettings& kafka) {
  if (kafka.topic.empty()) throw ForwarderError("Missing topic option");
}

}  // namespace vantrelo::worker::forwarder
