#include "worker/sent_batches.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vantrelo::worker::forwarder {
namespace {

// One written batch: its events (one letter each), the stream's byte count after its write and
// the unacknowledged bytes then reported (-1: the system cannot tell).
struct Write {
  std::string events;
  uint64_t streamEnd;
  int64_t unacknowledged;
};

// Batches written in turn, then a connection error: the events that go back, oldest first.
TEST(SentBatchesTest, ReturnsWhatThePeerHasNotAcknowledged) {
  const struct {
    const char* name;
    std::vector<Write> writes;
    std::string returned;
  } cases[] = {
      {"nothing acknowledged", {{"ab", 100, 100}, {"cd", 200, 200}, {"e", 250, 250}}, "abcde"},
      {"the first batch acknowledged", {{"ab", 100, 100}, {"cd", 200, 100}}, "cd"},
      {"a batch acknowledged in part stays", {{"ab", 100, 100}, {"cd", 200, 101}}, "abcd"},
      {"everything acknowledged", {{"ab", 100, 100}, {"cd", 200, 0}}, ""},
      {"unknown: the last batch only", {{"ab", 100, -1}, {"cd", 200, -1}}, "cd"},
      // Layers add bytes of their own (a TLS close alert) that stay unacknowledged.
      {"more pending than written", {{"ab", 100, 150}}, "ab"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SentBatches sent;
    for (const Write& write : c.writes) {
      Batch batch;
      batch.events = write.events;
      batch.lengths.assign(write.events.size(), 1);
      sent.keep(batch, write.streamEnd, write.unacknowledged);
      EXPECT_EQ(batch.count(), 0u);  // taken over, not copied
    }
    EXPECT_EQ(sent.count(), c.returned.size());
    event::queue::QueueOptions options;
    options.size = 4096;
    options.recovery = false;
    event::queue::EventQueue queue(options);
    sent.returnTo(queue);
    std::string returned;
    while (queue.count() > 0) queue.pop(returned);
    EXPECT_EQ(returned, c.returned);
    EXPECT_TRUE(sent.empty());
  }
}

TEST(SentBatchesTest, ALaterAcknowledgementForgetsBatches) {
  SentBatches sent;
  Batch batch;
  batch.events = "ab";
  batch.lengths = {1, 1};
  sent.keep(batch, 100, 100);
  sent.acknowledge(120, 30);  // 90 of the 100 bytes: the batch still stays
  EXPECT_EQ(sent.count(), 2u);
  sent.acknowledge(120, 20);
  EXPECT_TRUE(sent.empty());
}

}  // namespace
}  // namespace vantrelo::worker::forwarder
