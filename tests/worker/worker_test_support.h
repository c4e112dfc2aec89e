// Helpers shared by the worker tests: dnstap events, raw Frame Streams bytes, polling.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "event/event_queue.h"

namespace ns::worker::testing {

// One encoded client-query event whose query name is "e<number>.example.com", so that every
// event of a test can be told apart in any output format.
std::string clientQueryEvent(uint32_t number);
// The event number in a formatted line (the first "e<digits>.example"), or -1.
int64_t eventNumberIn(const std::string& line);

// Raw Frame Streams bytes, for senders that misbehave on purpose.
std::string controlFrame(uint32_t type, bool withContentType);
std::string dataFrame(const std::string& payload);

// Every event now in the queue, oldest first.
std::vector<std::string> drain(event::queue::EventQueue& queue);

// Polls `condition` every 10 ms until it holds or `timeout` passes; returns its last value.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Threads of this process now, or -1 where the system does not say.
int threadCount();

// What a Unix-domain peer in this process is reported as: its user, group and process ids
// where the system passes peer credentials, zeros where it does not.
struct PeerIdentity {
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t pid = 0;
};
PeerIdentity ownPeerIdentity();

}  // namespace ns::worker::testing
