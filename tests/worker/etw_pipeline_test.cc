// Captured events end to end: DNS Server provider events, built the way the provider raises
// them, go through the decoder, the pusher, the queue and a forwarder, and come out as the
// exact lines a collector gets. Runs on every platform; only the trace session
// itself needs Windows.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "base/error.h"
#include "etw/event_decoder.h"
#include "etw/windows_version.h"
#include "event/event_queue.h"
#include "event_builder.h"
#include "fake_sessions.h"
#include "format/metrics_report.h"
#include "net_test_support.h"
#include "worker/event_pusher.h"
#include "worker/forwarder.h"
#include "worker/listener.h"
#include "worker_test_support.h"

namespace vantrelo::worker {
namespace {

// 2024-03-05T07:09:02.25Z in 100-ns ticks since 1601.
constexpr int64_t kTime = etw::kEpochOffset + 17096225420000000 + 2500000;

// www.example.com IN A, id 0x1234, recursion desired.
const std::string kQuery(
    "\x12\x34\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00"
    "\x03www\x07"
    "example\x03"
    "com\x00\x00\x01\x00\x01",
    33);
// Its answer: 192.0.2.1 with a TTL of 300, the name compressed to the question's.
const std::string kResponse(
    "\x12\x34\x81\x80\x00\x01\x00\x01\x00\x00\x00\x00"
    "\x03www\x07"
    "example\x03"
    "com\x00\x00\x01\x00\x01"
    "\xc0\x0c\x00\x01\x00\x01\x00\x00\x01\x2c\x00\x04\xc0\x00\x02\x01",
    49);

// Decodes a client query (256) and its response (257), both over UDP from 198.51.100.7:53000
// to 192.0.2.53, and returns the query-log lines the forwarder printed. With `filter` the
// pusher applies the agent's edge filters.
std::string relayCapturedPair(filter::EdgeFilter* filter = nullptr) {
  etw::EtwSettings etwSettings;
  etwSettings.windowsVersion = etw::kWindows2019;
  etw::EventDecoder decoder(etwSettings, "dns1.example");
  event::queue::EventQueue queue(event::queue::QueueOptions{1 << 16, false, ""});
  EventPusher pusher(queue, filter);
  decoder.setHandler(&EventPusher::handle, &pusher);
  etw::testing::EventValues values;
  values.time = kTime;
  values.message = kQuery;
  decoder.handleEvent(etw::testing::buildEvent(256, etw::kWindows2019, values));
  values.message = kResponse;
  decoder.handleEvent(etw::testing::buildEvent(257, etw::kWindows2019, values));
  pusher.flush();

  format::MessageSettings messages;
  messages.format = format::MessageFormat::kQuerylog;
  messages.hostname = "relay-test";
  messages.process_id = 4242;
  messages.suffixes.build_builtin_set(true);
  forwarder::ForwarderSettings settings = forwarder::parse("ipv4 127.0.0.1 9");
  settings.toStdout = true;
  std::FILE* output = std::tmpfile();
  forwarder::Forwarder forwarder(1, settings, queue, messages, output);
  forwarder.start();
  EXPECT_TRUE(testing::waitUntil([&] { return forwarder.eventsSent() == 2; }));
  forwarder.stop();
  forwarder.join();
  std::string printed(static_cast<size_t>(std::ftell(output)), '\0');
  std::rewind(output);
  EXPECT_EQ(std::fread(printed.data(), 1, printed.size(), output), printed.size());
  std::fclose(output);
  return printed;
}

// Without a filter the lines are exact; with the agent's truncating filter the client is
// truncated before the queue.
TEST(EtwPipelineTest, CapturedEventsReachTheCollectorAsExactLines) {
  const std::string kHead = "<30>1 2024-03-05T07:09:02.250000Z relay-test vantrelo 4242 - - ";
  EXPECT_EQ(relayCapturedPair(),
            kHead +
                "queries: client 198.51.100.7#53000: query: www.example.com. IN A + "
                "(192.0.2.53)\n" +
                kHead +
                "queries: client 198.51.100.7#53000: response: www.example.com. IN A + "
                "(192.0.2.53) NOERROR; www.example.com. 300 IN A 192.0.2.1\n");
  auto rules = std::make_shared<filter::FilterSettings>();
  rules->privacy.mode = filter::AddressMode::kTruncate;
  filter::EdgeFilter filter(rules);
  const std::string lines = relayCapturedPair(&filter);
  EXPECT_EQ(lines.find("198.51.100.7"), std::string::npos) << lines;
  EXPECT_NE(lines.find("queries: client 198.51.100.0#53000: response: "), std::string::npos)
      << lines;
}

// An ETW listener over scripted session calls: the events of each buffer the session delivers
// reach the queue at the buffer's end, while the capture waits for the next one (a quiet
// server), not only when processing ends; the session's loss counters reach the metrics line
// through a statistics query; a session that cannot be started fails the listener, whose hook
// gets the reason.
TEST(EtwPipelineTest, EtwListenerOverScriptedSessions) {
  struct QuietAfterOneBuffer : etw::testing::FakeSessions {
    uint32_t openConsumer(etw::EventSink& sink, Handle& handle) override {
      capture = &sink;
      return FakeSessions::openConsumer(sink, handle);
    }
    uint32_t processEvents(Handle) override {
      for (const etw::EventRecordView* event : buffer) capture->onEvent(*event);
      capture->onBufferDelivered();
      queuedWhileWaiting = testing::waitUntil([this] { return queue->count() == buffer.size(); });
      requestStop();
      return 0;
    }
    etw::EventSink* capture = nullptr;
    std::vector<const etw::EventRecordView*> buffer;
    event::queue::EventQueue* queue = nullptr;
    bool queuedWhileWaiting = false;
  };
  static std::vector<std::string> failures;
  const listener::Listener::FailureHook hook = [](const std::string& reason) {
    failures.push_back(reason);
  };
  net::testing::LogRecorder log;
  listener::ListenerSettings settings = listener::parse("etw");
  settings.etwSettings.windowsVersion = etw::kWindows2025;
  settings.etwSettings.identityFromEvent = false;
  event::queue::EventQueue queue(event::queue::QueueOptions{1 << 16, false, ""});
  const etw::testing::SyntheticEvent query = etw::testing::buildEvent(287, etw::kWindows2025);
  const etw::testing::SyntheticEvent response = etw::testing::buildEvent(284, etw::kWindows2025);
  auto sessions = std::make_unique<QuietAfterOneBuffer>();
  QuietAfterOneBuffer& fake = *sessions;
  fake.buffer = {&query, &response};
  fake.queue = &queue;
  listener::Listener listener(0, settings, queue, std::move(sessions));
  fake.requestStop = [&listener] { listener.stop(); };
  listener.setFailureHook(hook);
  listener.start();
  listener.join();
  EXPECT_TRUE(fake.queuedWhileWaiting);
  EXPECT_EQ(queue.count(), 2u);

  fake.statistics = {64, 60, 7, 900, 2, 3};
  format::MetricsSnapshot snapshot;
  snapshot.listeners.resize(1);
  listener.metrics(snapshot.listeners[0]);
  std::string line;
  format::formatReport(snapshot, false, line);
  EXPECT_NE(line.find(" type=etw numberOfBuffers=64 freeBuffers=60 eventsLost=7 "
                      "buffersWritten=900 logBuffersLost=2 realTimeBuffersLost=3"),
            std::string::npos)
      << line;

  auto denied = std::make_unique<etw::testing::FakeSessions>();
  denied->starts = {5};
  listener::Listener failing(1, settings, queue, std::move(denied));
  failing.setFailureHook(hook);
  failing.start();
  failing.join();
  EXPECT_EQ(failures, std::vector<std::string>{"Listener[1]: StartTrace() failed: " +
                                               error::systemErrorText(5)});
}

}  // namespace
}  // namespace vantrelo::worker
