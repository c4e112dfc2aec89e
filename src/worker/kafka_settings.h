// The Kafka part of a forwarder's settings: "kafka <host:port>[,<host:port>...] topic=<name> ...".
//
// Parsed on every platform, so that a configuration reads the same everywhere; only the builds
// that carry the Kafka client can run such a forwarder. Plain values, no state.
#pragma once

#include <cstdint>
#include <string>

namespace vantrelo::worker::forwarder {

struct ForwarderSettings;

// What a record's key holds: nothing (records spread over the partitions), or the client's
// address text, so that one client's records stay in order in one partition.
enum class KafkaKey { kNone, kClient };

struct KafkaSettings {
  bool enabled = false;
  std::string brokers;  // the bootstrap list as written, host:port entries separated by commas
  std::string topic;
  KafkaKey key = KafkaKey::kNone;
  std::string compression = "none";
  std::string acks = "all";
  // How long the client may try to deliver one record before it fails for good.
  uint32_t deliveryTimeout = 30;
};

// Checks and stores the broker list; throws ForwarderError "Invalid host" or "Invalid port".
void parseBrokers(const std::string& word, KafkaSettings& kafka);

enum class KafkaOption { kApplied, kRefused, kUnknown };
// Applies one option of a kafka forwarder: its own ones here, kUnknown for the rest.
KafkaOption applyKafkaOption(ForwarderSettings& settings, const std::string& name,
                             const std::string& value);
// Whether an option of the TCP forwarder has a meaning for a kafka forwarder too.
bool kafkaSharesOption(const std::string& name);
// Throws ForwarderError when the finished settings lack what a kafka forwarder needs.
void checkKafkaSettings(const KafkaSettings& kafka);

}  // namespace vantrelo::worker::forwarder
