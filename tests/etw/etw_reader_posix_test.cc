#include <gtest/gtest.h>

#include "etw/etw_reader.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {
namespace {

TEST(EtwReaderPosix, CaptureNeedsWindows) {
  EtwSettings settings;
  settings.windowsVersion = kWindows2019;
  EtwReader reader(settings, "Listener[0]: ");
  try {
    reader.run(nullptr, nullptr);
    ADD_FAILURE() << "run returned";
  } catch (const EtwError& e) {
    EXPECT_STREQ(e.what(), "ETW capture needs Windows");
  }
  EXPECT_THROW(reader.queryStatistics(), EtwError);
  reader.stop();
  EXPECT_EQ(reader.statistics().eventsLost, 0u);
}

}  // namespace
}  // namespace vantrelo::etw
