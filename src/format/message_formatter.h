// Turns dnstap records into the messages a forwarder sends: query-log lines behind a syslog
// header, JSON objects, or dnstap data frames.
//
// One MessageFormatter per forwarder. It borrows the agent's MessageSettings (read-only, shared
// by all forwarders, and outliving them) and owns the DnsMessage it parses every wire message
// into and the MessageView of the current record; both are reused, so once they and the caller's
// output buffer have grown, formatting allocates nothing. Not thread-safe: each forwarder
// thread has its own formatter.
#pragma once

#include <cstdint>
#include <string>

#include "dns/dns_message.h"
#include "encoding/dnstap_message.h"
#include "format/message_settings.h"
#include "format/message_view.h"
#include "format/syslog.h"

namespace vantrelo::format {

// A dnstap data frame on a Frame Streams connection: a 4-byte big-endian length, then the
// event's bytes unchanged.
inline constexpr size_t kDnstapFrameLengthSize = 4;
void appendDnstapFrame(std::string& out, const uint8_t* data, uint32_t length);

class MessageFormatter {
 public:
  explicit MessageFormatter(const MessageSettings& settings);
  // The formatter keeps a reference: the settings must outlive it.
  explicit MessageFormatter(MessageSettings&&) = delete;
  MessageFormatter(const MessageFormatter&) = delete;
  MessageFormatter& operator=(const MessageFormatter&) = delete;

  // Appends one query-log line or JSON object for `view` to `out`. Returns false, leaving `out`
  // as it was, when the settings ask for neither text format or the view's type has no name
  // (13 and above). A wire message that does not parse is not a failure: the message then shows
  // the parser's error text and the raw bytes.
  bool format(const MessageView& view, std::string& out);

  // The forwarder's entry point for one encoded event: decodes it into `record` (reused by the
  // caller), builds the view and appends the formatted message, or the event as one data frame
  // when the format is dnstap. Returns false for a record that is not worth a message (see
  // make_view) or a type without a name. Throws encoding::dnstap::DnstapError (or the
  // DataError of a truncated varint) when the bytes are not dnstap and net::dns::DnsError when
  // the record's times or addresses are invalid; `out` is unchanged then.
  bool formatEvent(const uint8_t* data, uint32_t size, encoding::dnstap::DnstapMessage& record,
                   std::string& out);

  // The message parsed by the last call of format().
  const net::dns::DnsMessage& lastMessage() const { return message_; }

 private:
  void appendQueryLog(const MessageView& view, std::string& out) const;
  void appendQueryLogError(const MessageView& view, std::string& out) const;
  void appendJson(const MessageView& view, std::string& out) const;
  void appendJsonError(const MessageView& view, std::string& out) const;
  void appendJsonRecords(const net::dns::DnsSection& section, std::string& out) const;
  // The domain part of a lower-case name, as the suffix settings choose it.
  void appendDomain(std::string& out, const std::string& lower_name) const;
  void appendJsonDomain(std::string& out, const std::string& lower_name) const;

  const MessageSettings& settings_;
  net::dns::DnsMessage message_;
  MessageView view_;
  // A cache of the last second's time stamp text: it changes nothing the formatter writes.
  mutable Rfc5424Clock clock_;
};

}  // namespace vantrelo::format
