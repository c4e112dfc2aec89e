#include "format/syslog.h"

#include "encoding/time_format.h"
#include "format/text_writer.h"

namespace vantrelo::format {

namespace {

// Pieces of the two header layouts around the variable fields.
struct HeaderLayout {
  std::string_view after_priority;  // between "<PRI" and the time stamp
  std::string_view before_pid;      // between the host name and the process id
  std::string_view after_pid;       // the end of the header
};

const HeaderLayout kRfc5424Layout = {">1 ", " vantrelo ", " - - "};
const HeaderLayout kRfc3164Layout = {">", " vantrelo[", "]: "};

}  // namespace

void append_rfc5424_time(std::string& out, uint64_t time_sec, uint32_t time_nsec) {
  encoding::time::formatRfc3339Time(out, static_cast<int64_t>(time_sec), time_nsec);
}

void Rfc5424Clock::append(std::string& out, uint64_t time_sec, uint32_t time_nsec) {
  if (text_.empty() || time_sec != second_) {
    text_.clear();
    append_rfc5424_time(text_, time_sec, 0);
    // The text of a zero fraction ends in "0Z"; what comes before it is the second's.
    text_.resize(text_.size() - 2);
    second_ = time_sec;
  }
  out.append(text_);
  appendDecimal(out, time_nsec / 1000);
  out.push_back('Z');
}

void append_rfc3164_time(std::string& out, uint64_t time_sec) {
  encoding::time::formatRfc3164Time(out, static_cast<int64_t>(time_sec));
}

void append_syslog_header(std::string& out, const MessageSettings& settings, uint64_t time_sec,
                          uint32_t time_nsec) {
  append_syslog_header(out, settings, nullptr, time_sec, time_nsec);
}

void append_syslog_header(std::string& out, const MessageSettings& settings, Rfc5424Clock* clock,
                          uint64_t time_sec, uint32_t time_nsec) {
  const bool rfc3164 = settings.syslog_rfc3164();
  const HeaderLayout& layout = rfc3164 ? kRfc3164Layout : kRfc5424Layout;
  out.push_back('<');
  appendSignedDecimal(out, settings.syslog_priority);
  out.append(layout.after_priority);
  if (rfc3164) {
    append_rfc3164_time(out, time_sec);
  } else if (clock != nullptr) {
    clock->append(out, time_sec, time_nsec);
  } else {
    append_rfc5424_time(out, time_sec, time_nsec);
  }
  out.push_back(' ');
  out.append(settings.hostname);
  out.append(layout.before_pid);
  appendDecimal(out, settings.process_id);
  out.append(layout.after_pid);
}

}  // namespace vantrelo::format
