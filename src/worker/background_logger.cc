#include "worker/background_logger.h"

#include <chrono>
#include <ctime>
#include <exception>
#include <system_error>
#include <utility>

#include "base/log.h"

namespace vantrelo::worker {

namespace {

constexpr char kStartingLine[] = "BackgroundLogger: Starting process loop";
constexpr char kFinishedLine[] = "BackgroundLogger: Finished process loop";
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

BackgroundLogger::~BackgroundLogger() {
  if (!thread_.joinable()) return;
  requestStop();
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // destroyed by its own thread: it is ending anyway
  } else {
    thread_.join();
  }
}

void BackgroundLogger::start() {
  if (thread_.joinable()) return;
  stopRequested_ = false;
  thread_ = std::thread(&BackgroundLogger::run, this);
}

void BackgroundLogger::requestStop() {
  if (!thread_.joinable()) return;
  // Set under the wait's mutex: a request that landed between the loop's flag test and the start
  // of its wait would otherwise be seen only when that wait ends, up to a whole interval (ten
  // minutes by default) later, and the agent's stop, and the saving of the queue behind it,
  // would wait that long.
  {
    std::lock_guard<std::mutex> lock(waitMutex_);
    stopRequested_ = true;
  }
  waitCondition_.notify_all();
}

void BackgroundLogger::join() {
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
  }
  thread_.join();
}

void BackgroundLogger::run() {
  log::info(kStartingLine);
  try {
    processLoop();
  } catch (const std::exception& e) {
    log::error(kFailedPrefix + std::string(e.what()));
  }
  log::info(kFinishedLine);
}

void BackgroundLogger::processLoop() {
  while (!stopRequested_) {
    // Reports fall on wall-clock multiples of the interval (every full ten minutes by default),
    // whenever the agent was started, so reports of several agents line up.
    const int64_t wait = secondsUntilNextReport(wallClock_(), settings_.interval);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(wait);
    {
      std::unique_lock<std::mutex> lock(waitMutex_);
      waitCondition_.wait_until(lock, deadline, [this] { return stopRequested_.load(); });
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
