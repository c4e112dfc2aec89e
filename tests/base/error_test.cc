#include "base/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#endif

namespace vantrelo::error {
namespace {

TEST(ErrorTextTest, SystemCodes) {
  const struct {
    uint32_t code;
    const char* contains;  // in wine's text and in Windows' alike
  } cases[] = {
#ifdef _WIN32
      {ERROR_ACCESS_DENIED, "denied"},
      {ERROR_OUT_OF_PAPER, "ut of paper"},
      // Its text has an insert: it stays as it stands, where without arguments the call fails.
      {ERROR_BAD_EXE_FORMAT, "%1"},
      {WSAECONNREFUSED, "refused"},
#else
      {ENOENT, "No such file"},
#endif
      {0x7ffffff0u, "Unknown error 2147483632"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    const std::string text = systemErrorText(c.code);
    EXPECT_NE(text.find(c.contains), std::string::npos) << text;
  }
  // errno values and Windows error codes share small numbers (ENOSPC is ERROR_OUT_OF_PAPER):
  // errno values must get the C library's text.
  for (const int code : {ENOENT, EACCES, ENOSPC}) {
    EXPECT_EQ(cErrorText(static_cast<uint32_t>(code)), std::strerror(code));
  }
}

TEST(ErrorTextTest, ThreadsDoNotShareABuffer) {
  // Two threads asking for different texts at once each get their own, whole.
  const uint32_t codes[] = {static_cast<uint32_t>(ENOENT), static_cast<uint32_t>(EACCES)};
  const std::string expected[] = {systemErrorText(codes[0]), systemErrorText(codes[1])};
  std::vector<std::thread> threads;
  std::vector<int> mismatches(2, 0);
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 2000; ++i) mismatches[t] += systemErrorText(codes[t]) != expected[t];
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(2, 0));
}

}  // namespace
}  // namespace vantrelo::error
