#include "app/process_state.h"

namespace vantrelo::app {

namespace {

const char* configurationPath = "";
bool outputMode = false;

}  // namespace

void setConfigPath(const char* path) { configurationPath = path; }
const char* configPath() { return configurationPath; }

void setStandardOutputMode(bool enabled) { outputMode = enabled; }
bool standardOutputMode() { return outputMode; }

StopSignal& stopSignal() {
  // Built on first use, so that a signal thread started early never sees it half made.
  static StopSignal signal;
  return signal;
}

}  // namespace vantrelo::app
