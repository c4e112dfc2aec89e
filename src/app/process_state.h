// Process-wide state shared by the entry, the platform layer and the agent run.
//
// The entry sets the configuration path and the standard-output mode once, before the agent
// run starts; they are read-only afterwards. The stop condition is one mutex and condition
// variable: a stop request is a notify-all on it, with no flag beside it, so a request made
// while nobody waits is lost (the agent run waits exactly once). requestStop() is safe from any
// thread, including signal and service-control threads; it never takes the mutex.
#pragma once

#include <condition_variable>
#include <mutex>

namespace vantrelo::app {

void setConfigPath(const char* path);
const char* configPath();

void setStandardOutputMode(bool enabled);
bool standardOutputMode();

// Wakes every waiter of the stop condition.
void requestStop();
// Locks the stop mutex, waits once on the stop condition (no predicate), unlocks.
void waitForStop();

}  // namespace vantrelo::app
