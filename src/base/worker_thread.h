// The thread of one long-running worker: a listener, the metrics endpoint, the background logger.
//
// Each of these workers runs one loop on a thread of its own until a stop flag is set, and its
// log shows that loop the same way: "<prefix>Starting process loop", the failure that ended it
// (if one did), "<prefix>Finished process loop". WorkerThread holds the thread and the flag;
// runProcessLoop() is the thread's body around the worker's loop. What a worker's stop must also
// do (close a socket, wake a wait) stays with the worker.
//
// Owned by the worker, as its last member: the destructor joins the thread, which must end
// before the members it uses are destroyed. start(), join() and the destructor are called by
// the worker's owner; requestStop() and stopRequested() by any thread.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

namespace vantrelo::base {

class WorkerThread {
 public:
  WorkerThread() = default;
  // Joins a thread still running, so the worker stops it first; one destroyed by its own
  // thread is detached, as that thread is ending anyway.
  ~WorkerThread();
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;

  // Unless the thread exists: clears the stop flag and runs `body` on a new thread. Throws
  // std::system_error (resource_unavailable_try_again) when no thread can be created.
  void start(std::function<void()> body);
  bool started() const { return thread_.joinable(); }

  void requestStop() { stopRequested_ = true; }
  bool stopRequested() const { return stopRequested_.load(); }

  // Waits for the thread to end; returns at once when there is none. Throws std::system_error
  // (resource_deadlock_would_occur) when called from the thread itself.
  void join();

 private:
  std::thread thread_;
  std::atomic<bool> stopRequested_{false};
};

// How a worker's loop runs and reports.
struct ProcessLoop {
  std::string logPrefix;                   // starts the thread's lines, e.g. "Listener[1]: "
  std::function<void()> loop;              // returns once the stop flag is seen
  std::function<void()> finish = nullptr;  // if set, runs after the loop, whatever ended it
  // The error line of a failure is failureLead (logPrefix when empty) and the failure's text;
  // `failed`, if set, is then given that line.
  std::string failureLead = {};
  std::function<void(const std::string& line)> failed = nullptr;
};

// The body of a worker's thread: logs the starting line, runs the loop, catches and logs a
// failure that escapes it, runs `finish` and logs the finished line. Never throws what the loop
// throws.
void runProcessLoop(const ProcessLoop& steps);

}  // namespace vantrelo::base
