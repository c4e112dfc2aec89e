#include "encoding/log.h"

#include <cstdio>
#include <mutex>

namespace ns::log {

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
  std::fputs(form.prefix, stream);
  std::fwrite(message.data(), 1, message.size(), stream);
  std::fputc('\n', stream);
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

}  // namespace ns::log
