// What the filters read from a DNS wire message without parsing all of it: the transaction id
// and the first question's name (canonical: lower-case, no trailing dot, the root empty) and type.
//
// A plain value filled on the caller's stack, so a lookup allocates nothing. Thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vantrelo::filter {

struct Question {
  uint16_t id = 0;       // the header id; 0 when the message is shorter than two bytes
  bool present = false;  // the name and type below were read
  uint16_t type = 0;
  size_t nameLength = 0;
  char name[256];

  std::string_view canonicalName() const { return {name, nameLength}; }
};

// Fills `question` from `wire`; returns question.present. A message without a question, or one
// whose first question runs past the end, has none.
bool readQuestion(std::string_view wire, Question& question);

// The stateless sampling key of one DNS transaction: the query and its response carry the same
// client address, client port and id, so they hash alike, on every agent and every run.
// FNV-1a over the address bytes, the port and the id (both big-endian), then a 64-bit finaliser.
uint64_t transactionHash(std::string_view clientAddress, uint16_t clientPort, uint16_t id);

}  // namespace vantrelo::filter
