#include <dirent.h>
#include <unistd.h>

#include "worker_test_support.h"

namespace ns::worker::testing {

int threadCount() {
  DIR* tasks = opendir("/proc/self/task");
  if (tasks == nullptr) return -1;
  int count = 0;
  while (dirent* entry = readdir(tasks)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(tasks);
  return count;
}

PeerIdentity ownPeerIdentity() {
  return PeerIdentity{static_cast<uint32_t>(getuid()), static_cast<uint32_t>(getgid()),
                      static_cast<uint32_t>(getpid())};
}

}  // namespace ns::worker::testing
