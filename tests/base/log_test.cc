#include "base/log.h"

#include <gtest/gtest.h>

#include <string>

namespace vantrelo::log {
namespace {

struct RecordingLog : SystemLog {
  bool write(Level level, const std::string& message) override {
    entries += level == Level::kError ? "E:" : level == Level::kWarning ? "W:" : "I:";
    entries += message + ";";
    return accept;
  }
  bool accept = true;
  std::string entries;
};

// Each call goes to an installed system log; without one, or when its write fails, it becomes a
// console line with the level's prefix on the level's stream.
TEST(LogTest, SystemLogOrConsoleLines) {
  const std::string kOut = "[INFO] Started\n[WARN] \n", kErr = "[ERROR] Run failed: x\n";
  struct Case {
    int backend;  // 0: none, 1: accepting, 2: refusing
    std::string entries, out, err;
  } const cases[] = {{0, "", kOut, kErr},
                     {1, "I:Started;W:;E:Run failed: x;", "", ""},
                     {2, "I:Started;W:;E:Run failed: x;", kOut, kErr}};
  for (const Case& c : cases) {
    RecordingLog backend;
    backend.accept = c.backend == 1;
    setSystemLog(c.backend == 0 ? nullptr : &backend);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    info("Started");
    warning("");
    error("Run failed: x");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
    EXPECT_EQ(backend.entries, c.entries);
  }
  setSystemLog(nullptr);
}

}  // namespace
}  // namespace vantrelo::log
