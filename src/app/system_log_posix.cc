#include <syslog.h>

#include "app/platform.h"
#include "base/log.h"

namespace vantrelo::app::platform {

namespace {

constexpr const char* kSyslogIdent = "vantrelo";

// Indexed by vantrelo::log::Level.
const int kPriorities[] = {LOG_ERR, LOG_INFO, LOG_WARNING};

// The system log of a POSIX host. Lives for the whole process once installed; syslog(3) is
// thread-safe and vantrelo::log serialises the calls anyway.
class Syslog : public log::SystemLog {
 public:
  Syslog() { ::openlog(kSyslogIdent, LOG_PID, LOG_DAEMON); }
  ~Syslog() override { ::closelog(); }

  bool write(log::Level level, const std::string& message) override {
    ::syslog(kPriorities[static_cast<int>(level)], "%s", message.c_str());
    return true;
  }
};

}  // namespace

void initSystemLog() {
  // Constructed on the first call only, so the log is opened once.
  static Syslog backend;
  log::setSystemLog(&backend);
}

}  // namespace vantrelo::app::platform
