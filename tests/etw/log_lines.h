// Collects the log lines written while it is installed, as "E ", "I " or "W " and the message.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/log.h"

namespace vantrelo::etw::testing {

class LogLines : public log::SystemLog {
 public:
  LogLines() { log::setSystemLog(this); }
  ~LogLines() override { log::setSystemLog(nullptr); }

  bool write(log::Level level, const std::string& message) override {
    const char* tag = level == log::Level::kError     ? "E "
                      : level == log::Level::kWarning ? "W "
                                                      : "I ";
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(tag + message);
    return true;
  }

  // The lines so far, which are then forgotten.
  std::vector<std::string> take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace vantrelo::etw::testing
