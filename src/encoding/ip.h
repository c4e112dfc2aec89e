// IP addresses between text and network-order bytes. Parsing accepts exactly what the system's
// inet_pton accepts (dotted quad; RFC 4291 text with an optional dotted-quad tail), so it needs
// no platform code. Formatting appends to `out`. Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/error.h"

namespace vantrelo::encoding::ip {

NS_DEFINE_ERROR(IpError);

// Appends 4 or 16 bytes to `out`; returns true for IPv6. Throws IpError.
bool parseIp(std::string& out, const char* text, size_t length);
bool isValidIp(const char* text, size_t length);
void formatIpv4(std::string& out, const uint8_t* bytes);
// Canonical text: lower-case groups, the first longest run (2 or more) of zero groups as "::".
void formatIpv6(std::string& out, const uint8_t* bytes);

}  // namespace vantrelo::encoding::ip
