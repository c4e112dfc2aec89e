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
      {"/etc/vantrelo/vantrelo.conf", "/etc/vantrelo"},
      {"a/b\\c.conf", "a/b"},
      {"a\\b/c.conf", "a\\b"},
      {"", "."},
  };
  for (const Case& c : cases) EXPECT_EQ(configDirectory(c.path), c.directory) << c.path;
}

// Records every call the agent makes on its workers, in order.
class Recorder {
 public:
  void add(std::string call) {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back(std::move(call));
  }
  std::vector<std::string> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> calls_;
};

class FakeWorker : public Worker {
 public:
  FakeWorker(Recorder& recorder, std::string name) : recorder_(recorder), name_(std::move(name)) {}
  ~FakeWorker() override { recorder_.add("destroy " + name_); }
  void start() override { recorder_.add("start " + name_); }
  void requestStop() override { recorder_.add("stop " + name_); }
  void join() override { recorder_.add("join " + name_); }

 private:
  Recorder& recorder_;
  std::string name_;
};

class FakeFactory : public WorkerFactory {
 public:
  explicit FakeFactory(Recorder& recorder) : recorder_(recorder) {}
  std::unique_ptr<Worker> createForwarder(uint32_t id,
                                          const worker::forwarder::ForwarderSettings& settings,
                                          event::queue::EventQueue&,
                                          const format::MessageSettings&) override {
    return std::make_unique<FakeWorker>(
        recorder_, "f" + std::to_string(id) + (settings.toStdout ? "/stdout" : ""));
  }
  std::unique_ptr<Worker> createListener(uint32_t id,
                                         const worker::listener::ListenerSettings& settings,
                                         event::queue::EventQueue&) override {
    return std::make_unique<FakeWorker>(
        recorder_, "l" + std::to_string(id) + ":" + std::to_string(settings.socket.port));
  }
  std::unique_ptr<Worker> createBackgroundLogger(const format::MetricsSettings& settings,
                                                 event::queue::EventQueue&) override {
    return std::make_unique<FakeWorker>(recorder_, "bg" + std::to_string(settings.interval));
  }

 private:
  Recorder& recorder_;
};

// Runs the agent on a thread and keeps requesting a stop until it returns: a request made
// before the agent waits is lost by design.
std::string runUntilStopped(WorkerFactory* factory) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::atomic<bool> done{false};
  std::thread agent([&] {
    runAgent(factory);
    done = true;
  });
  while (!done) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    requestStop();
  }
  agent.join();
  std::string out = testing::internal::GetCapturedStdout();
  out += testing::internal::GetCapturedStderr();
  return out;
}

class AgentRunTest : public testing::Test {
 protected:
  void SetUp() override {
    previous_ = std::filesystem::current_path();
    directory_ = std::filesystem::temp_directory_path() /
                 ("vantrelo_agent_test_" +
                  std::to_string(::testing::UnitTest::GetInstance()->random_seed()));
    std::filesystem::remove_all(directory_);
    std::filesystem::create_directories(directory_);
    path_ = (directory_ / "vantrelo.conf").string();
  }
  void TearDown() override {
    std::filesystem::current_path(previous_);
    std::filesystem::remove_all(directory_);
    setStandardOutputMode(false);
  }
  void writeConfig(const std::string& text) {
    std::ofstream(path_, std::ios::binary) << text;
    setConfigPath(path_.c_str());
  }

  std::filesystem::path previous_;
  std::filesystem::path directory_;
  std::string path_;
};

TEST_F(AgentRunTest, StartsAndStopsWorkersInOrder) {
  writeConfig(
      "forwarder ipv4 127.0.0.1 1\nlistener ipv4 127.0.0.1 7001\nforwarder ipv4 127.0.0.1 2\n"
      "listener ipv4 127.0.0.1 7002\nmetrics-interval 5\nmessage-queue-filename q.bin\n");
  setStandardOutputMode(true);
  Recorder recorder;
  FakeFactory factory(recorder);
  const std::string log = runUntilStopped(&factory);
  const std::vector<std::string> expected = {
      "start f0/stdout", "start f1/stdout", "start l0:7001",     "start l1:7002",
      "start bg5",       "stop l0:7001",    "stop l1:7002",      "stop f0/stdout",
      "stop f1/stdout",  "stop bg5",        "join l0:7001",      "join l1:7002",
      "join f0/stdout",  "join f1/stdout",  "join bg5",          "destroy bg5",
      "destroy l0:7001", "destroy l1:7002", "destroy f0/stdout", "destroy f1/stdout"};
  EXPECT_EQ(recorder.calls(), expected);
  EXPECT_EQ(log, "[INFO] Started\n[INFO] Changing directory to " + directory_.string() +
                     "\n[INFO] Reading config from " + path_ + "\n[INFO] Stopped\n");
  EXPECT_FALSE(std::filesystem::exists(directory_ / "q.bin"));
  EXPECT_TRUE(std::filesystem::equivalent(std::filesystem::current_path(), directory_));
}

TEST_F(AgentRunTest, BadValueEndsTheRunBeforeAnyWorkerExists) {
  writeConfig("forwarder ipv4 127.0.0.1 1\nmessage-format XML\n");
  Recorder recorder;
  FakeFactory factory(recorder);
  const std::string log = runUntilStopped(&factory);
  EXPECT_TRUE(recorder.calls().empty());
  EXPECT_EQ(log, "[INFO] Started\n[INFO] Changing directory to " + directory_.string() +
                     "\n[INFO] Reading config from " + path_ +
                     "\n[ERROR] Run failed: Unknown message-format specified in config file: "
                     "XML\n");
}

}  // namespace
}  // namespace ns::app
