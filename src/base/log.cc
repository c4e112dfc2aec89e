#include "base/log.h"

#include <cstdio>
#include <mutex>

namespace vantrelo::log {

namespace {

std::mutex logMutex;
SystemLog* systemLog = nullptr;

struct ConsoleForm {
  const char* prefix;
  FILE* (*stream)();
};

FILE* standardOutput() { return stdout; }
FILE* standardError() { return stderr; }

// Indexed by Level.
const ConsoleForm kConsole[] = {
    {"[ERROR] ", standardError},
    {"[INFO] ", standardOutput},
    {"[WARN] ", standardOutput},
};

void write(Level level, const std::string& message) {
  std::lock_guard<std::mutex> lock(logMutex);
  if (systemLog != nullptr && systemLog->write(level, message)) return;
  const ConsoleForm& form = kConsole[static_cast<int>(level)];
  FILE* stream = form.stream();
  // One write per line: in run-stdout mode the forwarders print events on the same stream
  // without this mutex, and a line written in pieces could have an event land inside it.
  std::string line;
  line.reserve(16 + message.size());
  line.append(form.prefix).append(message).push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stream);
  std::fflush(stream);
}

}  // namespace

void setSystemLog(SystemLog* backend) {
  std::lock_guard<std::mutex> lock(logMutex);
  systemLog = backend;
}

void error(const std::string& message) { write(Level::kError, message); }
void info(const std::string& message) { write(Level::kInformation, message); }
void warning(const std::string& message) { write(Level::kWarning, message); }

}  // namespace vantrelo::log
