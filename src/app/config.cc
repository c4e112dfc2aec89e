#include "app/config.h"

#include <cctype>
#include <fstream>
#include <sstream>

namespace vantrelo::app::config {

namespace {

constexpr char kComment = '#';

// Line classification looks only at these four; entry parsing uses isspace.
constexpr std::string_view kLineSpace = " \t\r\n";

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// Splits one entry text into key and value; false when it holds no key.
bool parseEntry(std::string_view text, ConfigEntry& entry) {
  size_t i = 0;
  while (i < text.size() && isSpace(text[i])) ++i;
  const size_t keyStart = i;
  while (i < text.size() && !isSpace(text[i]) && text[i] != kComment) ++i;
  if (i == keyStart) return false;
  entry.key = std::string(text.substr(keyStart, i - keyStart));
  while (i < text.size() && isSpace(text[i])) ++i;
  // The value ends at the first '#', even inside a word, less the white space before it.
  size_t end = text.find(kComment, i);
  if (end == std::string_view::npos) end = text.size();
  while (end > i && isSpace(text[end - 1])) --end;
  entry.value = std::string(text.substr(i, end - i));
  return true;
}

}  // namespace

void AgentConfig::flushPending() {
  if (pending_.empty()) return;
  ConfigEntry entry;
  if (parseEntry(pending_, entry)) entries_.push_back(std::move(entry));
  pending_.clear();
}

void AgentConfig::addLine(std::string_view line) {
  const size_t first = line.find_first_not_of(kLineSpace);
  if (first == std::string_view::npos) {
    flushPending();
    return;
  }
  if (line[first] == kComment) return;
  if (isSpace(line[0]) && !pending_.empty()) {
    pending_ += ' ';
    pending_.append(line.substr(first));
    return;
  }
  flushPending();
  pending_.assign(line.substr(first));
}

void AgentConfig::readText(std::string_view text) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    // A CR of a CRLF line end is white space; dropping it keeps it out of joined values.
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    addLine(line);
    start = end + 1;
  }
  flushPending();
}

void AgentConfig::readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw ConfigError("ifstream(" + path +
                      ") failed to open: " + error::cErrorText(error::lastCError()));
  }
  std::ostringstream content;
  content << file.rdbuf();
  readText(content.str());
}

std::optional<std::string> AgentConfig::lookup(std::string_view key) const {
  for (const ConfigEntry& entry : entries_) {
    if (entry.key == key) return entry.value;
  }
  return std::nullopt;
}

std::vector<std::string> AgentConfig::lookupAll(std::string_view key) const {
  std::vector<std::string> values;
  for (const ConfigEntry& entry : entries_) {
    if (entry.key == key) values.push_back(entry.value);
  }
  return values;
}

}  // namespace vantrelo::app::config
