// The trace session's life cycle and its event callback, over scripted session calls. Runs on
// every platform: only the system's session calls need Windows.
#include "etw/etw_reader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/error.h"
#include "etw/windows_version.h"
#include "event_builder.h"
#include "fake_sessions.h"
#include "net_test_support.h"

namespace vantrelo::etw {
namespace {

using net::testing::LogRecorder;
using testing::buildEvent;
using testing::FakeSessions;
using testing::Processing;
using testing::SyntheticEvent;

constexpr uint32_t kAccessDenied = 5;
constexpr uint32_t kCancelled = 1223;

// A reader over fake sessions whose back-off second lasts 10 ms: short, yet a processing run
// would have to stall for 600 ms on a loaded machine to pass for a long one.
constexpr auto kBackOffUnit = std::chrono::milliseconds(10);

struct Reader {
  explicit Reader(EtwSettings settings = {}, std::chrono::milliseconds backOffUnit = kBackOffUnit) {
    settings.windowsVersion = kWindows2022;
    settings.identityFromEvent = false;
    auto api = std::make_unique<FakeSessions>();
    fake = api.get();
    reader = std::make_unique<EtwReader>(settings, "Listener[0]: ", std::move(api), backOffUnit);
    fake->requestStop = [this] { reader->stop(); };
  }
  Reader(const Reader&) = delete;
  // "" when run() returned, else its failure.
  std::string run() {
    try {
      reader->run(
          [](encoding::dnstap::DnstapMessage&, void* calls) { ++*static_cast<int*>(calls); },
          &decoded);
    } catch (const EtwError& e) {
      return e.what();
    }
    return "";
  }
  FakeSessions* fake = nullptr;
  std::unique_ptr<EtwReader> reader;
  int decoded = 0;
};

std::string failed(const char* call, uint32_t status) {
  return std::string(call) + " failed: " + error::systemErrorText(status);
}

// What each failing call leaves behind; a session left by an earlier run is stopped first.
TEST(EtwReader, SessionLifeCycle) {
  const std::string kProcessed = "start/8000100 enable open process close stop ";
  struct Case {
    const char* name;
    void (*script)(FakeSessions&);
    std::string calls, failure;
    bool independentSession = true;
  };
  const auto none = [](FakeSessions&) {};
  // clang-format off
  const Case cases[] = {
      {"a stop while processing ends the run and the session", none, kProcessed, ""},
      {"a session left by an earlier run is stopped and started anew",
       [](FakeSessions& f) { f.starts = {183}; }, "start/8000100=183 stop " + kProcessed, ""},
      {"one that cannot be stopped fails the run",
       [](FakeSessions& f) { f.starts = {183}; f.stops = {kAccessDenied}; },
       "start/8000100=183 stop=5 ", failed("ControlTrace()", kAccessDenied)},
      {"one that is back at once fails the run", [](FakeSessions& f) { f.starts = {183, 183}; },
       "start/8000100=183 stop start/8000100=183 ", failed("StartTrace()", 183)},
      {"no right to start a session", [](FakeSessions& f) { f.starts = {kAccessDenied}; },
       "start/8000100=5 ", failed("StartTrace()", kAccessDenied)},
      {"a session without its provider is not left behind",
       [](FakeSessions& f) { f.enables = {kAccessDenied}; }, "start/8000100 enable=5 stop ",
       failed("EnableTraceEx2()", kAccessDenied)},
      {"nor one without its consumer", [](FakeSessions& f) { f.opens = {4201}; },
       "start/8000100 enable open=4201 stop ", failed("OpenTrace()", 4201)},
      {"a stop during start-up is a normal end",
       [](FakeSessions& f) { f.stopBeforeOpen = true; f.opens = {4201}; },
       "start/8000100 enable open=4201 stop ", ""},
      {"any status after a stop request is a normal end",
       [](FakeSessions& f) { f.processing = {{.status = kCancelled, .stop = true}}; },
       kProcessed, ""},
      {"a stop before the run makes no call", [](FakeSessions& f) { f.requestStop(); }, "", ""},
      {"without etw-independent-session the session is shared", none,
       "start/100 enable open process close stop ", "", false}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LogRecorder log;
    EtwSettings settings;
    settings.independentSession = c.independentSession;
    Reader r(settings);
    c.script(*r.fake);
    EXPECT_EQ(r.run(), c.failure);
    EXPECT_EQ(r.fake->calls, c.calls);
  }
}

// Processing that ends without a stop request starts the whole session again after 1, 2, 4 ...
// 60 back-off seconds; a long good run starts the back-off over. A stop request during a
// back-off wait of a minute ends it at once.
TEST(EtwReader, RestartsWithBackOff) {
  const auto delays = [](std::deque<Processing> processing) {
    LogRecorder log;
    Reader r;
    std::string calls;
    for (size_t i = 0; i <= processing.size(); ++i) {
      calls += "start/8000100 enable open process close stop ";
    }
    r.fake->processing = std::move(processing);
    EXPECT_EQ(r.run(), "");
    EXPECT_EQ(r.fake->calls, calls);
    std::string seconds;
    for (const std::string& line : log.lines()) {
      EXPECT_EQ(
          line.rfind("E Listener[0]: ETW session ended without a stop request (ProcessTrace: ", 0),
          0u);
      seconds += line.substr(line.rfind(" in ") + 4) + ",";
    }
    return seconds;
  };
  EXPECT_EQ(delays(std::deque<Processing>(8, Processing{})),
            "1 s,2 s,4 s,8 s,16 s,32 s,60 s,60 s,");
  EXPECT_EQ(delays({{}, {}, {.lasting = 61 * kBackOffUnit}, {}}), "1 s,2 s,1 s,2 s,");

  Reader waiting(EtwSettings{}, std::chrono::seconds(60));
  waiting.fake->processing = {Processing{}};
  std::thread stopper([&waiting] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    waiting.reader->stop();
  });
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(waiting.run(), "");
  stopper.join();
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(30));
}

// An event that throws anything at all is counted and logged, never passed on to the system;
// a failure repeated is not logged again at once, and no more than ten lines a minute are.
TEST(EtwReader, CallbackFailuresAreCountedAndRateLimited) {
  struct Throwing : SyntheticEvent {
    const EventInformation& information() const override { throw 42; }
  };
  SyntheticEvent good = buildEvent(256, kWindows2022);
  SyntheticEvent foreign = good;
  foreign.provider.data1 ^= 1;
  SyntheticEvent cutA = good;
  cutA.data.resize(cutA.offsets[5] + 3);
  SyntheticEvent cutB = good;
  cutB.data.resize(cutB.offsets[7] + 3);
  Throwing throwing;
  throwing.id = 257;

  Processing processing{.stop = true, .events = {&foreign, &good, &cutA, &cutA, &throwing}};
  for (int i = 0; i < 500; ++i) {
    processing.events.push_back(&cutB);
    processing.events.push_back(&cutA);
  }
  processing.events.push_back(&good);

  LogRecorder log;
  Reader r;
  r.fake->processing = {processing};
  EXPECT_EQ(r.run(), "");
  EXPECT_EQ(r.decoded, 2);
  EXPECT_EQ(r.reader->decodeFailures(), 1003u);
  const std::string a =
      "E Listener[0]: Expected at least 4 bytes of user data for property 5 but got 3";
  const std::string b =
      "E Listener[0]: Expected at least 4 bytes of user data for property 7 but got 3";
  const std::string unknown =
      "E Listener[0]: Unknown failure while decoding an event (failures not logged since the "
      "last line: 1)";
  EXPECT_EQ(log.lines(), (std::vector<std::string>{a, unknown, b, a, b, a, b, a, b, a}));
}

}  // namespace
}  // namespace vantrelo::etw
