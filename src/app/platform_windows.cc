#include <direct.h>
#include <windows.h>
#include <winsock2.h>

#include <mutex>

#include "app/platform.h"
#include "app/process_state.h"
#include "base/error.h"

namespace vantrelo::app::platform {

namespace {

// Room for the longest DNS name: the name is cut to its first characters after the call,
// never refused for its length.
constexpr size_t kHostNameBufferSize = 256;
constexpr WORD kWinsockVersion = 0x0202;

// Runs on a thread the system creates for each console event. Ctrl-C and Ctrl-Break only ask
// for the stop. Closing the window ends the process as soon as this handler returns, so it
// never returns: the main thread stops the workers, saves the queue and ends the process, or
// the system ends it when its own time for closing runs out. Log-off and shut-down reach only
// services, whose stop comes from the service control manager; they are left to the default.
BOOL WINAPI consoleControlHandler(DWORD event) {
  switch (event) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
      requestStop();
      return TRUE;
    case CTRL_CLOSE_EVENT:
      requestStop();
      for (;;) Sleep(INFINITE);
    default:
      return FALSE;
  }
}

}  // namespace

// Windows raises no SIGTERM and delivers Ctrl-C to console handlers, so the console control
// handler takes every stop request that reaches a console program.
void installSignalHandlers() {
  static std::once_flag installed;
  std::call_once(installed, [] { SetConsoleCtrlHandler(consoleControlHandler, TRUE); });
}

bool changeDirectory(const std::string& directory) { return ::_chdir(directory.c_str()) == 0; }

void startSockets() {
  WSADATA data;
  WSAStartup(kWinsockVersion, &data);
}

std::string hostName() {
  char buffer[kHostNameBufferSize] = {};
  if (::gethostname(buffer, sizeof buffer - 1) != 0) {
    throw error::UnknownError("gethostname() failed: " +
                              error::systemErrorText(static_cast<uint32_t>(WSAGetLastError())));
  }
  std::string name(buffer);
  if (name.size() > kHostNameMaxLength) name.resize(kHostNameMaxLength);
  return name;
}

uint32_t processId() { return static_cast<uint32_t>(GetCurrentProcessId()); }

}  // namespace vantrelo::app::platform
