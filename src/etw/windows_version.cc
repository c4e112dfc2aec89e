#include "etw/windows_version.h"

namespace vantrelo::etw {

namespace {

// Windows 10 and later report major version 10; the server releases differ in build number.
constexpr uint32_t kMajor2012R2 = 6;
constexpr uint32_t kMinor2012R2 = 3;
constexpr uint32_t kMajor10 = 10;

// The first build of each release that reports major version 10, newest first.
struct BuildThreshold {
  uint32_t firstBuild;
  uint32_t index;
};

const BuildThreshold kBuildThresholds[] = {
    {26100, kWindows2025},
    {20348, kWindows2022},
    {17763, kWindows2019},
    {0, kWindows2016},
};

struct VersionEntry {
  uint32_t index;
  const char* name;
  const char* configValue;  // nullptr: cannot be configured
};

const VersionEntry kVersions[] = {
    {kWindowsUnknown, "Unknown", nullptr}, {kWindows2012R2, "2012R2", "windows2012r2"},
    {kWindows2016, "2016", "windows2016"}, {kWindows2019, "2019", "windows2019"},
    {kWindows2022, "2022", "windows2022"}, {kWindows2025, "2025", "windows2025"},
};

}  // namespace

uint32_t windowsVersionFromOs(const OsVersion& version) {
  if (version.major == kMajor2012R2 && version.minor == kMinor2012R2) return kWindows2012R2;
  if (version.major == kMajor10) {
    for (const BuildThreshold& threshold : kBuildThresholds) {
      if (version.build >= threshold.firstBuild) return threshold.index;
    }
  }
  throw EtwError(
      "Unsupported Windows Server version: dwMajorVersion=" + std::to_string(version.major) +
      " dwMinorVersion=" + std::to_string(version.minor) + " dwBuildNumber=" +
      std::to_string(version.build) + " dwPlatformId=" + std::to_string(version.platform));
}

std::string windowsVersionName(uint32_t index) {
  for (const VersionEntry& entry : kVersions) {
    if (entry.index == index) return entry.name;
  }
  throw EtwError("Unsupported Windows Version: " + std::to_string(index));
}

std::optional<uint32_t> windowsVersionFromConfig(const std::string& value) {
  for (const VersionEntry& entry : kVersions) {
    if (entry.configValue != nullptr && value == entry.configValue) return entry.index;
  }
  return std::nullopt;
}

}  // namespace vantrelo::etw
