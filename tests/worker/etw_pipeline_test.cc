// Captured events past the decoder: DNS Server provider events, built the way the provider
// raises them, through the pusher into the queue, and an ETW listener over scripted sessions.
// Runs on every platform; only the trace session itself needs Windows.
#include <gtest/gtest.h>

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
#include "worker/listener.h"
#include "worker_test_support.h"

namespace vantrelo::worker {
namespace {

// A captured client query and its response through the decoder and the pusher into the queue:
// without a filter the client address is kept, with the agent's truncating filter it is cut
// before anything is queued.
TEST(EtwPipelineTest, CapturedEventsAreFilteredBeforeTheQueue) {
  auto rules = std::make_shared<filter::FilterSettings>();
  rules->privacy.mode = filter::AddressMode::kTruncate;
  filter::EdgeFilter truncating(rules);
  for (filter::EdgeFilter* filter : {static_cast<filter::EdgeFilter*>(nullptr), &truncating}) {
    etw::EtwSettings settings;
    settings.windowsVersion = etw::kWindows2019;
    etw::EventDecoder decoder(settings, "dns1.example");
    event::queue::EventQueue queue(event::queue::QueueOptions{1 << 16, false, ""});
    EventPusher pusher(queue, filter);
    decoder.setHandler(&EventPusher::handle, &pusher);
    for (uint16_t id : {256, 257}) {
      decoder.handleEvent(etw::testing::buildEvent(id, etw::kWindows2019));
    }
    pusher.flush();
    std::vector<std::string> clients;
    for (const std::string& event : testing::drain(queue)) {
      encoding::dnstap::DnstapMessage record;
      record.decode(reinterpret_cast<const uint8_t*>(event.data()),
                    static_cast<uint32_t>(event.size()), 0);
      clients.push_back(record.query_address);
    }
    const std::string client(filter == nullptr ? "\xC6\x33\x64\x07" : "\xC6\x33\x64\x00", 4);
    EXPECT_EQ(clients, std::vector<std::string>(2, client)) << (filter != nullptr);
  }
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
