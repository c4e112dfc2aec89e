#include "base/worker_thread.h"

#include <exception>
#include <system_error>
#include <utility>

#include "base/log.h"

namespace vantrelo::base {

namespace {

constexpr char kStartingLoop[] = "Starting process loop";
constexpr char kFinishedLoop[] = "Finished process loop";

}  // namespace

WorkerThread::~WorkerThread() {
  if (!thread_.joinable()) return;
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

void WorkerThread::start(std::function<void()> body) {
  if (thread_.joinable()) return;
  stopRequested_ = false;
  thread_ = std::thread(std::move(body));
}

void WorkerThread::join() {
  if (!thread_.joinable()) return;
  // Said plainly rather than left to the platform's thread library, which may not detect it.
  if (thread_.get_id() == std::this_thread::get_id()) {
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
  }
  thread_.join();
}

void runProcessLoop(const ProcessLoop& steps) {
  log::info(steps.logPrefix + kStartingLoop);
  try {
    steps.loop();
  } catch (const std::exception& failure) {
    const std::string line =
        (steps.failureLead.empty() ? steps.logPrefix : steps.failureLead) + failure.what();
    log::error(line);
    if (steps.failed) steps.failed(line);
  }
  if (steps.finish) steps.finish();
  log::info(steps.logPrefix + kFinishedLoop);
}

}  // namespace vantrelo::base
