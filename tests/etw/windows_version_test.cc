#include "etw/windows_version.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace vantrelo::etw {
namespace {

// The release index for a version record, or the refusal.
TEST(WindowsVersionTest, MapsVersionRecordsToReleases) {
  const std::string kRefused = "Unsupported Windows Server version: dwMajorVersion=";
  // Each release from its first build on; 6.2 is older than any release read, 11 unknown.
  // clang-format off
  const std::pair<OsVersion, std::string> cases[] = {
      {{6, 3, 9600, 2}, "1"}, {{10, 0, 0, 2}, "2"}, {{10, 0, 17762, 2}, "2"},
      {{10, 0, 17763, 2}, "3"}, {{10, 0, 20347, 2}, "3"}, {{10, 0, 20348, 2}, "4"},
      {{10, 0, 26099, 2}, "4"}, {{10, 0, 26100, 2}, "5"}, {{10, 0, 4000000000u, 2}, "5"},
      {{6, 2, 9200, 2}, kRefused + "6 dwMinorVersion=2 dwBuildNumber=9200 dwPlatformId=2"},
      {{11, 0, 30000, 2}, kRefused + "11 dwMinorVersion=0 dwBuildNumber=30000 dwPlatformId=2"}};
  // clang-format on
  for (const auto& [version, expected] : cases) {
    std::string result;
    try {
      result = std::to_string(windowsVersionFromOs(version));
    } catch (const EtwError& e) {
      result = e.what();
    }
    EXPECT_EQ(result, expected) << "build " << version.build;
  }
}

}  // namespace
}  // namespace vantrelo::etw
