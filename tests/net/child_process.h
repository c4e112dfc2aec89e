// A child process for tests that talk to real peers (command-line tools). The process is started
// through /bin/sh and ended with SIGTERM, then reaped, when the object goes away. POSIX only.
#pragma once

#include <sys/types.h>

#include <string>

namespace ns::net::testing {

class ChildProcess {
 public:
  // Runs `command` with the shell; its output goes to `logFile`.
  ChildProcess(const std::string& command, const std::string& logFile);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Waits up to `seconds` for the process to end by itself; returns its exit status or -1.
  int waitExit(int seconds);
  // Sends SIGTERM and reaps the process.
  void stop();

 private:
  pid_t pid_ = -1;
};

// Whether a program can be found in PATH.
bool haveProgram(const std::string& name);
// A fresh temporary directory for one test.
std::string makeTempDirectory(const std::string& tag);
// Reads a whole file.
std::string readFile(const std::string& path);

}  // namespace ns::net::testing
