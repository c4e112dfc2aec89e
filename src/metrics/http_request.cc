#include "metrics/http_request.h"

namespace vantrelo::metrics {

namespace {

// The token characters of a method or a field name.
bool isTokenChar(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  for (char allowed : std::string_view("!#$%&'*+-.^_`|~")) {
    if (c == allowed) return true;
  }
  return false;
}

bool isToken(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (!isTokenChar(c)) return false;
  }
  return true;
}

// Visible characters only: no white space, no control bytes.
bool isTarget(std::string_view text) {
  if (text.empty() || (text[0] != '/' && text != "*")) return false;
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7f) return false;
  }
  return true;
}

bool isFieldValue(std::string_view text) {
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && c != '\t') || byte == 0x7f) return false;
  }
  return true;
}

// Takes the next line off `rest`, without its LF or CRLF; false when no line end is left.
bool takeLine(std::string_view& rest, std::string_view& line) {
  const size_t end = rest.find('\n');
  if (end == std::string_view::npos) return false;
  line = rest.substr(0, end);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  rest.remove_prefix(end + 1);
  return true;
}

bool parseRequestLine(std::string_view line, HttpRequest& request) {
  const size_t first = line.find(' ');
  const size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return false;
  request.method = line.substr(0, first);
  const std::string_view target = line.substr(first + 1, last - first - 1);
  request.version = line.substr(last + 1);
  if (!isToken(request.method) || !isTarget(target)) return false;
  if (request.version != "HTTP/1.1" && request.version != "HTTP/1.0") return false;
  request.path = target.substr(0, target.find('?'));
  return true;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    const char x = (a[i] >= 'A' && a[i] <= 'Z') ? static_cast<char>(a[i] - 'A' + 'a') : a[i];
    if (x != b[i]) return false;
  }
  return true;
}

}  // namespace

ParseStatus parseRequest(std::string_view data, HttpRequest& request) {
  std::string_view rest = data;
  std::string_view line;
  // Senders may put empty lines before the request line.
  while (rest.starts_with("\r\n") || rest.starts_with('\n'))
    rest.remove_prefix(rest[0] == '\r' ? 2 : 1);
  if (!takeLine(rest, line)) {
    // Bytes that cannot start a method (a TLS handshake, say) need not wait for a line end.
    for (char c : rest.substr(0, rest.find(' '))) {
      if (!isTokenChar(c)) return ParseStatus::kMalformed;
    }
    return data.size() > kMaxRequestHead ? ParseStatus::kTooLarge : ParseStatus::kIncomplete;
  }
  // A bad request line is answered at once, without waiting for the rest of the head.
  if (!parseRequestLine(line, request)) return ParseStatus::kMalformed;
  bool host = false;
  for (;;) {
    if (!takeLine(rest, line)) {
      return data.size() > kMaxRequestHead ? ParseStatus::kTooLarge : ParseStatus::kIncomplete;
    }
    if (line.empty()) break;
    const size_t colon = line.find(':');
    // No white space before the colon, and no folded continuation lines.
    if (colon == std::string_view::npos || !isToken(line.substr(0, colon)) ||
        !isFieldValue(line.substr(colon + 1))) {
      return ParseStatus::kMalformed;
    }
    host = host || equalsIgnoringCase(line.substr(0, colon), "host");
  }
  if (data.size() - rest.size() > kMaxRequestHead) return ParseStatus::kTooLarge;
  // Every HTTP/1.1 request names its host.
  if (request.version == "HTTP/1.1" && !host) return ParseStatus::kMalformed;
  return ParseStatus::kComplete;
}

}  // namespace vantrelo::metrics
