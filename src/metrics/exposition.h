// The text exposition format that monitoring servers scrape (version 0.0.4).
//
// Every part of the agent that has counters appends its samples to one ExpositionWriter per
// scrape, in any order; the writer groups them by metric family, because the format wants each
// family's HELP and TYPE lines once, followed by all of its samples. Families are described by
// static MetricFamily constants, so a new worker type adds its series by defining its families
// and calling add(). Label values and help texts are escaped here; names are trusted constants.
//
// One writer serves one scrape on one thread; it owns copies of everything added to it.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace vantrelo::metrics {

enum class MetricType { kCounter, kGauge };

// A counter's name ends in "_total"; values are in base units (bytes, seconds).
struct MetricFamily {
  const char* name;
  MetricType type;
  const char* help;
};

struct Label {
  std::string_view name;
  std::string_view value;
};

inline constexpr char kContentType[] = "text/plain; version=0.0.4";

class ExpositionWriter {
 public:
  void add(const MetricFamily& family, std::initializer_list<Label> labels, uint64_t value);
  void add(const MetricFamily& family, std::initializer_list<Label> labels, double value);

  // Appends every family in the order it was first added: HELP, TYPE, then its samples.
  void write(std::string& out) const;

 private:
  struct Group {
    const MetricFamily* family;
    std::string samples;
  };
  // The sample line up to its value: name{labels} and a blank.
  std::string& startSample(const MetricFamily& family, std::initializer_list<Label> labels);

  std::vector<Group> groups_;
};

}  // namespace vantrelo::metrics
