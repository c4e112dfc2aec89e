#include "metrics/http_request.h"

#include <gtest/gtest.h>

#include <string>

namespace vantrelo::metrics {
namespace {

TEST(HttpRequestTest, Heads) {
  struct Case {
    std::string data;
    ParseStatus status;
    const char* path;  // checked when complete
  };
  const std::string big(kMaxRequestHead, 'a');
  const Case cases[] = {
      {"\r\nGET /health?x=1 HTTP/1.0\n\n", ParseStatus::kComplete, "/health"},
      {"GET /metrics HTTP/1.1\r\nhOsT:a\r\n\r\n", ParseStatus::kComplete, "/metrics"},
      {"GET /metrics HTTP/1.1\r\nHost: a\r\n", ParseStatus::kIncomplete, ""},
      {"GET /metrics HTTP/1.1\r\n\r\n", ParseStatus::kMalformed, ""},  // no Host
      {"GET /metrics HTTP/2.0\r\n\r\n", ParseStatus::kMalformed, ""},
      {"GET  /metrics HTTP/1.0\r\n\r\n", ParseStatus::kMalformed, ""},
      {"GET metrics HTTP/1.0\r\n\r\n", ParseStatus::kMalformed, ""},
      {"GET /metrics\r\n\r\n", ParseStatus::kMalformed, ""},
      {"GET /metrics HTTP/1.0\r\nHost : a\r\n\r\n", ParseStatus::kMalformed, ""},
      {"GET /metrics HTTP/1.0\r\nNoColon\r\n\r\n", ParseStatus::kMalformed, ""},
      {"GET /metrics HTTP/1.0\r\nA: b\r\n folded\r\n\r\n", ParseStatus::kMalformed, ""},
      {"GET /metrics HTTP/1.0\r\nA: b\x01\r\n\r\n", ParseStatus::kMalformed, ""},
      {"GET /me\x7ftrics HTTP/1.0\r\n\r\n", ParseStatus::kMalformed, ""},
      {std::string("\x16\x03\x01\x02\x00\x01", 6), ParseStatus::kMalformed, ""},  // TLS
      {"GET /metrics HTTP/1.1\r\nHost: a\r\nX: " + big + "\r\n\r\n", ParseStatus::kTooLarge, ""},
      {"GET /" + big, ParseStatus::kTooLarge, ""},
  };
  for (const Case& c : cases) {
    HttpRequest request;
    EXPECT_EQ(parseRequest(c.data, request), c.status) << c.data.substr(0, 60);
    EXPECT_EQ(c.status == ParseStatus::kComplete ? request.path : "", c.path);
  }
}

}  // namespace
}  // namespace vantrelo::metrics
