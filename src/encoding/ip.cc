#include "encoding/ip.h"

#include <cstring>
#include <string>

namespace vantrelo::encoding::ip {

namespace {

constexpr size_t kMaxTextLength = 64;  // texts of this length or more are refused unread
constexpr size_t kIpv4Bytes = 4;
constexpr size_t kIpv6Bytes = 16;
constexpr size_t kIpv6GroupBytes = 2;
constexpr size_t kIpv6Groups = 8;
constexpr unsigned kMaxGroupDigits = 4;
constexpr char kLowerHex[] = "0123456789abcdef";

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Dotted quad: exactly four decimal octets of at most 255, no leading zeros, nothing else.
bool parseIpv4(const char* text, const char* end, uint8_t* dest) {
  uint8_t bytes[kIpv4Bytes] = {};
  size_t octets = 0;
  bool sawDigit = false;
  unsigned current = 0;
  for (const char* p = text; p < end; ++p) {
    char c = *p;
    if (c >= '0' && c <= '9') {
      if (sawDigit && current == 0) return false;  // leading zero
      current = current * 10 + static_cast<unsigned>(c - '0');
      if (current > 255) return false;
      if (!sawDigit) {
        if (++octets > kIpv4Bytes) return false;
        sawDigit = true;
      }
      bytes[octets - 1] = static_cast<uint8_t>(current);
    } else if (c == '.' && sawDigit) {
      if (octets == kIpv4Bytes) return false;
      sawDigit = false;
      current = 0;
    } else {
      return false;
    }
  }
  if (octets < kIpv4Bytes || !sawDigit) return false;
  std::memcpy(dest, bytes, kIpv4Bytes);
  return true;
}

// RFC 4291 text: up to eight groups of one to four hex digits, at most one "::" standing for
// one or more zero groups, and an optional dotted-quad tail in place of the last two groups.
bool parseIpv6(const char* text, const char* end, uint8_t* dest) {
  uint8_t bytes[kIpv6Bytes] = {};
  size_t filled = 0;
  ptrdiff_t gap = -1;  // byte position of "::", if any
  const char* p = text;
  if (p == end) return false;
  if (*p == ':') {
    ++p;
    if (p == end || *p != ':') return false;
  }
  const char* token = p;
  unsigned digits = 0;
  unsigned value = 0;
  while (p < end) {
    char c = *p++;
    int digit = hexDigitValue(c);
    if (digit >= 0) {
      if (digits == kMaxGroupDigits) return false;
      value = (value << 4) | static_cast<unsigned>(digit);
      ++digits;
      continue;
    }
    if (c == ':') {
      token = p;
      if (digits == 0) {
        if (gap >= 0) return false;
        gap = static_cast<ptrdiff_t>(filled);
        continue;
      }
      if (p == end) return false;  // trailing single colon
      if (filled + kIpv6GroupBytes > kIpv6Bytes) return false;
      bytes[filled++] = static_cast<uint8_t>(value >> 8);
      bytes[filled++] = static_cast<uint8_t>(value);
      digits = 0;
      value = 0;
      continue;
    }
    if (c == '.' && filled + kIpv4Bytes <= kIpv6Bytes && parseIpv4(token, end, bytes + filled)) {
      filled += kIpv4Bytes;
      digits = 0;
      break;
    }
    return false;
  }
  if (digits > 0) {
    if (filled + kIpv6GroupBytes > kIpv6Bytes) return false;
    bytes[filled++] = static_cast<uint8_t>(value >> 8);
    bytes[filled++] = static_cast<uint8_t>(value);
  }
  if (gap >= 0) {
    if (filled == kIpv6Bytes) return false;  // "::" must stand for at least one group
    size_t tail = filled - static_cast<size_t>(gap);
    std::memmove(bytes + kIpv6Bytes - tail, bytes + gap, tail);
    std::memset(bytes + gap, 0, kIpv6Bytes - tail - static_cast<size_t>(gap));
    filled = kIpv6Bytes;
  }
  if (filled != kIpv6Bytes) return false;
  std::memcpy(dest, bytes, kIpv6Bytes);
  return true;
}

void appendHexGroup(std::string& out, unsigned group) {
  bool started = false;
  for (int shift = 12; shift >= 0; shift -= 4) {
    unsigned nibble = (group >> shift) & 0xF;
    if (nibble != 0 || started || shift == 0) {
      out.push_back(kLowerHex[nibble]);
      started = true;
    }
  }
}

}  // namespace

bool parseIp(std::string& out, const char* text, size_t length) {
  if (length >= kMaxTextLength) throw IpError("Parse IP address failed: IP address too long");
  // The address ends at the first NUL, as it would for a C string.
  if (length == 0) throw IpError("Parse IP address  failed: Invalid IP address");
  const void* nul = std::memchr(text, '\0', length);
  const char* end = nul != nullptr ? static_cast<const char*>(nul) : text + length;
  uint8_t bytes[kIpv6Bytes];
  if (parseIpv4(text, end, bytes)) {
    out.append(reinterpret_cast<const char*>(bytes), kIpv4Bytes);
    return false;
  }
  if (parseIpv6(text, end, bytes)) {
    out.append(reinterpret_cast<const char*>(bytes), kIpv6Bytes);
    return true;
  }
  throw IpError("Parse IP address " + std::string(text, length) + " failed: Invalid IP address");
}

bool isValidIp(const char* text, size_t length) {
  try {
    std::string bytes;
    parseIp(bytes, text, length);
    return true;
  } catch (const IpError&) {
    return false;
  }
}

void formatIpv4(std::string& out, const uint8_t* bytes) {
  // Written into a local buffer and appended once: this runs twice for every formatted event.
  char text[kIpv4Bytes * 4];  // "255." four times, the last dot unused
  size_t size = 0;
  for (size_t i = 0; i < kIpv4Bytes; ++i) {
    if (i > 0) text[size++] = '.';
    const unsigned value = bytes[i];
    if (value >= 100) text[size++] = static_cast<char>('0' + value / 100);
    if (value >= 10) text[size++] = static_cast<char>('0' + value / 10 % 10);
    text[size++] = static_cast<char>('0' + value % 10);
  }
  out.append(text, size);
}

void formatIpv6(std::string& out, const uint8_t* bytes) {
  unsigned groups[kIpv6Groups];
  for (size_t i = 0; i < kIpv6Groups; ++i) {
    groups[i] = (unsigned{bytes[2 * i]} << 8) | bytes[2 * i + 1];
  }
  // The first longest run of two or more zero groups becomes "::".
  size_t bestStart = kIpv6Groups;
  size_t bestLength = 1;
  for (size_t i = 0; i < kIpv6Groups;) {
    if (groups[i] != 0) {
      ++i;
      continue;
    }
    size_t start = i;
    while (i < kIpv6Groups && groups[i] == 0) ++i;
    if (i - start > bestLength) {
      bestStart = start;
      bestLength = i - start;
    }
  }
  for (size_t i = 0; i < kIpv6Groups; ++i) {
    if (i == bestStart) {
      out.append("::");
      i += bestLength - 1;
      continue;
    }
    if (i > 0 && i != bestStart + bestLength) out.push_back(':');
    appendHexGroup(out, groups[i]);
  }
}

}  // namespace vantrelo::encoding::ip
