#include "app/entry.h"

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string_view>

#include "app/agent.h"
#include "app/platform.h"
#include "app/process_state.h"
#include "dns/public_suffix.h"

namespace vantrelo::app {

namespace {

constexpr int kExitSuccess = 0;
constexpr int kExitUsage = 1;
// A service manager restarts a service that ends with another code than 0 (systemd's
// Restart=on-failure); the foreground commands keep 0, the failure being in their log.
constexpr int kExitRunFailed = 1;

constexpr const char* kUsage =
    "usage: vantrelo run <vantrelo.conf>\n"
    "       vantrelo run-service <vantrelo.conf>\n"
    "       vantrelo run-stdout <vantrelo.conf>\n"
    "       vantrelo print-psl\n"
    "       vantrelo version\n";

// The worker factory of this process; the service main reaches it through runWithFactory.
WorkerFactory* processFactory = nullptr;

bool runWithFactory(platform::RunObserver& observer) { return runAgent(processFactory, &observer); }

int runForeground(char** argv, bool toStdout) {
  setConfigPath(argv[2]);
  setStandardOutputMode(toStdout);
  runAgent(processFactory);
  return kExitSuccess;
}

int runService(char** argv) {
  platform::initSystemLog();
  setConfigPath(argv[2]);
  return platform::runService(runWithFactory) ? kExitSuccess : kExitRunFailed;
}

int printSuffixes(char**) {
  printPublicSuffixes(std::cout);
  std::cout.flush();
  return kExitSuccess;
}

int printVersion(char**) {
  std::cout << kVersion << '\n';
  std::cout.flush();
  return kExitSuccess;
}

struct Command {
  const char* name;
  int minimumArguments;
  int (*run)(char** argv);
};

// Tried in this order; only argv[1] decides.
const Command kCommands[] = {
    {"run", 3, [](char** argv) { return runForeground(argv, false); }},
    {"run-service", 3, runService},
    {"run-stdout", 3, [](char** argv) { return runForeground(argv, true); }},
    {"print-psl", 2, printSuffixes},
    {"version", 2, printVersion},
};

}  // namespace

void printPublicSuffixes(std::ostream& out) {
  for (std::string_view rule : net::dns::builtin_rules()) out << "domain-suffix " << rule << '\n';
}

int entry(int argc, char** argv, WorkerFactory* factory) {
  processFactory = factory;
  if (argc >= 2) {
    const std::string_view command = argv[1];
    for (const Command& candidate : kCommands) {
      if (command == candidate.name && argc >= candidate.minimumArguments) {
        return candidate.run(argv);
      }
    }
  }
  std::fputs(kUsage, stderr);
  return kExitUsage;
}

}  // namespace vantrelo::app
