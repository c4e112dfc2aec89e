#include "worker/value_syntax.h"

#include <cctype>
#include <limits>

namespace vantrelo::worker {

namespace {

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

constexpr char kQuote = '"';
constexpr char kAssign = '=';

}  // namespace

void ValueReader::skipSpace() {
  while (position_ < text_.size() && isSpace(text_[position_])) ++position_;
}

std::string ValueReader::nextWord() {
  skipSpace();
  const size_t start = position_;
  while (position_ < text_.size() && !isSpace(text_[position_])) ++position_;
  return std::string(text_.substr(start, position_ - start));
}

ValueReader::Option ValueReader::nextOption(std::string& name, std::string& value) {
  name.clear();
  value.clear();
  skipSpace();
  if (position_ >= text_.size()) return Option::kEnd;
  const size_t start = position_;
  while (position_ < text_.size() && text_[position_] != kAssign && !isSpace(text_[position_])) {
    ++position_;
  }
  name = toLower(text_.substr(start, position_ - start));
  // Exactly one separator is skipped, whatever it is, so "tls on" reads like "tls=on".
  if (position_ < text_.size()) ++position_;
  skipSpace();
  if (position_ >= text_.size()) return Option::kMissingValue;
  if (text_[position_] == kQuote) {
    const size_t close = text_.find(kQuote, position_ + 1);
    if (close == std::string_view::npos) return Option::kUnterminatedQuote;
    value = std::string(text_.substr(position_ + 1, close - position_ - 1));
    position_ = close + 1;
    return Option::kFound;
  }
  const size_t valueStart = position_;
  while (position_ < text_.size() && !isSpace(text_[position_])) ++position_;
  value = std::string(text_.substr(valueStart, position_ - valueStart));
  return Option::kFound;
}

std::string toLower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower;
}

int64_t parseDecimal64(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  // Accumulate the magnitude in unsigned arithmetic and saturate like strtoll.
  constexpr uint64_t kPositiveLimit = std::numeric_limits<int64_t>::max();
  const uint64_t limit = negative ? kPositiveLimit + 1 : kPositiveLimit;
  uint64_t magnitude = 0;
  bool saturated = false;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
    if (saturated || magnitude > (limit - digit) / 10) {
      saturated = true;
      continue;
    }
    magnitude = magnitude * 10 + digit;
  }
  if (saturated) magnitude = limit;
  if (!negative) return static_cast<int64_t>(magnitude);
  return magnitude == kPositiveLimit + 1 ? std::numeric_limits<int64_t>::min()
                                         : -static_cast<int64_t>(magnitude);
}

int32_t parseDecimal32(std::string_view text) {
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(parseDecimal64(text))));
}

bool setInRange(uint32_t& field, const std::string& value, int32_t minimum, int32_t maximum) {
  const int32_t number = parseDecimal32(value);
  if (number < minimum || number > maximum) return false;
  field = static_cast<uint32_t>(number);
  return true;
}

bool setChoice(bool& field, const std::string& value, const char* whenFalse, const char* whenTrue) {
  if (value != whenFalse && value != whenTrue) return false;
  field = value == whenTrue;
  return true;
}

bool setOnOff(bool& field, const std::string& value) {
  return setChoice(field, value, "off", "on");
}

}  // namespace vantrelo::worker
