#include "base/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

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

}  // namespace
}  // namespace vantrelo::error
