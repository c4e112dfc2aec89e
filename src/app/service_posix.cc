#include "app/platform.h"

namespace vantrelo::app::platform {

// A POSIX service manager starts the agent as an ordinary foreground process and stops it with
// SIGTERM, so the service command runs the agent in the foreground, logging to syslog.
bool runService(ServiceRun run) { return runInForeground(run); }

}  // namespace vantrelo::app::platform
