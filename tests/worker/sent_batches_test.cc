#include "worker/sent_batches.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
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

// Batches written in turn, maybe acknowledgements read later, then a connection error: the
// events that go back, oldest first.
TEST(SentBatchesTest, ReturnsWhatThePeerHasNotAcknowledged) {
  const struct {
    const char* name;
    std::vector<Write> writes;
    std::vector<std::pair<uint64_t, int64_t>> acknowledgements;  // {streamEnd, unacknowledged}
    std::string returned;
  } cases[] = {
      {"nothing acknowledged", {{"ab", 100, 100}, {"cd", 200, 200}, {"e", 250, 250}}, {}, "abcde"},
      {"the first batch acknowledged", {{"ab", 100, 100}, {"cd", 200, 100}}, {}, "cd"},
      {"a batch acknowledged in part stays", {{"ab", 100, 100}, {"cd", 200, 101}}, {}, "abcd"},
      {"everything acknowledged: the last batch stays",
       {{"ab", 100, 100}, {"cd", 200, 0}},
       {},
       "cd"},
      {"unknown: the last batch only", {{"ab", 100, -1}, {"cd", 200, -1}}, {}, "cd"},
      // Layers add bytes of their own (a TLS close alert) that stay unacknowledged.
      {"more pending than written", {{"ab", 100, 150}}, {}, "ab"},
      {"later: 70 of the first batch's 100 bytes",
       {{"ab", 100, 100}, {"cd", 200, 200}},
       {{220, 150}},
       "abcd"},
      {"later: everything", {{"ab", 100, 100}, {"cd", 200, 200}}, {{220, 150}, {220, 20}}, "cd"},
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
    for (const auto& [streamEnd, unacknowledged] : c.acknowledgements) {
      sent.acknowledge(streamEnd, unacknowledged);
    }
    EXPECT_EQ(sent.count(), c.returned.size());
    event::queue::EventQueue queue(event::queue::QueueOptions{4096, false, ""});
    sent.returnTo(queue);
    std::string returned;
    while (queue.count() > 0) queue.pop(returned);
    EXPECT_EQ(returned, c.returned);
    EXPECT_TRUE(sent.empty());
  }
}

}  // namespace
}  // namespace vantrelo::worker::forwarder
