# Compiles the public suffix rule list (one rule per line) into a C++ header.
# Usage: cmake -DINPUT=<rules.txt> -DOUTPUT=<header.h> -P generate_public_suffix_rules.cmake
# A CMake script rather than a helper program, so the cross build needs no host compiler.
if(NOT INPUT OR NOT OUTPUT)
  message(FATAL_ERROR "INPUT and OUTPUT must be set")
endif()

get_filename_component(input_name "${INPUT}" NAME)
file(READ "${INPUT}" content)
string(REPLACE "\r" "" content "${content}")
if(NOT content MATCHES "\n$")
  string(APPEND content "\n")
endif()
# Rules are plain ASCII (internationalised labels are in punycode); anything else would need
# escaping in a C++ literal, so it is refused instead.
if(NOT content MATCHES "^[a-z0-9.*!\n-]*$")
  message(FATAL_ERROR "${INPUT}: unexpected characters; rules must be lower-case ASCII")
endif()
if(content MATCHES "\n\n" OR content MATCHES "^\n")
  message(FATAL_ERROR "${INPUT}: empty line")
endif()

string(REGEX MATCHALL "\n" line_ends "${content}")
list(LENGTH line_ends count)
string(REGEX REPLACE "([^\n]+)\n" "    \"\\1\",\n" entries "${content}")

file(WRITE "${OUTPUT}.tmp"
"// Generated from ${input_name} by generate_public_suffix_rules.cmake; do not edit.
#pragma once

#include <cstddef>
#include <string_view>

namespace vantrelo::net::dns {

inline constexpr size_t kPublicSuffixRuleCount = ${count};

inline constexpr std::string_view kPublicSuffixRules[kPublicSuffixRuleCount] = {
${entries}};

}  // namespace vantrelo::net::dns
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
