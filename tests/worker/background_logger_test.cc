#include "worker/background_logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "net_test_support.h"
#include "worker_test_support.h"

namespace ns::worker {
namespace {

using net::testing::LogRecorder;
using testing::waitUntil;

const char kStarting[] = "I BackgroundLogger: Starting process loop";
const char kFinished[] = "I BackgroundLogger: Finished process loop";

TEST(BackgroundLoggerTest, WaitEndsOnTheNextMultipleOfTheInterval) {
  struct Case {
    int64_t now;
    int32_t interval;
    int64_t wait;
  };
  const Case cases[] = {
      {36045, 60, 15},     // 10:00:45 -> 10:01:00
      {36060, 60, 60},     // exactly on a multiple: the next one
      {36045, 600, 555},   // default interval: the next full ten minutes
      {1709622542, 1, 1},  // every second
      {7, 0, 1},           // an interval below 1 counts as 1
      {-5, 60, 5},         // before the epoch still lands on a multiple
  };
  for (const Case& c : cases) {
    EXPECT_EQ(BackgroundLogger::secondsUntilNextReport(c.now, c.interval), c.wait)
        << c.now << " " << c.interval;
  }
}

TEST(BackgroundLoggerTest, ReportsOnTheWallClockMultipleAndOnceMoreAfterAStop) {
  LogRecorder log;
  format::MetricsSettings settings;
  settings.interval = 3600;
  std::atomic<int> reads{0};
  std::atomic<uint64_t> reports{0};
  BackgroundLogger logger(
      settings,
      [&](format::MetricsSnapshot& snapshot) { snapshot.queue.events_queued = ++reports; },
      // One second before a multiple at the first read, a whole interval away afterwards.
      [&]() -> int64_t { return reads++ == 0 ? 7199 : 7200; });
  const auto started = std::chrono::steady_clock::now();
  logger.start();
  ASSERT_TRUE(waitUntil([&] { return reports == 1; }));
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  EXPECT_GE(elapsed, 0.9);
  EXPECT_LT(elapsed, 3.0);
  // The second clock read comes just before the hour-long wait.
  ASSERT_TRUE(waitUntil([&] { return reads == 2; }));
  logger.requestStop();
  logger.join();
  const std::vector<std::string> expected = {
      kStarting,
      "I Metrics: queue[type=message eventsProcessed=0 eventsQueued=1 eventsDropped=0]",
      "I Metrics: queue[type=message eventsProcessed=0 eventsQueued=2 eventsDropped=0]",
      kFinished,
  };
  EXPECT_EQ(log.lines(), expected);
}

TEST(BackgroundLoggerTest, FailingCollectionEndsTheLoopWithItsMessage) {
  LogRecorder log;
  BackgroundLogger logger(
      format::MetricsSettings{},
      [](format::MetricsSnapshot&) { throw std::runtime_error("no counters"); },
      [] { return int64_t{599}; });  // one second to the first report
  logger.start();
  logger.join();
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                kStarting, "E BackgroundLogger: Process loop failed: no counters", kFinished}));
}

}  // namespace
}  // namespace ns::worker
