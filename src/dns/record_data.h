// Record data (RDATA) in presentation form, one line per record.
//
// Free functions appending to a caller's text, which keeps its capacity between records, so the
// presenter allocates nothing once the text has grown. Failures throw DnsError, or DataError for a
// fixed-width read past the end of the message. Thread-safe (no shared state).
#pragma once

#include <cstdint>
#include <string>

namespace vantrelo::net::dns {

// Appends the presentation of the `rdlength` bytes at `offset` of the whole `message` (names
// inside may point anywhere in it). Types without a layout of their own take the generic form
// "\# <rdlength> <hex>".
void present_rdata(uint32_t offset, const uint8_t* message, uint32_t length, uint16_t type,
                   uint16_t rdlength, std::string& out_text, bool trailing_dot);

// Appends DNS character-strings (a length byte, then that many bytes), each escaped and, with
// `quoted`, between double quotes. With `single` only the first string is written; otherwise all
// strings up to `length`, separated by one space. Returns the number of bytes used. A string that
// runs past `length` throws DnsError.
uint32_t append_character_strings(const uint8_t* bytes, uint32_t length, std::string& out_text,
                                  bool quoted, bool single);

// Appends bytes escaped as in names: below 0x20 or above 0x7E as a backslash and three decimal
// digits, '"' and '\' behind a backslash, all others as they are.
void append_escaped(const uint8_t* bytes, uint32_t length, std::string& out_text);

}  // namespace vantrelo::net::dns
