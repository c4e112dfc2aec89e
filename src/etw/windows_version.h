// Which Windows Server release's event layouts to use.
//
// The index: 0 unknown, 1 2012 R2, 2 2016, 3 2019, 4 2022, 5 2025. The mapping from a version
// record to the index and the names are plain logic; reading the running system's version record
// is a platform operation (Windows only; elsewhere it fails with an EtwError saying so).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/error.h"

namespace vantrelo::etw {

NS_DEFINE_ERROR(EtwError);

inline constexpr uint32_t kWindowsUnknown = 0;
inline constexpr uint32_t kWindows2012R2 = 1;
inline constexpr uint32_t kWindows2016 = 2;
inline constexpr uint32_t kWindows2019 = 3;
inline constexpr uint32_t kWindows2022 = 4;
inline constexpr uint32_t kWindows2025 = 5;

struct OsVersion {
  uint32_t major = 0;
  uint32_t minor = 0;
  uint32_t build = 0;
  uint32_t platform = 0;
};

// The index for a version record; throws EtwError "Unsupported Windows Server version: ...".
uint32_t windowsVersionFromOs(const OsVersion& version);
// Reads the running system's version record and maps it. Throws EtwError.
uint32_t detectWindowsVersion();
// "Unknown", "2012R2", "2016", "2019", "2022", "2025"; throws EtwError for other indices.
std::string windowsVersionName(uint32_t index);
// The index for a configuration value ("windows2012r2" ... "windows2025"), nothing otherwise.
std::optional<uint32_t> windowsVersionFromConfig(const std::string& value);

}  // namespace vantrelo::etw
