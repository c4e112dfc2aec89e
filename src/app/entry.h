// The command line of the `vantrelo` program.
//
// entry() picks the command from argv[1] (compared exactly), sets the process state (see
// process_state.h) and runs the agent, or prints and returns. It returns the exit code; the
// caller keeps `argv` alive for the whole process, since the configuration path points into it.
// Called once, from main.
#pragma once

#include <iosfwd>

#include "app/worker.h"

namespace vantrelo::app {

inline constexpr const char* kVersion = "2.4.4";

// `factory` makes the agent's workers (nullptr: none).
int entry(int argc, char** argv, WorkerFactory* factory);

// The print-psl output: one "domain-suffix <rule>" line per built-in public suffix rule.
void printPublicSuffixes(std::ostream& out);

}  // namespace vantrelo::app
