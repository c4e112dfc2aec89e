#include "app/agent.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "app/process_state.h"
#include "base/log.h"

namespace vantrelo::app {
namespace {

TEST(AgentTest, ConfigDirectory) {
  const struct {
    const char* path;
    const char* directory;
  } cases[] = {
      {"C:\\agent\\vantrelo.conf", "C:\\agent"},
      {"/vantrelo.conf", ""},
      {"a/b\\c.conf", "a/b"},
      {"", "."},
  };
  for (const auto& c : cases) EXPECT_EQ(configDirectory(c.path), c.directory) << c.path;
}

// Makes workers that record, in order, every call the agent makes on them, and hears the
// run's progress and its log's last line. The agent drives every worker on its own thread, so
// `calls` is read only after it has returned. A listener made with port 7666 reports a run failure
// when started.
class RecordingFactory : public WorkerFactory, public platform::RunObserver, log::SystemLog {
 public:
  RecordingFactory() { log::setSystemLog(this); }
  ~RecordingFactory() override { log::setSystemLog(nullptr); }
  bool write(log::Level, const std::string& message) override {
    last = message;
    return true;
  }
  struct Fake : Worker {
    Fake(std::string& calls, std::string name) : calls(calls), name(std::move(name)) {}
    ~Fake() override { calls += "destroy " + name + ", "; }
    void start() override {
      calls += "start " + name + ", ";
      if (name.ends_with(":7666")) reportRunFailure("capture failed");
    }
    void requestStop() override { calls += "stop " + name + ", "; }
    void join() override { calls += "join " + name + ", "; }
    std::string& calls;
    const std::string name;
  };

  std::unique_ptr<Worker> createForwarder(uint32_t id,
                                          const worker::forwarder::ForwarderSettings& settings,
                                          event::queue::EventQueue&,
                                          const format::MessageSettings&) override {
    return std::make_unique<Fake>(calls, "f" + std::to_string(id) + ":" +
                                             std::to_string(settings.socket.port) +
                                             (settings.toStdout ? "/stdout" : ""));
  }
  std::unique_ptr<Worker> createListener(uint32_t id,
                                         const worker::listener::ListenerSettings& settings,
                                         event::queue::EventQueue&) override {
    return std::make_unique<Fake>(
        calls, "l" + std::to_string(id) + ":" + std::to_string(settings.socket.port));
  }
  std::unique_ptr<Worker> createBackgroundLogger(const format::MetricsSettings& settings,
                                                 event::queue::EventQueue&) override {
    return std::make_unique<Fake>(calls, "bg" + std::to_string(settings.interval));
  }
  void running() override { calls += "running, "; }
  void stopping() override { calls += "stopping, "; }

  std::string calls, last;
};

// Workers are made in file order, every forwarder writing to standard output in that mode.
// Listeners stop before forwarders, so that what they took in can still be sent, and the
// background logger last, so that its final report counts everything. The stop is requested
// before the run starts: it is kept and ends the run once everything has started. A worker's
// failure ends the run in the same order, as failed. (A configuration failure starts nothing:
// process_test.py runs one.)
TEST(AgentTest, RunsStopsAndFailsInOrder) {
  const std::string workers =
      "start f0:1/stdout, start f1:2/stdout, start l0:7001, start l1:7002, start bg5, ";
  const std::string stops =
      "stop l0:7001, stop l1:7002, stop f0:1/stdout, stop f1:2/stdout, stop bg5, "
      "join l0:7001, join l1:7002, join f0:1/stdout, join f1:2/stdout, join bg5, "
      "destroy bg5, destroy l0:7001, destroy l1:7002, destroy f0:1/stdout, "
      "destroy f1:2/stdout, ";
  const std::string config =
      "forwarder ipv4 127.0.0.1 1\nlistener ipv4 127.0.0.1 7001\nforwarder ipv4 127.0.0.1 2\n"
      "listener ipv4 127.0.0.1 7002\nmetrics-interval 5\n";
  const struct {
    const char* name;
    std::string config;
    bool stopFirst;
    bool succeeds;
    std::string calls, lastLine;
  } cases[] = {
      {"stop requested early", config, true, true, workers + "running, stopping, " + stops,
       "Stopped"},
      {"worker failure", "listener ipv4 127.0.0.1 7666\nforwarder ipv4 127.0.0.1 1\n", false, false,
       "start f0:1/stdout, start l0:7666, start bg600, running, stopping, stop l0:7666, "
       "stop f0:1/stdout, stop bg600, join l0:7666, join f0:1/stdout, join bg600, destroy bg600, "
       "destroy l0:7666, destroy f0:1/stdout, ",
       "Run failed: capture failed"},
  };
  const std::filesystem::path directory =
      std::filesystem::temp_directory_path() /
      ("vantrelo_agent_test_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
  std::filesystem::create_directories(directory);
  const std::filesystem::path previous = std::filesystem::current_path();
  const std::string path = (directory / "vantrelo.conf").string();
  setConfigPath(path.c_str());
  setStandardOutputMode(true);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::ofstream(path, std::ios::binary) << c.config;
    RecordingFactory factory;
    if (c.stopFirst) requestStop();
    EXPECT_EQ(runAgent(&factory, &factory), c.succeeds);
    EXPECT_EQ(factory.calls, c.calls);
    EXPECT_EQ(factory.last, c.lastLine);
    // Whatever ended the run was for that run only.
    EXPECT_FALSE(stopSignal().requested());
    std::filesystem::current_path(previous);
  }
  setStandardOutputMode(false);
  std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace vantrelo::app
