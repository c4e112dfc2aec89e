#include "etw/etw_reader.h"

#include <exception>
#include <string>
#include <utility>

#include "base/log.h"
#include "etw/host_name.h"

namespace vantrelo::etw {

EtwReader::EtwReader(const EtwSettings& settings, std::string logPrefix)
    : settings_(settings),
      logPrefix_(std::move(logPrefix)),
      decoder_(settings, settings.identityFromEvent ? localHostName() : std::string()) {}

EtwReader::~EtwReader() = default;

EtwStatistics EtwReader::statistics() const {
  EtwStatistics result;
  result.numberOfBuffers = numberOfBuffers_.load();
  result.freeBuffers = freeBuffers_.load();
  result.eventsLost = eventsLost_.load();
  result.buffersWritten = buffersWritten_.load();
  result.logBuffersLost = logBuffersLost_.load();
  result.realTimeBuffersLost = realTimeBuffersLost_.load();
  return result;
}

void EtwReader::storeStatistics(const EtwStatistics& statistics) {
  numberOfBuffers_.store(statistics.numberOfBuffers);
  freeBuffers_.store(statistics.freeBuffers);
  eventsLost_.store(statistics.eventsLost);
  buffersWritten_.store(statistics.buffersWritten);
  logBuffersLost_.store(statistics.logBuffersLost);
  realTimeBuffersLost_.store(statistics.realTimeBuffersLost);
}

void EtwReader::dispatch(const EventRecordView& event) noexcept {
  try {
    decoder_.handleEvent(event);
  } catch (const std::exception& e) {
    reportFailure(e.what());
  }
}

void EtwReader::reportFailure(const char* text) noexcept {
  // A provider whose layout does not match fails on every event; one line per distinct
  // failure keeps the log readable while still showing every new kind of problem.
  try {
    if (lastFailure_ != text) {
      lastFailure_ = text;
      log::error(logPrefix_ + text);
    }
  } catch (...) {
    // Out of memory while logging: the event is lost either way.
  }
}

}  // namespace vantrelo::etw
