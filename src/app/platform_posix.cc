#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <system_error>
#include <thread>

#include "app/platform.h"
#include "app/process_state.h"
#include "base/error.h"

namespace vantrelo::app::platform {

namespace {

// Room for the longest DNS name: the name is cut to its first characters after the call,
// never refused for its length.
constexpr size_t kHostNameBufferSize = 256;

sigset_t stopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

// A plain signal handler may not touch a condition variable, so the stop signals are blocked
// and one thread takes them synchronously with sigwait and turns each into a stop request.
void signalThread(sigset_t set) {
  for (;;) {
    int signal = 0;
    if (sigwait(&set, &signal) != 0) continue;
    requestStop();
  }
}

}  // namespace

void installSignalHandlers() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    const sigset_t set = stopSignals();
    // Threads inherit the mask of the thread that creates them; the agent creates every worker
    // after this point, so no other thread receives the two signals asynchronously.
    const int result = pthread_sigmask(SIG_BLOCK, &set, nullptr);
    if (result != 0) throw std::system_error(result, std::generic_category(), "pthread_sigmask");
    std::thread(signalThread, set).detach();
  });
}

bool changeDirectory(const std::string& directory) { return ::chdir(directory.c_str()) == 0; }

void startSockets() {}

std::string hostName() {
  char buffer[kHostNameBufferSize] = {};
  if (::gethostname(buffer, sizeof buffer - 1) != 0) {
    throw error::UnknownError("gethostname() failed: " + error::cErrorText(error::lastCError()));
  }
  std::string name(buffer);
  if (name.size() > kHostNameMaxLength) name.resize(kHostNameMaxLength);
  return name;
}

uint32_t processId() { return static_cast<uint32_t>(::getpid()); }

}  // namespace vantrelo::app::platform
