#pragma once

#include <cstdint>

namespace vantrelo::format {

enum class MetricsFormat : uint32_t { kKv = 0, kJson = 1 };

struct MetricsSettings {
  int32_t interval = 600;  // seconds, at least 1
  MetricsFormat format = MetricsFormat::kKv;
};

}  // namespace vantrelo::format
