// UTC time stamps in the three layouts the output formats use. Each appends to `out`. The
// calendar breakdown is computed here (proleptic Gregorian, any 64-bit time), so Windows and
// Linux agree for every year, 2038 and later included. Thread-safe: no shared state.
#pragma once

#include <cstdint>
#include <string>

namespace vantrelo::encoding::time {

// "%04d%02d%02d%02d%02d%02d", 14 characters.
void formatCompactTime(std::string& out, int64_t seconds);
// "%04d-%02d-%02dT%02d:%02d:%02d.%uZ" with the microseconds (nanoseconds / 1000) unpadded.
void formatRfc3339Time(std::string& out, int64_t seconds, uint32_t nanoseconds);
// "%s %2d %02d:%02d:%02d": month abbreviation, space-padded day, time; 15 characters.
void formatRfc3164Time(std::string& out, int64_t seconds);

}  // namespace vantrelo::encoding::time
