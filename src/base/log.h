// The agent's log: one finished message per call, at one of three levels.
//
// Every module logs through these three functions. By default each call writes one console
// line ("[ERROR] " to standard error, "[INFO] " and "[WARN] " to standard output, flushed).
// The application can install a system log (the Windows event log, syslog elsewhere); a call
// then goes there first and falls back to the console line when the system log write fails.
// All calls are serialised by one process-wide mutex, held for the whole write, so lines of
// different threads never interleave. Thread-safe.
#pragma once

#include <string>

namespace vantrelo::log {

enum class Level { kError, kInformation, kWarning };

// A system log backend; write returns false when the entry could not be written.
class SystemLog {
 public:
  virtual ~SystemLog() = default;
  virtual bool write(Level level, const std::string& message) = 0;
};

// Installs (or, with nullptr, removes) the system log. The caller keeps ownership and keeps
// the backend alive while it is installed.
void setSystemLog(SystemLog* backend);

void error(const std::string& message);
void info(const std::string& message);
void warning(const std::string& message);

}  // namespace vantrelo::log
