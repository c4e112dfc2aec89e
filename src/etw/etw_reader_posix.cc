#include "etw/etw_reader.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

// Event Tracing for Windows has no counterpart here; the decoding still builds and is tested.

void EtwReader::run(EventHandler handler, void* context) {
  decoder_.setHandler(handler, context);
  throw EtwError("ETW capture needs Windows");
}

void EtwReader::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  stopRequested_ = true;
}

void EtwReader::queryStatistics() { throw EtwError("ETW capture needs Windows"); }

}  // namespace vantrelo::etw
