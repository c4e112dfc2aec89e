#include "etw/etw_reader.h"

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "base/error.h"
#include "base/log.h"
#include "etw/host_name.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

namespace {

// The restart back-off, in units of one second: 1, 2, 4 ... up to 60. A processing period at
// least as long as the longest wait counts as a good run and starts the back-off over.
constexpr uint32_t kFirstBackOff = 1;
constexpr uint32_t kLongestBackOff = 60;

// At most one failure line per kind of failure at a time: a new text is logged at once, the
// same text again only after kRepeatInterval. Never more than kLinesPerWindow lines in a
// kWindow, so a provider that fails in ever new ways cannot flood the log.
constexpr auto kRepeatInterval = std::chrono::minutes(1);
constexpr auto kWindow = std::chrono::minutes(1);
constexpr uint32_t kLinesPerWindow = 10;

[[noreturn]] void fail(const char* what, uint32_t code) {
  throw EtwError(std::string(what) + " failed: " + error::systemErrorText(code));
}

}  // namespace

EtwReader::EtwReader(const EtwSettings& settings, std::string logPrefix,
                     std::unique_ptr<TraceSessionApi> api, std::chrono::milliseconds backOffUnit)
    : settings_(settings),
      logPrefix_(std::move(logPrefix)),
      decoder_(settings, settings.identityFromEvent ? localHostName() : std::string(), logPrefix_),
      api_(api != nullptr ? std::move(api) : makeSystemTraceSessionApi()),
      backOffUnit_(backOffUnit) {}

EtwReader::~EtwReader() = default;

void EtwReader::run(EventHandler handler, void* context, DeliveryHandler delivered) {
  decoder_.setHandler(handler, context);
  delivered_ = delivered;
  deliveredContext_ = context;
  uint32_t backOff = kFirstBackOff;
  while (!stopRequested()) {
    const auto began = std::chrono::steady_clock::now();
    uint32_t status = kStatusSuccess;
    if (startAndProcess(status) == Ending::kStopRequested) break;
    if (std::chrono::steady_clock::now() - began >= kLongestBackOff * backOffUnit_) {
      backOff = kFirstBackOff;
    }
    log::error(logPrefix_ + "ETW session ended without a stop request (ProcessTrace: " +
               error::systemErrorText(status) + "); starting it again in " +
               std::to_string(backOff) + " s");
    // Whatever is left of it goes, so the next start is a fresh one.
    stopSession();
    if (!waitBeforeRestart(backOff)) break;
    backOff = std::min(backOff * 2, kLongestBackOff);
  }
  // An orderly end leaves nothing behind in the system: the next start sets up its own.
  if (sessionStarted_) stopSession();
}

EtwReader::Ending EtwReader::startAndProcess(uint32_t& status) {
  const uint32_t mode = sessionLogFileMode(settings_);
  status = api_->startSession(settings_, mode);
  if (status == kStatusAlreadyExists) {
    // Its settings, event filter and even its provider are whatever an earlier run left.
    log::info(logPrefix_ + "Stopping the ETW session left by an earlier run");
    status = api_->stopSession();
    if (status != kStatusSuccess && status != kStatusInstanceNotFound) {
      fail("ControlTrace()", status);
    }
    status = api_->startSession(settings_, mode);
  }
  if (status != kStatusSuccess) fail("StartTrace()", status);
  sessionStarted_ = true;
  try {
    status = api_->enableProvider(settings_);
    if (status != kStatusSuccess) fail("EnableTraceEx2()", status);
    queryStatistics();
    return openAndProcess(status);
  } catch (...) {
    // A session without its provider or consumer would only hold the next start's settings.
    stopSession();
    throw;
  }
}

EtwReader::Ending EtwReader::openAndProcess(uint32_t& status) {
  if (stopRequested()) return Ending::kStopRequested;
  TraceSessionApi::Handle consumer = kNoHandle;
  status = api_->openConsumer(*this, consumer);
  if (status != kStatusSuccess) {
    // A stop during start-up may have ended the session under it: that is a normal end.
    if (stopRequested()) return Ending::kStopRequested;
    fail("OpenTrace()", status);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopRequested_) {
      api_->closeConsumer(consumer);
      return Ending::kStopRequested;
    }
    consumerHandle_ = consumer;
  }

  status = api_->processEvents(consumer);
  // Whatever the handler gathered from the last events goes on before any restart or stop.
  onBufferDelivered();

  std::lock_guard<std::mutex> lock(mutex_);
  const bool stopped = stopRequested_;
  // stop() has closed the handle already; closing it twice could hit a reused handle value.
  if (!stopped) api_->closeConsumer(consumer);
  consumerHandle_ = kNoHandle;
  // After a stop request any status is the normal end (closing the handle while events are
  // in flight ends processing with ERROR_CANCELLED, for one).
  return stopped ? Ending::kStopRequested : Ending::kUnrequested;
}

void EtwReader::stopSession() {
  sessionStarted_ = false;
  const uint32_t status = api_->stopSession();
  // Not found: someone stopped it already, which is what was wanted.
  if (status != kStatusSuccess && status != kStatusInstanceNotFound) {
    log::error(logPrefix_ + "ControlTrace() failed: " + error::systemErrorText(status));
  }
}

bool EtwReader::waitBeforeRestart(uint32_t seconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !wake_.wait_for(lock, seconds * backOffUnit_, [this] { return stopRequested_; });
}

bool EtwReader::stopRequested() {
  std::lock_guard<std::mutex> lock(mutex_);
  return stopRequested_;
}

void EtwReader::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopRequested_) return;
  stopRequested_ = true;
  if (consumerHandle_ != kNoHandle) api_->closeConsumer(consumerHandle_);
  wake_.notify_all();
}

void EtwReader::queryStatistics() {
  EtwStatistics statistics;
  const uint32_t status = api_->querySession(statistics);
  if (status != kStatusSuccess) fail("ControlTrace()", status);
  storeStatistics(statistics);
}

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

void EtwReader::onEvent(const EventRecordView& event) noexcept {
  try {
    // A real-time session also delivers the system's own header event, and a session of this
    // name may be shared with providers enabled by hand.
    if (event.providerId() != kDnsServerProvider) return;
    decoder_.handleEvent(event);
  } catch (const std::exception& e) {
    reportFailure(e.what());
  } catch (...) {
    reportFailure("Unknown failure while decoding an event");
  }
}

void EtwReader::onBufferDelivered() noexcept {
  if (delivered_ == nullptr) return;
  try {
    delivered_(deliveredContext_);
  } catch (const std::exception& e) {
    reportFailure(e.what());
  } catch (...) {
    reportFailure("Unknown failure while passing events on");
  }
}

void EtwReader::reportFailure(const char* text) noexcept {
  decodeFailures_.fetch_add(1);
  try {
    const auto now = std::chrono::steady_clock::now();
    if (now - failureWindow_ >= kWindow) {
      failureWindow_ = now;
      failureLines_ = 0;
    }
    const bool fresh = lastFailure_ != text || now - lastFailureLine_ >= kRepeatInterval;
    if (!fresh || failureLines_ >= kLinesPerWindow) {
      ++unloggedFailures_;
      return;
    }
    std::string line = logPrefix_ + text;
    if (unloggedFailures_ != 0) {
      line +=
          " (failures not logged since the last line: " + std::to_string(unloggedFailures_) + ")";
    }
    log::error(line);
    lastFailure_ = text;
    lastFailureLine_ = now;
    ++failureLines_;
    unloggedFailures_ = 0;
  } catch (...) {
    // Out of memory while logging: the event is lost either way, and it is counted.
  }
}

}  // namespace vantrelo::etw
