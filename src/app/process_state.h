// Process-wide state shared by the entry, the platform layer and the agent run.
//
// The entry sets the configuration path and the standard-output mode once, before the agent
// run starts; they are read-only afterwards. The stop request is a StopSignal: a flag beside
// the mutex and condition variable, so that a request made before the run waits (a SIGTERM
// during start-up, a service stop while the queue loads) is kept, and a wake-up without a
// request cannot end the run. requestStop() and reportRunFailure() are safe from any thread,
// including the signal thread and the service-control and console-control threads; they take
// the stop mutex only for the moment of setting the flag.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

namespace vantrelo::app {

void setConfigPath(const char* path);
const char* configPath();

void setStandardOutputMode(bool enabled);
bool standardOutputMode();

// A stop request that is remembered until cleared, with the reason when a failure caused it
// (the first reason wins). `Condition` is std::condition_variable; the tests put in one that
// wakes without being notified. Thread-safe.
template <typename Condition>
class BasicStopSignal {
 public:
  void request(const std::string& failure = std::string()) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requested_ = true;
      if (failure_.empty()) failure_ = failure;
    }
    condition_.notify_all();
  }

  // Returns once a stop was requested, at once if it already was. Any other wake-up (a
  // spurious one) goes back to waiting.
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!requested_) condition_.wait(lock);
  }

  bool requested() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requested_;
  }

  // The failure that ended the run; empty after a plain stop request.
  std::string failure() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return failure_;
  }

  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    requested_ = false;
    failure_.clear();
  }

 private:
  mutable std::mutex mutex_;
  Condition condition_;
  bool requested_ = false;
  std::string failure_;
};

using StopSignal = BasicStopSignal<std::condition_variable>;

// The process's stop signal, which the agent run waits on.
StopSignal& stopSignal();

// Asks the agent run to stop in order; kept until the run has ended.
inline void requestStop() { stopSignal().request(); }

// Ends the agent run as failed: it stops in order and saves the queue like after requestStop(),
// then logs "Run failed: " + `reason` instead of "Stopped", and a service reports a failure. For
// a worker that cannot go on (a trace session that cannot start); `reason` must not be empty.
inline void reportRunFailure(const std::string& reason) { stopSignal().request(reason); }

}  // namespace vantrelo::app
