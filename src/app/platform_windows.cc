#include <direct.h>
#include <windows.h>
#include <winsock2.h>

#include <csignal>
#include <cstdio>

#include "app/platform.h"
#include "app/process_state.h"
#include "base/error.h"

namespace vantrelo::app::platform {

namespace {

// Room for the longest DNS name: the name is cut to its first characters after the call,
// never refused for its length.
constexpr size_t kHostNameBufferSize = 256;
constexpr WORD kWinsockVersion = 0x0202;

// The C runtime resets a handler to the default when its signal fires, so the handler installs
// itself again first. Console Ctrl-C and Ctrl-Break arrive on a thread the system creates, which
// may notify the stop condition.
void consoleSignalHandler(int signal) {
  std::signal(SIGTERM, consoleSignalHandler);
  std::signal(SIGINT, consoleSignalHandler);
  if (signal == SIGINT || signal == SIGTERM) {
    requestStop();
    return;
  }
  std::fprintf(stderr, "Unhandled signal %d received\n", signal);
}

}  // namespace

void installSignalHandlers() {
  std::signal(SIGTERM, consoleSignalHandler);
  std::signal(SIGINT, consoleSignalHandler);
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
