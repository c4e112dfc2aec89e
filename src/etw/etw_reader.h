// The real-time trace session on the Windows DNS Server's analytic event provider.
//
// An EtwReader is owned by one ETW listener. run() starts the session "Morskel Vantrelo" with
// the configured settings, enables the provider in it, opens it for real-time consumption and
// blocks in the system's event processing, which calls back for every event on the calling
// thread; each event of the provider is decoded (EventDecoder) and handed to the handler. After
// each buffer of events the system delivered, and when processing ends, the delivery handler
// is called, so that a handler that gathers events passes them on before the reader waits.
//
// A session of that name left by an earlier run is stopped and started anew, so the settings
// in force are always the configured ones (an inherited session may have other buffers, another
// event filter, or no provider enabled at all). When processing ends without a stop request
// (someone stopped the session, say) the reader logs it and starts the session again after a
// back-off of 1 s, doubling up to 60 s. Failures to start (access denied, no free logger) end
// run() with an EtwError. stop() closes the consumer handle from another thread, which makes
// run() return; the session is then stopped in the system as well.
//
// A failure to decode one event cannot travel through the system's event processing: it is
// counted and logged, at most one line per kind of failure at a time and a few lines a minute.
//
// Thread-safety: run() on one thread; stop(), queryStatistics(), statistics() and the counters
// may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "etw/etw_settings.h"
#include "etw/event_decoder.h"
#include "etw/event_record.h"
#include "etw/trace_session.h"

namespace vantrelo::etw {

class EtwReader : private EventSink {
 public:
  // `logPrefix` starts the reader's log lines (e.g. "Listener[0]: "). `api` makes the session
  // calls; null means the running system's. `backOffUnit` is what one second of the restart
  // back-off lasts (tests shorten it). Takes the local host name when the identity comes from
  // the event's machine. Throws EtwError for an unknown Windows version index or when the host
  // name is unavailable.
  explicit EtwReader(const EtwSettings& settings, std::string logPrefix = {},
                     std::unique_ptr<TraceSessionApi> api = nullptr,
                     std::chrono::milliseconds backOffUnit = std::chrono::seconds(1));
  ~EtwReader() override;

  EtwReader(const EtwReader&) = delete;
  EtwReader& operator=(const EtwReader&) = delete;

  // Called with the handler's context when a delivery of events is over.
  using DeliveryHandler = void (*)(void* context);

  // Runs the session until stop(); returns after a stop request, throws EtwError when the
  // session cannot be started. `handler` and `delivered` (either may be null) are called on
  // this thread for every decoded event and at the end of each delivery. Returns at once when
  // stop() came first.
  void run(EventHandler handler, void* context, DeliveryHandler delivered = nullptr);

  // Ends a run() in progress (also one waiting to restart the session), or the next one before
  // it starts.
  void stop();

  // Asks the system for the session's statistics and stores them. Throws EtwError.
  void queryStatistics();

  // The statistics stored by the last queryStatistics().
  EtwStatistics statistics() const;

  // Events whose decoding failed, and events skipped because their kind lacks a property.
  uint64_t decodeFailures() const { return decodeFailures_.load(); }
  uint64_t skippedEvents() const { return decoder_.skippedEvents(); }

 private:
  enum class Ending { kStopRequested, kUnrequested };

  void onEvent(const EventRecordView& event) noexcept override;
  void onBufferDelivered() noexcept override;
  void reportFailure(const char* text) noexcept;
  void storeStatistics(const EtwStatistics& statistics);
  bool stopRequested();
  // One start of the session and its processing. Throws EtwError when the session cannot be
  // started; a session this call started is then stopped again.
  Ending startAndProcess(uint32_t& status);
  Ending openAndProcess(uint32_t& status);
  // Stops the session in the system; a failure is logged.
  void stopSession();
  // Waits `seconds` back-off units; false when a stop request ended the wait.
  bool waitBeforeRestart(uint32_t seconds);

  static constexpr uint64_t kNoHandle = ~uint64_t{0};

  EtwSettings settings_;
  std::string logPrefix_;
  EventDecoder decoder_;
  std::unique_ptr<TraceSessionApi> api_;
  const std::chrono::milliseconds backOffUnit_;
  bool sessionStarted_ = false;          // by this reader, and not stopped since; run thread only
  DeliveryHandler delivered_ = nullptr;  // and its context, set by run()
  void* deliveredContext_ = nullptr;

  // Failure log state, touched by the processing thread only.
  std::string lastFailure_;  // the text of the last failure line
  std::chrono::steady_clock::time_point lastFailureLine_{};
  std::chrono::steady_clock::time_point failureWindow_{};  // start of the current minute
  uint32_t failureLines_ = 0;                              // lines in the current minute
  uint64_t unloggedFailures_ = 0;                          // since the last line
  std::atomic<uint64_t> decodeFailures_{0};

  std::mutex mutex_;  // guards consumerHandle_ and stopRequested_; wake_ waits on it
  std::condition_variable wake_;
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
