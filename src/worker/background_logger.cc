#include "worker/background_logger.h"

#include <chrono>
#include <ctime>
#include <utility>

#include "base/log.h"

namespace vantrelo::worker {

namespace {

constexpr char kPrefix[] = "BackgroundLogger: ";
constexpr char kFailedPrefix[] = "BackgroundLogger: Process loop failed: ";
constexpr char kMetricsPrefix[] = "Metrics: ";

}  // namespace

int64_t BackgroundLogger::systemWallSeconds() { return static_cast<int64_t>(std::time(nullptr)); }

int64_t BackgroundLogger::secondsUntilNextReport(int64_t now, int32_t interval) {
  const int64_t period = interval < 1 ? 1 : interval;
  int64_t remainder = now % period;
  if (remainder < 0) remainder += period;  // a clock before 1970 still lands on a multiple
  return period - remainder;
}

BackgroundLogger::BackgroundLogger(const format::MetricsSettings& settings, Collect collect,
                                   WallClock wallClock)
    : settings_(settings), collect_(std::move(collect)), wallClock_(std::move(wallClock)) {}

BackgroundLogger::~BackgroundLogger() { requestStop(); }

void BackgroundLogger::start() {
  thread_.start([this] { run(); });
}

void BackgroundLogger::requestStop() {
  if (!thread_.started()) return;
  // Set under the wait's mutex: a request that landed between the loop's flag test and the start
  // of its wait would otherwise be seen only when that wait ends, up to a whole interval (ten
  // minutes by default) later, and the agent's stop, and the saving of the queue behind it,
  // would wait that long.
  {
    std::lock_guard<std::mutex> lock(waitMutex_);
    thread_.requestStop();
  }
  waitCondition_.notify_all();
}

void BackgroundLogger::join() { thread_.join(); }

void BackgroundLogger::run() {
  base::runProcessLoop(
      {.logPrefix = kPrefix, .loop = [this] { processLoop(); }, .failureLead = kFailedPrefix});
}

void BackgroundLogger::processLoop() {
  while (!thread_.stopRequested()) {
    // Reports fall on wall-clock multiples of the interval (every full ten minutes by default),
    // whenever the agent was started, so reports of several agents line up.
    const int64_t wait = secondsUntilNextReport(wallClock_(), settings_.interval);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(wait);
    {
      std::unique_lock<std::mutex> lock(waitMutex_);
      waitCondition_.wait_until(lock, deadline, [this] { return thread_.stopRequested(); });
    }
    report();
  }
}

void BackgroundLogger::report() {
  snapshot_.clear();
  collect_(snapshot_);
  line_.assign(kMetricsPrefix);
  format::formatReport(snapshot_, settings_.format == format::MetricsFormat::kJson, line_);
  log::info(line_);
}

}  // namespace vantrelo::worker
