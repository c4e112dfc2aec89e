#include "etw/windows_version.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace ns::etw {
namespace {

TEST(WindowsVersionTest, MapsVersionRecordsToReleases) {
  struct Case {
    OsVersion version;
    uint32_t expected;
  };
  const Case cases[] = {
      {{6, 3, 9600, 2}, kWindows2012R2}, {{10, 0, 14393, 2}, kWindows2016},
      {{10, 0, 17762, 2}, kWindows2016}, {{10, 0, 17763, 2}, kWindows2019},
      {{10, 0, 20347, 2}, kWindows2019}, {{10, 0, 20348, 2}, kWindows2022},
      {{10, 0, 26099, 2}, kWindows2022}, {{10, 0, 26100, 2}, kWindows2025},
      {{10, 0, 0, 2}, kWindows2016},     {{10, 0, 4000000000u, 2}, kWindows2025},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(windowsVersionFromOs(c.version), c.expected) << "build " << c.version.build;
  }
}

TEST(WindowsVersionTest, RefusesUnsupportedVersionRecords) {
  const std::pair<OsVersion, std::string> cases[] = {
      {{6, 2, 9200, 2}, "6 dwMinorVersion=2 dwBuildNumber=9200 dwPlatformId=2"},
      {{6, 1, 7601, 2}, "6 dwMinorVersion=1 dwBuildNumber=7601 dwPlatformId=2"},
      {{11, 0, 30000, 2}, "11 dwMinorVersion=0 dwBuildNumber=30000 dwPlatformId=2"},
  };
  for (const auto& [version, rest] : cases) {
    try {
      windowsVersionFromOs(version);
      ADD_FAILURE() << "accepted " << rest;
    } catch (const EtwError& e) {
      EXPECT_EQ(e.what(), "Unsupported Windows Server version: dwMajorVersion=" + rest);
    }
  }
}

TEST(WindowsVersionTest, NamesAndConfigurationValuesAgree) {
  struct Case {
    uint32_t index;
    const char* name;
    const char* configValue;
  };
  const Case cases[] = {
      {kWindowsUnknown, "Unknown", nullptr}, {kWindows2012R2, "2012R2", "windows2012r2"},
      {kWindows2016, "2016", "windows2016"}, {kWindows2019, "2019", "windows2019"},
      {kWindows2022, "2022", "windows2022"}, {kWindows2025, "2025", "windows2025"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(windowsVersionName(c.index), c.name);
    if (c.configValue != nullptr) {
      EXPECT_EQ(windowsVersionFromConfig(c.configValue), c.index);
    }
  }
}

TEST(WindowsVersionTest, RefusesUnknownIndicesAndSpellings) {
  try {
    windowsVersionName(6);
    ADD_FAILURE() << "named index 6";
  } catch (const EtwError& e) {
    EXPECT_STREQ(e.what(), "Unsupported Windows Version: 6");
  }
  for (const char* value : {"Windows2019", "windows2019 ", "2019", "unknown", "", "windows2008"}) {
    EXPECT_FALSE(windowsVersionFromConfig(value).has_value()) << value;
  }
}

}  // namespace
}  // namespace ns::etw
