// Small helpers shared by the encoding tests.
#pragma once

#include <cstddef>
#include <string>

namespace vantrelo::test {

// Byte strings from literals with NULs inside.
template <size_t N>
std::string b(const char (&text)[N]) {
  return std::string(text, N - 1);
}

// The text of the E that `run` throws, or "" when it returns.
template <typename E, typename F>
std::string errorOf(F run) {
  try {
    run();
  } catch (const E& e) {
    return e.what();
  }
  return "";
}

}  // namespace vantrelo::test
