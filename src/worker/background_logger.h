// The worker that logs the metrics report at a fixed wall-clock rhythm.
//
// The agent run owns the BackgroundLogger and the workers whose counters it reports; the logger
// reaches them only through the `collect` callback, which it calls on its own thread to fill a
// snapshot it owns. start(), requestStop() and join() are called from the agent's thread;
// requestStop() may also be called from any other thread. collect must be safe to call while
// the other workers run (their counters are atomics).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "base/worker_thread.h"
#include "format/metrics_report.h"
#include "format/metrics_settings.h"

namespace vantrelo::worker {

class BackgroundLogger {
 public:
  using Collect = std::function<void(format::MetricsSnapshot&)>;
  // Wall-clock seconds since the epoch; replaceable so the rhythm can be tested without waiting.
  using WallClock = std::function<int64_t()>;

  static int64_t systemWallSeconds();

  // Seconds from `now` to the next wall-clock multiple of `interval` (never 0: at an exact
  // multiple the next report is a whole interval away). An interval below 1 counts as 1.
  static int64_t secondsUntilNextReport(int64_t now, int32_t interval);

  BackgroundLogger(const format::MetricsSettings& settings, Collect collect,
                   WallClock wallClock = &BackgroundLogger::systemWallSeconds);
  // Stops and joins a thread that is still running.
  ~BackgroundLogger();
  BackgroundLogger(const BackgroundLogger&) = delete;
  BackgroundLogger& operator=(const BackgroundLogger&) = delete;

  // Creates the thread unless it exists. Throws std::system_error
  // (resource_unavailable_try_again) when no thread can be created.
  void start();
  // Sets the stop flag and wakes the thread; returns at once. A stop during the wait for the next
  // report still writes that report, so the counters of the last period are not lost.
  void requestStop();
  // Waits for the thread to end. Throws std::system_error (resource_deadlock_would_occur) when
  // called from the logger's own thread.
  void join();

 private:
  void run();
  void processLoop();
  void report();

  const format::MetricsSettings settings_;
  const Collect collect_;
  const WallClock wallClock_;

  std::mutex waitMutex_;
  std::condition_variable waitCondition_;

  // Reused between reports; touched only by the logger's thread.
  format::MetricsSnapshot snapshot_;
  std::string line_;

  base::WorkerThread thread_;  // last: joined before the members above go
};

}  // namespace vantrelo::worker
