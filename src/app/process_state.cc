#include "app/process_state.h"

namespace vantrelo::app {

namespace {

const char* configurationPath = "";
bool outputMode = false;
std::mutex stopMutex;
std::condition_variable stopCondition;

}  // namespace

void setConfigPath(const char* path) { configurationPath = path; }
const char* configPath() { return configurationPath; }

void setStandardOutputMode(bool enabled) { outputMode = enabled; }
bool standardOutputMode() { return outputMode; }

void requestStop() { stopCondition.notify_all(); }

void waitForStop() {
  std::unique_lock<std::mutex> lock(stopMutex);
  // Deliberately one untimed wait without a predicate: the first notification ends the run and
  // a request sent before the wait began is not remembered.
  stopCondition.wait(lock);
}

}  // namespace vantrelo::app
