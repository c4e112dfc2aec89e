// The key=value parameters of SVCB and HTTPS record data in presentation form. Free functions,
// thread-safe; failures throw DnsError or DataError.
#pragma once

#include <cstdint>
#include <string>

namespace vantrelo::net::dns {

// Appends " key=value" for every parameter between `offset` and `end` (the end of the record
// data) of the whole `message` of `length` bytes.
void append_svcb_params(const uint8_t* message, uint32_t length, uint32_t offset, uint32_t end,
                        std::string& out_text);

}  // namespace vantrelo::net::dns
