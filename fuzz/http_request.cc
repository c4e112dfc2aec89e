// Fuzz target: the metrics endpoint's request head parser and the response chosen for it. A
// complete head names a path that starts the way a request target must, and every answer is a
// whole HTTP/1.1 response.
#include "metrics/http_request.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "metrics/metrics_endpoint.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static vantrelo::metrics::MetricsEndpoint endpoint({}, "0", {});
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  vantrelo::metrics::HttpRequest request;
  const vantrelo::metrics::ParseStatus status = vantrelo::metrics::parseRequest(text, request);
  if (status == vantrelo::metrics::ParseStatus::kComplete &&
      !(request.path.starts_with('/') || request.path == "*")) {
    std::abort();
  }
  if (status != vantrelo::metrics::ParseStatus::kIncomplete) {
    const std::string response = endpoint.respond(status, request);
    if (!response.starts_with("HTTP/1.1 ") || response.find("\r\n\r\n") == std::string::npos) {
      std::abort();
    }
  }
  return 0;
}
