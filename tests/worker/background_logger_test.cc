#include "worker/background_logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "net_test_support.h"
#include "worker_test_support.h"

namespace vantrelo::worker {
namespace {

using net::testing::LogRecorder;
using testing::waitUntil;

TEST(BackgroundLoggerTest, WaitEndsOnTheNextMultipleOfTheInterval) {
  // {now, interval, seconds to wait}
  const int64_t cases[][3] = {
      {36045, 60, 15},  // 10:00:45 -> 10:01:00
      {36060, 60, 60},  // exactly on a multiple: the next one
      {7, 0, 1},        // an interval below 1 counts as 1
      {-5, 60, 5},      // before the epoch still lands on a multiple
  };
  for (const auto& c : cases) {
    EXPECT_EQ(BackgroundLogger::secondsUntilNextReport(c[0], static_cast<int32_t>(c[1])), c[2])
        << c[0] << " " << c[1];
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
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(900));
  // The second clock read comes just before the hour-long wait.
  ASSERT_TRUE(waitUntil([&] { return reads == 2; }));
  logger.requestStop();
  logger.join();
  const std::vector<std::string> expected = {
      "I Metrics: queue[type=message eventsProcessed=0 eventsQueued=1 eventsDropped=0]",
      "I Metrics: queue[type=message eventsProcessed=0 eventsQueued=2 eventsDropped=0]"};
  EXPECT_EQ(testing::linesStartingWith(log, "I Metrics: "), expected);
}

}  // namespace
}  // namespace vantrelo::worker
