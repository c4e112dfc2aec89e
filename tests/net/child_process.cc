#include "child_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace ns::net::testing {

ChildProcess::ChildProcess(const std::string& command, const std::string& logFile) {
  const std::string line = "exec " + command + " >" + logFile + " 2>&1";
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    ::execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
}

ChildProcess::~ChildProcess() { stop(); }

int ChildProcess::waitExit(int seconds) {
  if (pid_ < 0) return -1;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return -1;
}

void ChildProcess::stop() {
  if (pid_ < 0) return;
  ::kill(pid_, SIGTERM);
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
}

bool haveProgram(const std::string& name) {
  return std::system(("command -v " + name + " >/dev/null 2>&1").c_str()) == 0;
}

std::string makeTempDirectory(const std::string& tag) {
  std::string pattern = "/tmp/vantrelo-" + tag + "-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  return pattern;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace ns::net::testing
