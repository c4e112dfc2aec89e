// The system calls of one real-time trace session, behind an interface, so that the logic that
// starts, restarts and stops the session (EtwReader) is the same, and is tested, on every
// platform.
//
// The system's implementation (trace_session_windows.cc) works on the session named
// kSessionName. Elsewhere (trace_session_posix.cc) every call throws EtwError "ETW capture
// needs Windows". The EtwReader owns its TraceSessionApi. Thread-safety: the run thread makes
// every call but these two: closeConsumer() may come from a stopping thread while
// processEvents() blocks, and querySession() from the metrics thread at any time.
#pragma once

#include <cstdint>
#include <memory>

#include "etw/etw_settings.h"
#include "etw/event_record.h"

namespace vantrelo::etw {

inline constexpr char kSessionName[] = "Morskel Vantrelo";

// The session's buffer statistics as the system last reported them.
struct EtwStatistics {
  uint32_t numberOfBuffers = 0;
  uint32_t freeBuffers = 0;
  uint32_t eventsLost = 0;
  uint32_t buffersWritten = 0;
  uint32_t logBuffersLost = 0;
  uint32_t realTimeBuffersLost = 0;
};

// System status codes the session logic tells apart (winerror.h).
inline constexpr uint32_t kStatusSuccess = 0;
inline constexpr uint32_t kStatusAlreadyExists = 183;      // ERROR_ALREADY_EXISTS
inline constexpr uint32_t kStatusInstanceNotFound = 4201;  // ERROR_WMI_INSTANCE_NOT_FOUND

// EVENT_TRACE_PROPERTIES.LogFileMode bits.
inline constexpr uint32_t kRealTimeMode = 0x00000100;            // EVENT_TRACE_REAL_TIME_MODE
inline constexpr uint32_t kIndependentSessionMode = 0x08000000;  // ..._INDEPENDENT_SESSION_MODE

// The mode a session is started in. Without the independent-session bit, an event that cannot
// be written to one of the provider's sessions (a full analytic-channel log, another tool's
// session) is written to none of them, ours included, and no loss counter of ours shows it.
inline uint32_t sessionLogFileMode(const EtwSettings& settings) {
  return kRealTimeMode | (settings.independentSession ? kIndependentSessionMode : 0);
}

// Receives the events of a consumer during processEvents(), on the processing thread.
class EventSink {
 public:
  virtual ~EventSink() = default;
  // Must not throw: the system's event processing cannot carry an exception.
  virtual void onEvent(const EventRecordView& event) noexcept = 0;
  // After the events of each buffer the system delivered: the processing may wait for the next
  // buffer now.
  virtual void onBufferDelivered() noexcept {}
};

class TraceSessionApi {
 public:
  using Handle = uint64_t;

  virtual ~TraceSessionApi() = default;

  // Each returns the system's status code (kStatusSuccess when it worked).
  // StartTrace with the settings' buffers and flush timer and `logFileMode`.
  virtual uint32_t startSession(const EtwSettings& settings, uint32_t logFileMode) = 0;
  // ControlTrace(stop) on the session by name, whoever started it.
  virtual uint32_t stopSession() = 0;
  // EnableTraceEx2 of the DNS Server provider in the session started last, with the level,
  // keywords and (when the settings ask for it) the event-id filter. Throws EtwError when the
  // filter cannot be allocated.
  virtual uint32_t enableProvider(const EtwSettings& settings) = 0;
  // ControlTrace(query) on the session by name.
  virtual uint32_t querySession(EtwStatistics& statistics) = 0;
  // OpenTrace for real-time consumption; the events go to `sink` during processEvents().
  virtual uint32_t openConsumer(EventSink& sink, Handle& handle) = 0;
  // ProcessTrace: blocks until the consumer is closed or the session ends.
  virtual uint32_t processEvents(Handle handle) = 0;
  // CloseTrace.
  virtual void closeConsumer(Handle handle) = 0;
};

// The running system's trace sessions.
std::unique_ptr<TraceSessionApi> makeSystemTraceSessionApi();

}  // namespace vantrelo::etw
