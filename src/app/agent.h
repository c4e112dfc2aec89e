// The agent run: configuration path in, running agent, stop request, orderly shut-down out.
//
// runAgent reads the configuration path and the standard-output mode from the process state,
// builds the settings, the event queue and the workers, starts them, waits for a stop request
// (one made during start-up included) and stops, joins and saves. It never throws: a failure
// ends the run with one "Run failed: " error line and a false result, whether it comes while
// starting (nothing is stopped or saved then) or from a worker that reported it while running
// (the run stops in order and saves the queue first). Called on one thread at a time (main or
// service main); the stop request is cleared when the run ends.
#pragma once

#include <string>

#include "app/platform.h"
#include "app/worker.h"

namespace vantrelo::app {

// The directory part of a configuration path: up to its last '\' or '/', "." without either.
std::string configDirectory(const std::string& path);

// Runs the agent until a stop request and returns false when the run failed. `factory` makes
// the workers (nullptr: none); `observer`, when given, hears when the run is running and when it
// starts to stop.
bool runAgent(WorkerFactory* factory, platform::RunObserver* observer = nullptr);

}  // namespace vantrelo::app
