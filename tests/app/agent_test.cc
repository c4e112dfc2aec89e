#include "app/agent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "app/process_state.h"

namespace vantrelo::app {
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

// Makes workers that record, in order, every call the agent makes on them. The agent makes
// and drives every worker on its own thread, so `calls` is read only after it has returned.
class RecordingFactory : public WorkerFactory {
 public:
  class Fake : public Worker {
   public:
    Fake(std::string& calls, std::string name) : calls_(calls), name_(std::move(name)) {}
    ~Fake() override { calls_ += "destroy " + name_ + ", "; }
    void start() override { calls_ += "start " + name_ + ", "; }
    void requestStop() override { calls_ += "stop " + name_ + ", "; }
    void join() override { calls_ += "join " + name_ + ", "; }
    std::string failure() const override { return failureText; }

    std::string failureText;

   private:
    std::string& calls_;
    const std::string name_;
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
    auto listener = std::make_unique<Fake>(
        calls, "l" + std::to_string(id) + ":" + std::to_string(settings.socket.port));
    if (id == failingListener) listener->failureText = "Listener[1]: StartTrace() failed: denied";
    return listener;
  }
  std::unique_ptr<Worker> createBackgroundLogger(const format::MetricsSettings& settings,
                                                 event::queue::EventQueue&) override {
    return std::make_unique<Fake>(calls, "bg" + std::to_string(settings.interval));
  }

  std::string calls;
  uint32_t failingListener = UINT32_MAX;
};

// Workers are made in file order, every forwarder writing to standard output in that mode.
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
  EXPECT_EQ(factory.calls,
            "start f0:1/stdout, start f1:2/stdout, start l0:7001, start l1:7002, start bg5, "
            "stop l0:7001, stop l1:7002, stop f0:1/stdout, stop f1:2/stdout, stop bg5, "
            "join l0:7001, join l1:7002, join f0:1/stdout, join f1:2/stdout, join bg5, "
            "destroy bg5, destroy l0:7001, destroy l1:7002, destroy f0:1/stdout, "
            "destroy f1:2/stdout, ");
}

// A listener that could not capture fails the run, after the same orderly stop and save.
TEST(AgentTest, AListenerFailureFailsTheRun) {
  const std::filesystem::path directory =
      std::filesystem::temp_directory_path() /
      ("vantrelo_agent_fail_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
  std::filesystem::create_directories(directory);
  const std::filesystem::path previous = std::filesystem::current_path();
  const std::string path = (directory / "vantrelo.conf").string();
  std::ofstream(path, std::ios::binary)
      << "listener ipv4 127.0.0.1 7001\nlistener ipv4 127.0.0.1 7002\nmetrics-interval 5\n";
  setConfigPath(path.c_str());
  RecordingFactory factory;
  factory.failingListener = 1;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::atomic<bool> done{false};
  std::thread agent([&] {
    runAgent(&factory);
    done = true;
  });
  while (!done) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    requestStop();
  }
  agent.join();
  const std::string logged =
      testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
  std::filesystem::current_path(previous);
  std::filesystem::remove_all(directory);
  EXPECT_NE(logged.find("[ERROR] Run failed: Listener[1]: StartTrace() failed: denied\n"),
            std::string::npos)
      << logged;
  EXPECT_EQ(logged.find("[INFO] Stopped"), std::string::npos) << logged;
  EXPECT_EQ(factory.calls,
            "start l0:7001, start l1:7002, start bg5, stop l0:7001, stop l1:7002, stop bg5, "
            "join l0:7001, join l1:7002, join bg5, destroy bg5, destroy l0:7001, "
            "destroy l1:7002, ");
}

}  // namespace
}  // namespace vantrelo::app
