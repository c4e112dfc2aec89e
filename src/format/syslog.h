// Syslog headers in front of query-log lines, and the two time stamp forms they carry.
//
// Free functions that append to a caller's buffer; they read the settings and keep no state, so
// any number of forwarder threads may call them at once. A formatter that writes many time stamps
// keeps its own Rfc5424Clock, which remembers the text of the last second.
#pragma once

#include <cstdint>
#include <string>

#include "format/message_settings.h"

namespace vantrelo::format {

// "yyyy-mm-ddThh:mm:ss.uZ" in UTC. The microseconds (time_nsec / 1000, truncated) are written
// without leading zeros, so 5 microseconds read ".5Z": collectors of this agent's output parse
// exactly this form.
void append_rfc5424_time(std::string& out, uint64_t time_sec, uint32_t time_nsec);

// append_rfc5424_time for a stream of events that mostly share their second with the one
// before: the text up to the fraction is laid out once per second and then copied. Owned by one
// formatter; not thread-safe.
class Rfc5424Clock {
 public:
  void append(std::string& out, uint64_t time_sec, uint32_t time_nsec);

 private:
  uint64_t second_ = 0;
  std::string text_;  // "yyyy-mm-ddThh:mm:ss." of second_; empty until one is laid out
};

// "Mmm dd hh:mm:ss" in UTC, the day padded with a space; always 15 characters.
void append_rfc3164_time(std::string& out, uint64_t time_sec);

// "<PRI>Mmm dd hh:mm:ss host vantrelo[pid]: " with the RFC 3164 style, otherwise
// "<PRI>1 yyyy-mm-ddThh:mm:ss.uZ host vantrelo pid - - ". PRI is the configured priority as it
// stands, with no facility or severity arithmetic.
void append_syslog_header(std::string& out, const MessageSettings& settings, uint64_t time_sec,
                          uint32_t time_nsec);
// The same, with the RFC 5424 time stamp written through `clock` (null: directly).
void append_syslog_header(std::string& out, const MessageSettings& settings, Rfc5424Clock* clock,
                          uint64_t time_sec, uint32_t time_nsec);

}  // namespace vantrelo::format
