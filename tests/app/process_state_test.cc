#include "app/process_state.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace vantrelo::app {
namespace {

// A condition variable whose every wait ends after a millisecond without a notification, as a
// spurious wake-up does.
struct SpuriousCondition {
  void wait(std::unique_lock<std::mutex>& lock) {
    lock.unlock();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    lock.lock();
  }
  void notify_all() {}
};

TEST(StopSignalTest, OnlyARequestEndsTheWait) {
  // Wake-ups without a request go back to waiting. (A request made before the wait is kept:
  // the agent's tests stop a run that way.)
  BasicStopSignal<SpuriousCondition> signal;
  std::atomic<bool> returned{false};
  std::thread waiter([&] {
    signal.wait();
    returned = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(returned);
  signal.request();
  waiter.join();
  EXPECT_TRUE(returned);
}

// The first failure given names the reason; a plain request adds none; clear() forgets both.
TEST(StopSignalTest, FirstFailureWinsUntilCleared) {
  StopSignal signal;
  for (const char* reason : {"", "access denied", "session lost", ""}) signal.request(reason);
  EXPECT_EQ(signal.failure(), "access denied");
  signal.clear();
  EXPECT_FALSE(signal.requested());
  EXPECT_EQ(signal.failure(), "");
}

}  // namespace
}  // namespace vantrelo::app
