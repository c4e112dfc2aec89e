// Settings of one `forwarder` configuration line and their parser.
#pragma once

#include <cstdint>
#include <string>

#include "base/error.h"
#include "net/net_settings.h"
#include "worker/kafka_settings.h"

namespace vantrelo::worker::forwarder {

NS_DEFINE_ERROR(ForwarderError);

struct ForwarderSettings {
  uint32_t batchSize = 100;
  bool returnCurrent = true;    // recovery: return the batch being written on a failure
  bool returnPrevious = false;  // recovery: return the last batch written too ("durable")
  net::SocketSettings socket;
  net::tls::TlsSettings tls;
  net::fstrm::FstrmSettings fstrm;
  bool toStdout = false;  // set for every forwarder by run-stdout; no option sets it
  KafkaSettings kafka;    // enabled for the `kafka` type, which writes to Kafka brokers
};

// Parses one forwarder value: "<type> <host> <port> name=value...", or for the `kafka` type
// "kafka <host:port>[,<host:port>...] name=value...". Throws ForwarderError.
ForwarderSettings parse(const std::string& value);

}  // namespace vantrelo::worker::forwarder
