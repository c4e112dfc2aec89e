// Moves events from the queue to one collector, batch by batch.
//
// A forwarder pops up to batch-size events, decodes and formats each into one send buffer (a
// query-log line, a JSON object or a dnstap data frame), and writes the buffer in one write over
// TCP, inside TLS when configured and inside a Frame Streams stream for dnstap. Events that do
// not decode or format are skipped and counted as dnstap errors. On a connection error the
// events of the current batch (and, for the durable recovery, of every written batch whose
// bytes the collector's TCP has not acknowledged) go back into the queue, and the forwarder
// reconnects: at once when an established connection broke, else after ten seconds. In
// standard-output mode it never connects and prints each batch instead.
//
// Ownership: the Forwarder owns its thread, its socket layers, its formatter, the send buffer,
// the two batch records and the written batches; the queue and the message settings are borrowed
// and outlive it. Thread-safety: start() and join() are called by the owner; stop(), the counters
// and metrics() may be called from any thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "encoding/dnstap_message.h"
#include "event/event_queue.h"
#include "format/message_formatter.h"
#include "format/message_settings.h"
#include "format/metrics_report.h"
#include "net/fstrm_socket.h"
#include "net/socket.h"
#include "net/tls_socket.h"
#include "worker/forwarder_counters.h"
#include "worker/forwarder_settings.h"
#include "worker/sent_batches.h"

namespace vantrelo::worker::forwarder {

class Forwarder : public ForwarderCounters {
 public:
  // `output` receives the batches in standard-output mode (the process's standard output
  // unless a caller wants them elsewhere).
  Forwarder(uint32_t id, const ForwarderSettings& settings, event::queue::EventQueue& queue,
            const format::MessageSettings& messageSettings, std::FILE* output = stdout);
  // Stops and joins a thread that is still running.
  ~Forwarder();
  Forwarder(const Forwarder&) = delete;
  Forwarder& operator=(const Forwarder&) = delete;

  void start();
  // Sets the stop flag and wakes the thread from any wait; returns at once.
  void stop();
  // Waits for the thread to end, waking the queue until it has.
  void join();

  void metrics(format::ForwarderMetrics& out) const override;

 private:
  void run();
  void processLoop();
  void connect();
  void sendLoop();
  // Pops and formats up to batch-size events into the current batch and the send buffer.
  void fillBatch();
  void waitForEvents();
  void writeBatch();
  void disconnect();
  void handleError(const char* text);
  void returnEvents(Batch& batch, const char* which);
  // Durable recovery: drops what the collector's TCP has acknowledged, or (`all`) returns
  // everything still kept to the queue.
  void settleSent(bool all);
  // Fresh TLS and Frame Streams state for the next connection: nothing of a broken session or
  // of bytes read ahead on the old connection may leak into the new one.
  void resetStreams();
  // Up to ten one-second sleeps; returns early on a stop request.
  void pauseBeforeReconnect();

  Batch& current() { return batches_[currentIndex_]; }
  Batch& previous() { return batches_[1 - currentIndex_]; }

  const ForwarderSettings settings_;
  const bool dnstap_;
  event::queue::EventQueue& queue_;
  std::FILE* const output_;
  format::MessageFormatter formatter_;
  encoding::dnstap::DnstapMessage record_;
  std::unique_ptr<net::Socket> socket_;
  std::unique_ptr<net::tls::TlsSocket> tls_;
  std::unique_ptr<net::fstrm::FstrmSocket> fstrm_;
  std::string sendBuffer_;
  std::string hexBuffer_;         // standard-output mode with dnstap: the batch as one hex line
  std::vector<uint32_t> popped_;  // lengths of the events of the last pop, before formatting
  Batch batches_[2];
  SentBatches sent_;  // durable recovery: written, not yet acknowledged
  int currentIndex_ = 0;
  bool established_ = false;

  std::thread thread_;
  std::atomic<bool> stopRequested_{false};
  std::mutex stateMutex_;  // with stateCondition_: the reconnect pause and the end of the thread
  std::condition_variable stateCondition_;
  bool finished_ = false;  // guarded by stateMutex_
};

}  // namespace vantrelo::worker::forwarder
