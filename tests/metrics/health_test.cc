#include "metrics/health.h"

#include <gtest/gtest.h>

#include <string>

namespace vantrelo::metrics {
namespace {

TEST(HealthTest, DownLongerThanOneReconnectPause) {
  // Forwarder 0 goes down at 5 s and is back at 30 s; forwarder 1 prints to standard output and
  // is never down.
  struct Step {
    int second;
    bool connected;
    bool healthy;
    const char* down;  // the "down" list and forwarder 0's member
  };
  const Step steps[] = {
      {0, true, true,
       R"("down":[],"forwarders":[{"id":0,"target":"c:1","state":"connected","downSeconds":0})"},
      {5, false, true,
       R"("down":[],"forwarders":[{"id":0,"target":"c:1","state":"not-connected","downSeconds":0})"},
      {15, false, true,
       R"("down":[],"forwarders":[{"id":0,"target":"c:1","state":"not-connected","downSeconds":10})"},
      {16, false, false,
       R"("down":[0],"forwarders":[{"id":0,"target":"c:1","state":"not-connected","downSeconds":11})"},
      {30, true, true,
       R"("down":[],"forwarders":[{"id":0,"target":"c:1","state":"connected","downSeconds":0})"},
      {35, false, true,
       R"("down":[],"forwarders":[{"id":0,"target":"c:1","state":"not-connected","downSeconds":0})"},
  };
  HealthTracker tracker;
  const auto start = HealthTracker::Clock::now();
  for (const Step& step : steps) {
    std::string body;
    const std::vector<OutputState> outputs = {{0, "c:1", false, step.connected},
                                              {1, "d:2", true, false}};
    EXPECT_EQ(tracker.update(outputs, start + std::chrono::seconds(step.second), &body),
              step.healthy)
        << step.second;
    EXPECT_EQ(body, std::string(step.healthy ? R"({"status":"ok",)" : R"({"status":"down",)") +
                        step.down +
                        R"(,{"id":1,"target":"d:2","state":"stdout","downSeconds":0}]})" + "\n")
        << step.second;
  }
}

}  // namespace
}  // namespace vantrelo::metrics
