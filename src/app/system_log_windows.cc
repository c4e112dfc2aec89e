#include <windows.h>

#include "app/platform.h"
#include "base/error.h"
#include "base/log.h"

namespace vantrelo::app::platform {

namespace {

constexpr const char* kEventSourceName = "Morskel Vantrelo";
constexpr WORD kCategory = 0;

struct EventForm {
  WORD type;
  DWORD eventId;
};

// Indexed by vantrelo::log::Level: error, information, warning.
const EventForm kEventForms[] = {
    {EVENTLOG_ERROR_TYPE, 3},
    {EVENTLOG_INFORMATION_TYPE, 1},
    {EVENTLOG_WARNING_TYPE, 2},
};

// The Windows event log. Owns the event source handle, deregistered on destruction; the object
// lives for the whole process once installed. ReportEventA may be called from any thread.
class EventLog : public log::SystemLog {
 public:
  explicit EventLog(HANDLE source) : source_(source) {}
  ~EventLog() override { DeregisterEventSource(source_); }
  EventLog(const EventLog&) = delete;
  EventLog& operator=(const EventLog&) = delete;

  bool write(log::Level level, const std::string& message) override {
    const EventForm& form = kEventForms[static_cast<int>(level)];
    const char* strings[] = {message.c_str()};
    return ReportEventA(source_, form.type, kCategory, form.eventId, nullptr, 1, 0, strings,
                        nullptr) != 0;
  }

 private:
  HANDLE source_;
};

}  // namespace

void initSystemLog() {
  static EventLog* backend = nullptr;
  if (backend != nullptr) return;
  HANDLE source = RegisterEventSourceA(nullptr, kEventSourceName);
  if (source == nullptr) {
    log::warning("RegisterEventSource() failed: " +
                 error::systemErrorText(error::lastSystemError()));
    return;
  }
  // Deliberately never freed: worker threads may log until the process ends.
  backend = new EventLog(source);
  log::setSystemLog(backend);
}

}  // namespace vantrelo::app::platform
