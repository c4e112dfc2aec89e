// The operating-system services the agent needs, behind one small interface.
//
// platform_posix.cc and platform_windows.cc implement the process services (signals, current
// directory, socket library, host name, process id); system_log_*.cc the system log backend of
// vantrelo::log; service_*.cc the service control. All functions are called from the agent's own
// thread; the signal, console-control and service-control callbacks they install only call
// requestStop() and report service status.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vantrelo::app::platform {

// Makes the outside world's stop requests call requestStop(): SIGINT and SIGTERM on POSIX; on
// Windows Ctrl-C, Ctrl-Break and the closing of the console window. Idempotent.
void installSignalHandlers();

// Makes `directory` the current directory; false on failure (callers ignore it).
bool changeDirectory(const std::string& directory);

// Starts the socket library (Winsock 2.2 on Windows; nothing elsewhere). The result is not
// checked: a socket call made without it fails with its own message.
void startSockets();

// Syslog headers and JSON lines carry at most this many characters of the machine's host name.
constexpr size_t kHostNameMaxLength = 15;

// The machine's host name, cut to kHostNameMaxLength characters; throws
// vantrelo::error::UnknownError "gethostname() failed: " + the socket library's error text.
std::string hostName();

uint32_t processId();

// Routes the log to the system log (the event log on Windows, syslog elsewhere). Registers the
// backend once however often it is called; a registration failure is logged as a warning on the
// console and the log stays on the console.
void initSystemLog();

// What the agent run tells the service manager about its progress. Called on the run's thread;
// a run that fails before it is running calls neither.
class RunObserver {
 public:
  virtual ~RunObserver() = default;
  // The configuration is read, the queue loaded and every worker started.
  virtual void running() = 0;
  // The run has left its wait and is stopping its workers and saving the queue.
  virtual void stopping() = 0;
};

// One agent run reporting to `observer`; returns false when the run failed.
using ServiceRun = bool (*)(RunObserver& observer);

// Runs `run` with nobody to report its progress to: a foreground run, whose service manager, if
// any, learns that it runs from the process itself and that it failed from its exit code.
inline bool runInForeground(ServiceRun run) {
  struct NoStatus : RunObserver {
    void running() override {}
    void stopping() override {}
  } status;
  return run(status);
}

// Runs `run` as a service and returns whether it succeeded once it has stopped. Where there is
// no service manager to talk to (a console start, or a system without one) `run` is called in
// the foreground. Throws vantrelo::error::UnknownError when the service manager cannot be
// reached for another reason.
bool runService(ServiceRun run);

}  // namespace vantrelo::app::platform
