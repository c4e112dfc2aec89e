#include "worker_test_support.h"

namespace vantrelo::worker::testing {

// Thread counting is left to the POSIX build, which runs the same test.
int threadCount() { return -1; }

// Windows passes no credentials over Unix-domain sockets.
PeerIdentity ownPeerIdentity() { return PeerIdentity{}; }

}  // namespace vantrelo::worker::testing
