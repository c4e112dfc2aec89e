// Scripted trace session calls, for tests of the session logic on every platform.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "etw/trace_session.h"

namespace vantrelo::etw::testing {

// What one processEvents() call does: deliver the events, then either return `status` after
// `lasting` or, with `stop`, request a stop (as another thread would) and return `status`.
struct Processing {
  uint32_t status = 0;
  bool stop = false;
  std::chrono::milliseconds lasting{0};
  std::vector<const EventRecordView*> events = {};
};

// Each call is written to `calls` and answered with the next status scripted for it, success
// when none is left. With nothing scripted, processing stops at once. Used on one thread.
class FakeSessions : public TraceSessionApi {
 public:
  std::deque<uint32_t> starts, stops, enables, opens;
  bool stopBeforeOpen = false;  // a stop request arrives while the consumer is being opened
  std::deque<Processing> processing;
  EtwStatistics statistics;
  std::string calls;
  std::function<void()> requestStop;  // what a stop request from another thread does

  uint32_t startSession(const EtwSettings&, uint32_t mode) override {
    std::ostringstream call;
    call << "start/" << std::hex << mode;
    return answer(call.str(), starts);
  }
  uint32_t stopSession() override { return answer("stop", stops); }
  uint32_t enableProvider(const EtwSettings&) override { return answer("enable", enables); }
  uint32_t querySession(EtwStatistics& out) override {
    out = statistics;
    return 0;
  }
  uint32_t openConsumer(EventSink& sink, Handle& handle) override {
    sink_ = &sink;
    handle = kHandle;
    if (stopBeforeOpen) requestStop();
    return answer("open", opens);
  }
  uint32_t processEvents(Handle) override {
    calls += "process ";
    const Processing next = processing.empty() ? Processing{.stop = true} : processing.front();
    if (!processing.empty()) processing.pop_front();
    for (const EventRecordView* event : next.events) sink_->onEvent(*event);
    std::this_thread::sleep_for(next.lasting);
    if (next.stop) requestStop();
    return next.status;
  }
  void closeConsumer(Handle handle) override { calls += handle == kHandle ? "close " : "close? "; }

 private:
  static constexpr Handle kHandle = 7;

  uint32_t answer(const std::string& call, std::deque<uint32_t>& statuses) {
    uint32_t status = 0;
    if (!statuses.empty()) {
      status = statuses.front();
      statuses.pop_front();
    }
    calls += call + (status == 0 ? "" : "=" + std::to_string(status)) + " ";
    return status;
  }

  EventSink* sink_ = nullptr;
};

}  // namespace vantrelo::etw::testing
