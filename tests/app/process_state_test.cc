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
  // A request made before the wait is kept: the wait returns at once.
  StopSignal early;
  early.request();
  early.wait();
  EXPECT_TRUE(early.requested());

  // Wake-ups without a request go back to waiting.
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

TEST(StopSignalTest, FirstFailureWinsUntilCleared) {
  const struct {
    const char* first;
    const char* second;
    const char* failure;
  } cases[] = {
      {"", "", ""},
      {"", "session lost", "session lost"},
      {"session lost", "", "session lost"},
      {"access denied", "session lost", "access denied"},
  };
  StopSignal signal;
  for (const auto& c : cases) {
    signal.request(c.first);
    signal.request(c.second);
    EXPECT_EQ(signal.failure(), c.failure) << c.first << " then " << c.second;
    signal.clear();
    EXPECT_FALSE(signal.requested());
    EXPECT_EQ(signal.failure(), "");
  }
}

}  // namespace
}  // namespace vantrelo::app
