#include "encoding/log.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace ns::log {
namespace {

class RecordingLog : public SystemLog {
 public:
  explicit RecordingLog(bool accept) : accept_(accept) {}
  bool write(Level level, const std::string& message) override {
    entries.emplace_back(level, message);
    return accept_;
  }
  std::vector<std::pair<Level, std::string>> entries;

 private:
  bool accept_;
};

TEST(LogTest, ConsoleLinesCarryTheLevelPrefixOnTheirStream) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  info("Started");
  warning("");
  error("Run failed: x");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[INFO] Started\n[WARN] \n");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[ERROR] Run failed: x\n");
}

TEST(LogTest, SystemLogTakesEntriesAndFailedWritesFallBackToTheConsole) {
  RecordingLog accepting(true);
  setSystemLog(&accepting);
  testing::internal::CaptureStdout();
  info("to the system log");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  ASSERT_EQ(accepting.entries.size(), 1u);
  EXPECT_EQ(accepting.entries[0].first, Level::kInformation);

  RecordingLog refusing(false);
  setSystemLog(&refusing);
  testing::internal::CaptureStdout();
  warning("kept anyway");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[WARN] kept anyway\n");
  setSystemLog(nullptr);
}

}  // namespace
}  // namespace ns::log
