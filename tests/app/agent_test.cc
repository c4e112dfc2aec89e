#include "app/agent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "app/process_state.h"

namespace ns::app {
namespace {

TEST(AgentTest, ConfigDirectory) {
  struct Case {
    const char* path;
    const char* directory;
  };
  const Case cases[] = {
      {"vantrelo.conf", "."},
      {"C:\\agent\\vantrelo.conf", "C:\\agent"},
      {"/vantrelo.conf", ""},
      {"conf\\vantrelo.conf", "conf"},
      {"a/b\\c.conf", "a/b"},
      {"a\\b/c.conf", "a\\b"},
      {"", "."},
  };
  for (const Case& c : cases) EXPECT_EQ(configDirectory(c.path), c.directory) << c.path;
}

// Makes workers that record, in order, every call the agent makes on them.
class RecordingFactory : public WorkerFactory {
 public:
  class Fake : public Worker {
   public:
    Fake(RecordingFactory& factory, std::string name) : factory_(factory), name_(name) {}
    ~Fake() override { factory_.add("destroy " + name_); }
    void start() override { factory_.add("start " + name_); }
    void requestStop() override { factory_.add("stop " + name_); }
    void join() override { factory_.add("join " + name_); }

   private:
    RecordingFactory& factory_;
    std::string name_;
  };

  std::unique_ptr<Worker> createForwarder(uint32_t id,
                                          const worker::forwarder::ForwarderSettings& settings,
                                          event::queue::EventQueue&,
                                          const format::MessageSettings&) override {
    return std::make_unique<Fake>(*this,
                                  "f" + std::to_string(id) + (settings.toStdout ? "/stdout" : ""));
  }
  std::unique_ptr<Worker> createListener(uint32_t id,
                                         const worker::listener::ListenerSettings& settings,
                                         event::queue::EventQueue&) override {
    return std::make_unique<Fake>(
        *this, "l" + std::to_string(id) + ":" + std::to_string(settings.socket.port));
  }
  std::unique_ptr<Worker> createBackgroundLogger(const format::MetricsSettings& settings,
                                                 event::queue::EventQueue&) override {
    return std::make_unique<Fake>(*this, "bg" + std::to_string(settings.interval));
  }
  void add(const std::string& call) {
    std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(call);
  }

  std::mutex mutex;
  std::vector<std::string> calls;
};

// Listeners stop before forwarders, so that what they took in can still be sent, and the
// background logger last, so that its final report counts everything.
TEST(AgentTest, StartsAndStopsWorkersInOrder) {
  const std::filesystem::path directory =
      std::filesystem::temp_directory_path() /
      ("vantrelo_agent_test_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
  std::filesystem::create_directories(directory);
  const std::filesystem::path previous = std::filesystem::current_path();
  const std::string path = (directory / "vantrelo.conf").string();
  std::ofstream(path, std::ios::binary)
      << "forwarder ipv4 127.0.0.1 1\nlistener ipv4 127.0.0.1 7001\nforwarder ipv4 127.0.0.1 2\n"
         "listener ipv4 127.0.0.1 7002\nmetrics-interval 5\n";
  setConfigPath(path.c_str());
  setStandardOutputMode(true);
  RecordingFactory factory;
  testing::internal::CaptureStdout();
  std::atomic<bool> done{false};
  std::thread agent([&] {
    runAgent(&factory);
    done = true;
  });
  // A stop requested before the agent waits for it is lost by design, so keep asking.
  while (!done) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    requestStop();
  }
  agent.join();
  testing::internal::GetCapturedStdout();
  setStandardOutputMode(false);
  std::filesystem::current_path(previous);
  std::filesystem::remove_all(directory);
  const std::vector<std::string> expected = {
      "start f0/stdout", "start f1/stdout", "start l0:7001",     "start l1:7002",
      "start bg5",       "stop l0:7001",    "stop l1:7002",      "stop f0/stdout",
      "stop f1/stdout",  "stop bg5",        "join l0:7001",      "join l1:7002",
      "join f0/stdout",  "join f1/stdout",  "join bg5",          "destroy bg5",
      "destroy l0:7001", "destroy l1:7002", "destroy f0/stdout", "destroy f1/stdout"};
  EXPECT_EQ(factory.calls, expected);
}

}  // namespace
}  // namespace ns::app
