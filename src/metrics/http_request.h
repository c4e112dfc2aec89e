// The request head of the endpoint's HTTP/1.x server: request line and header fields.
//
// parseRequest looks at everything received so far on a connection and says whether the head is
// complete, still incomplete, malformed, or larger than the server accepts. Only what the
// endpoint needs is kept: the method, the path (without its query) and the version. A body is
// never read: every response closes the connection. Lines may end in CRLF or a bare LF, as
// HTTP/1.1 recipients are asked to accept. Stateless and thread-safe; the views in HttpRequest
// point into the caller's data.
#pragma once

#include <cstddef>
#include <string_view>

namespace vantrelo::metrics {

// The request line and header fields together may not exceed this.
inline constexpr size_t kMaxRequestHead = 8192;

enum class ParseStatus { kIncomplete, kComplete, kMalformed, kTooLarge };

struct HttpRequest {
  std::string_view method;
  std::string_view path;  // the target up to its '?'
  std::string_view version;
};

ParseStatus parseRequest(std::string_view data, HttpRequest& request);

}  // namespace vantrelo::metrics
