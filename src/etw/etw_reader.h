// The real-time trace session on the Windows DNS Server's analytic event provider.
//
// An EtwReader is owned by one ETW listener. run() starts the session "Morskel Vantrelo" (or
// re-attaches to it when it already exists), opens it for real-time consumption and blocks in
// the system's event processing, which calls back for every event on the calling thread; each
// event is decoded (EventDecoder) and handed to the handler. stop() closes the consumer handle
// from another thread, which makes run() return. The session itself is left running in the
// system, so that the next start finds it with its settings.
//
// Thread-safety: run() on one thread; stop(), queryStatistics() and statistics() may be called
// from any thread. Outside Windows run() and queryStatistics() fail with an EtwError.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "etw/etw_settings.h"
#include "etw/event_decoder.h"
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

class EtwReader {
 public:
  // `logPrefix` starts the log line of an event that fails to decode (e.g. "Listener[0]: ").
  // Takes the local host name when the identity comes from the event's machine. Throws
  // EtwError for an unknown Windows version index or when the host name is unavailable.
  explicit EtwReader(const EtwSettings& settings, std::string logPrefix = {});
  ~EtwReader();

  EtwReader(const EtwReader&) = delete;
  EtwReader& operator=(const EtwReader&) = delete;

  // Runs the session until stop(); returns when processing has ended normally, throws EtwError
  // otherwise. `handler` (may be null) is called for every decoded event on this thread.
  // Returns at once when stop() came first.
  void run(EventHandler handler, void* context);

  // Ends a run() in progress, or the next one before it starts processing.
  void stop();

  // Asks the system for the session's statistics and stores them. Throws EtwError.
  void queryStatistics();

  // The statistics stored by the last queryStatistics().
  EtwStatistics statistics() const;

 private:
  friend struct EtwCallbacks;

  // Decodes one event; failures are logged, as the system's processing cannot carry them.
  void dispatch(const EventRecordView& event) noexcept;
  void reportFailure(const char* text) noexcept;
  void storeStatistics(const EtwStatistics& statistics);

  static constexpr uint64_t kNoHandle = ~uint64_t{0};

  EtwSettings settings_;
  std::string logPrefix_;
  EventDecoder decoder_;
  std::string lastFailure_;          // the last decoding failure logged; repeats are not
  std::vector<uint64_t> eventInfo_;  // TRACE_EVENT_INFO of the current event, kept to grow
  uint64_t sessionHandle_ = 0;

  std::mutex mutex_;  // guards consumerHandle_ and stopRequested_
  uint64_t consumerHandle_ = kNoHandle;
  bool stopRequested_ = false;

  std::atomic<uint32_t> numberOfBuffers_{0};
  std::atomic<uint32_t> freeBuffers_{0};
  std::atomic<uint32_t> eventsLost_{0};
  std::atomic<uint32_t> buffersWritten_{0};
  std::atomic<uint32_t> logBuffersLost_{0};
  std::atomic<uint32_t> realTimeBuffersLost_{0};
};

}  // namespace vantrelo::etw
