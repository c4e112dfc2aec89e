// The one file-system call the queue file needs from the platform.
#pragma once

#include <cstdint>
#include <string>

namespace vantrelo::file::platform {

// Large-file stat of `path`: 0 with `size` set, or the C library's error number.
uint32_t statSize(const std::string& path, uint64_t& size);

}  // namespace vantrelo::file::platform
