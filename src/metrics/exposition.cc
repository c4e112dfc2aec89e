#include "metrics/exposition.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace vantrelo::metrics {

namespace {

// Label values escape backslash, double quote and line feed; help texts only the first and
// the last.
void appendEscaped(std::string& out, std::string_view text, bool quote) {
  for (char c : text) {
    if (c == '\\') {
      out.append("\\\\");
    } else if (c == '\n') {
      out.append("\\n");
    } else if (c == '"' && quote) {
      out.append("\\\"");
    } else {
      out.push_back(c);
    }
  }
}

void appendNumber(std::string& out, uint64_t value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, end);
}

}  // namespace

std::string& ExpositionWriter::startSample(const MetricFamily& family,
                                           std::initializer_list<Label> labels) {
  Group* group = nullptr;
  for (Group& candidate : groups_) {
    if (candidate.family == &family || std::strcmp(candidate.family->name, family.name) == 0) {
      group = &candidate;
      break;
    }
  }
  if (group == nullptr) group = &groups_.emplace_back(Group{&family, {}});
  std::string& out = group->samples;
  out.append(family.name);
  if (labels.size() != 0) {
    char separator = '{';
    for (const Label& label : labels) {
      out.push_back(separator);
      out.append(label.name);
      out.append("=\"");
      appendEscaped(out, label.value, true);
      out.push_back('"');
      separator = ',';
    }
    out.push_back('}');
  }
  out.push_back(' ');
  return out;
}

void ExpositionWriter::add(const MetricFamily& family, std::initializer_list<Label> labels,
                           uint64_t value) {
  std::string& out = startSample(family, labels);
  appendNumber(out, value);
  out.push_back('\n');
}

void ExpositionWriter::add(const MetricFamily& family, std::initializer_list<Label> labels,
                           double value) {
  std::string& out = startSample(family, labels);
  if (std::isnan(value)) {
    out.append("NaN");
  } else if (std::isinf(value)) {
    out.append(value > 0 ? "+Inf" : "-Inf");
  } else {
    char digits[32];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, end);
  }
  out.push_back('\n');
}

void ExpositionWriter::write(std::string& out) const {
  for (const Group& group : groups_) {
    out.append("# HELP ");
    out.append(group.family->name);
    out.push_back(' ');
    appendEscaped(out, group.family->help, false);
    out.append("\n# TYPE ");
    out.append(group.family->name);
    out.append(group.family->type == MetricType::kCounter ? " counter\n" : " gauge\n");
    out.append(group.samples);
  }
}

}  // namespace vantrelo::metrics
