// The agent run: configuration path in, running agent, stop request, orderly shut-down out.
//
// runAgent reads the configuration path and the standard-output mode from the process state,
// builds the settings, the event queue and the workers, starts them, waits once on the stop
// condition and stops, joins and saves. It never throws: any failure ends the run with one
// "Run failed: " error line. Called on one thread at a time (main or service main).
#pragma once

#include <string>

#include "app/worker.h"

namespace vantrelo::app {

// The directory part of a configuration path: up to its last '\' or '/', "." without either.
std::string configDirectory(const std::string& path);

// Runs the agent until a stop request. `factory` makes the workers; with nullptr none are made.
void runAgent(WorkerFactory* factory);

}  // namespace vantrelo::app
