#include "base/worker_thread.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "base/log.h"

namespace vantrelo::base {
namespace {

struct RecordingLog : log::SystemLog {
  bool write(log::Level level, const std::string& message) override {
    *entries += (level == log::Level::kError ? "E:" : "I:") + message + ";";
    return true;
  }
  std::string* entries;
};

// The lines and steps of one loop, in the order they happen, on the worker's thread.
TEST(WorkerThreadTest, ProcessLoopLinesAndSteps) {
  struct Case {
    bool throws;
    std::string failureLead, expected;
  } const cases[] = {
      {false, "", "I:W: Starting process loop;loop;finish;I:W: Finished process loop;"},
      {true, "",
       "I:W: Starting process loop;loop;E:W: boom;failed(W: boom);finish;"
       "I:W: Finished process loop;"},
      {true, "W: Loop failed: ",
       "I:W: Starting process loop;loop;E:W: Loop failed: boom;"
       "failed(W: Loop failed: boom);finish;I:W: Finished process loop;"},
  };
  for (const Case& c : cases) {
    std::string entries;
    RecordingLog backend;
    backend.entries = &entries;
    log::setSystemLog(&backend);
    WorkerThread thread;
    thread.start([&] {
      runProcessLoop(
          {.logPrefix = "W: ",
           .loop =
               [&] {
                 entries += "loop;";
                 if (c.throws) throw std::runtime_error("boom");
               },
           .finish = [&] { entries += "finish;"; },
           .failureLead = c.failureLead,
           .failed = [&](const std::string& line) { entries += "failed(" + line + ");"; }});
    });
    thread.join();
    log::setSystemLog(nullptr);
    EXPECT_EQ(entries, c.expected);
  }
}

}  // namespace
}  // namespace vantrelo::base
