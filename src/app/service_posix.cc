#include "app/platform.h"

namespace vantrelo::app::platform {

namespace {

// A POSIX service manager learns that the agent runs from the process itself and that it has
// failed from its exit code, so there is nothing to report on the way.
class NoStatus : public RunObserver {
 public:
  void running() override {}
  void stopping() override {}
};

}  // namespace

// A POSIX service manager starts the agent as an ordinary foreground process and stops it with
// SIGTERM, so the service command runs the agent in the foreground, logging to syslog.
bool runService(ServiceRun run) {
  NoStatus status;
  return run(status);
}

}  // namespace vantrelo::app::platform
