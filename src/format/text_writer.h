// Small appenders shared by the message formats and the metrics report.
//
// Every function appends to a caller's buffer and allocates only when that buffer has to grow,
// so the formatters can run on their hot path without touching the heap. Stateless and
// thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vantrelo::format {

// Plain decimal, no padding, no sign for unsigned values.
void appendDecimal(std::string& out, uint64_t value);
void appendSignedDecimal(std::string& out, int64_t value);

// Appends `text` between double quotes as a JSON string. Only backspace, tab, line feed, form
// feed, carriage return, '"', '/' and '\' are escaped (the solidus on purpose, so the output can
// sit inside HTML script blocks); every other byte, control bytes and bytes from 0x80 up
// included, is copied raw. No "\u" escape is ever written.
void appendJsonString(std::string& out, const char* text, size_t length);
inline void appendJsonString(std::string& out, std::string_view text) {
  appendJsonString(out, text.data(), text.size());
}

}  // namespace vantrelo::format
