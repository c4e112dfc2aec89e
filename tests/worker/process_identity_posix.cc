#include <unistd.h>

#include <filesystem>
#include <iterator>

#include "worker_test_support.h"

namespace vantrelo::worker::testing {

int threadCount() {
  std::error_code error;
  std::filesystem::directory_iterator tasks("/proc/self/task", error);
  return error ? -1 : static_cast<int>(std::distance(tasks, std::filesystem::directory_iterator()));
}

PeerIdentity ownPeerIdentity() {
  return PeerIdentity{static_cast<uint32_t>(getuid()), static_cast<uint32_t>(getgid()),
                      static_cast<uint32_t>(getpid())};
}

}  // namespace vantrelo::worker::testing
