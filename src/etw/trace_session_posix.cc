#include "etw/trace_session.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

namespace {

// Event Tracing for Windows has no counterpart here; the decoding and the session logic still
// build and are tested, with sessions of their own making.
class NoTraceSessions : public TraceSessionApi {
 public:
  uint32_t startSession(const EtwSettings&, uint32_t) override { unavailable(); }
  uint32_t stopSession() override { unavailable(); }
  uint32_t enableProvider(const EtwSettings&) override { unavailable(); }
  uint32_t querySession(EtwStatistics&) override { unavailable(); }
  uint32_t openConsumer(EventSink&, Handle&) override { unavailable(); }
  uint32_t processEvents(Handle) override { unavailable(); }
  void closeConsumer(Handle) override {}

 private:
  [[noreturn]] static void unavailable() { throw EtwError("ETW capture needs Windows"); }
};

}  // namespace

std::unique_ptr<TraceSessionApi> makeSystemTraceSessionApi() {
  return std::make_unique<NoTraceSessions>();
}

}  // namespace vantrelo::etw
