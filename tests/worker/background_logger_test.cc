#include "worker/background_logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "encoding/log.h"

namespace ns::worker {
namespace {

using Clock = std::chrono::steady_clock;

// Takes every log line while installed; lines of the logger thread arrive under the log mutex.
class RecordingLog : public log::SystemLog {
 public:
  RecordingLog() { log::setSystemLog(this); }
  ~RecordingLog() override { log::setSystemLog(nullptr); }
  bool write(log::Level level, const std::string& message) override {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back((level == log::Level::kError ? "E " : "I ") + message);
    return true;
  }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// Counts events seen by the logger thread and lets the test wait for them.
class Signal {
 public:
  void raise() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    condition_.notify_all();
  }
  bool waitFor(int count, std::chrono::seconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return condition_.wait_for(lock, timeout, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  int count_ = 0;
};

const char kStarting[] = "I BackgroundLogger: Starting process loop";
const char kFinished[] = "I BackgroundLogger: Finished process loop";
const char kEmptyKv[] =
    "I Metrics: queue[type=message eventsProcessed=0 eventsQueued=0 eventsDropped=0]";

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
  RecordingLog recording;
  Signal clockReads;
  Signal reports;
  format::MetricsSettings settings;
  settings.interval = 3600;
  std::atomic<int> reads{0};
  // One second before a multiple at the first read, a whole interval away afterwards.
  auto wallClock = [&]() -> int64_t {
    const int read = reads++;
    clockReads.raise();
    return read == 0 ? 7199 : 7200;
  };
  std::atomic<uint64_t> queued{0};
  BackgroundLogger logger(
      settings,
      [&](format::MetricsSnapshot& snapshot) {
        snapshot.queue.events_queued = ++queued;
        reports.raise();
      },
      wallClock);

  const Clock::time_point started = Clock::now();
  logger.start();
  ASSERT_TRUE(reports.waitFor(1, std::chrono::seconds(10)));
  const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
  EXPECT_GE(elapsed, 0.9);
  EXPECT_LT(elapsed, 3.0);

  // The second clock read comes after the flag test, just before the hour-long wait.
  ASSERT_TRUE(clockReads.waitFor(2, std::chrono::seconds(10)));
  logger.requestStop();
  logger.join();
  logger.join();  // a second join has nothing left to wait for

  const std::vector<std::string> expected = {
      kStarting,
      "I Metrics: queue[type=message eventsProcessed=0 eventsQueued=1 eventsDropped=0]",
      "I Metrics: queue[type=message eventsProcessed=0 eventsQueued=2 eventsDropped=0]",
      kFinished,
  };
  EXPECT_EQ(recording.lines(), expected);
}

TEST(BackgroundLoggerTest, JsonLayoutAndRestart) {
  RecordingLog recording;
  Signal clockReads;
  format::MetricsSettings settings;
  settings.interval = 3600;
  settings.format = format::MetricsFormat::kJson;
  BackgroundLogger logger(
      settings, [](format::MetricsSnapshot&) {},
      [&]() -> int64_t {
        clockReads.raise();
        return 0;
      });
  logger.start();
  ASSERT_TRUE(clockReads.waitFor(1, std::chrono::seconds(10)));
  logger.requestStop();
  logger.join();
  // A stopped logger can be started again.
  logger.start();
  ASSERT_TRUE(clockReads.waitFor(2, std::chrono::seconds(10)));
  logger.requestStop();
  logger.join();
  const std::string report =
      "I Metrics: {\"listeners\":[],\"receivers\":[],\"queue\":{\"eventsProcessed\":0,"
      "\"eventsQueued\":0,\"eventsDropped\":0},\"forwarders\":[]}";
  const std::vector<std::string> expected = {kStarting, report, kFinished,
                                             kStarting, report, kFinished};
  EXPECT_EQ(recording.lines(), expected);
}

TEST(BackgroundLoggerTest, FailuresEndTheLoopWithTheirMessage) {
  struct Case {
    const char* name;
    bool joinFromOwnThread;
    std::string expected_error;
  };
  const Case cases[] = {
      {"collect throws", false, "E BackgroundLogger: Process loop failed: no counters"},
      {"join from the logger's thread", true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RecordingLog recording;
    format::MetricsSettings settings;
    settings.interval = 3600;
    std::error_code joinError;
    BackgroundLogger* self = nullptr;
    BackgroundLogger logger(
        settings,
        [&](format::MetricsSnapshot&) {
          if (!c.joinFromOwnThread) throw std::runtime_error("no counters");
          try {
            self->join();
          } catch (const std::system_error& e) {
            joinError = e.code();
          }
        },
        [] { return int64_t{3599}; });  // one second to the first report
    self = &logger;
    logger.start();
    if (c.joinFromOwnThread) {
      // The refused join leaves the thread running; it reports again after stop.
      std::this_thread::sleep_for(std::chrono::milliseconds(1500));
      logger.requestStop();
    }
    logger.join();
    const std::vector<std::string> lines = recording.lines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines.front(), kStarting);
    EXPECT_EQ(lines.back(), kFinished);
    if (c.joinFromOwnThread) {
      EXPECT_EQ(joinError, std::errc::resource_deadlock_would_occur);
      EXPECT_EQ(lines[1], kEmptyKv);
    } else {
      EXPECT_EQ(lines, (std::vector<std::string>{kStarting, c.expected_error, kFinished}));
    }
  }
}

}  // namespace
}  // namespace ns::worker
