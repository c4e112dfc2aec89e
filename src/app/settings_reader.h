// Turns an AgentConfig into the typed settings records of the modules.
//
// One reader per record, called by the agent run in this order: message settings, queue
// settings, forwarders, listeners (with the etw-* keys inside), metrics settings. Each reads
// its keys in a fixed order and throws vantrelo::error::UnknownError (or the module's own error for
// listener and forwarder values) at the first bad value, with the value as written. Stateless
// functions; the records belong to the caller.
#pragma once

#include <vector>

#include "app/config.h"
#include "etw/etw_settings.h"
#include "event/event_queue.h"
#include "format/message_settings.h"
#include "format/metrics_settings.h"
#include "metrics/metrics_endpoint.h"
#include "worker/forwarder_settings.h"
#include "worker/listener_settings.h"

namespace vantrelo::app::config {

void readMessageSettings(const AgentConfig& config, format::MessageSettings& settings);
void readQueueSettings(const AgentConfig& config, event::queue::QueueOptions& options);
// With `toStdout` every forwarder writes to standard output instead of its target.
void readForwarderSettings(const AgentConfig& config, bool toStdout,
                           std::vector<worker::forwarder::ForwarderSettings>& forwarders);
// Reads the etw-* keys into each ETW listener's settings and logs the Windows release whose
// event layouts it uses.
void readListenerSettings(const AgentConfig& config,
                          std::vector<worker::listener::ListenerSettings>& listeners);
// The etw-* keys; detects the running Windows release first (throws etw::EtwError elsewhere).
void readEtwSettings(const AgentConfig& config, etw::EtwSettings& settings);
// The etw-* keys on top of an already detected release index.
void readEtwSettings(const AgentConfig& config, uint32_t detectedVersion,
                     etw::EtwSettings& settings);
void readMetricsSettings(const AgentConfig& config, format::MetricsSettings& settings);
// `metrics-listen <ipv4|ipv6> <address> <port>`: the endpoint's socket; absent, no endpoint.
void readEndpointSettings(const AgentConfig& config, metrics::EndpointSettings& settings);

}  // namespace vantrelo::app::config
