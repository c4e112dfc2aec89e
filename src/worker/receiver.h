// One accepted dnstap sender of a socket listener, served on a thread of its own.
//
// The receiver identifies the peer, runs the TLS server handshake when the listener has TLS on
// (TCP peers only), answers the sender's Frame Streams handshake in whichever mode the sender
// chose, and pushes every data frame's bytes unchanged into the event queue (the agent's filters
// may drop a frame, or re-encode it with the client address hidden), all the frames of one read
// in one batch. A connection that stays silent for (keepalive + 1) read time-outs is given up.
// When it ends on its own it calls the listener's finished callback; when the listener asked it
// to stop it does not.
//
// Ownership: the Receiver owns the accepted Socket, the TlsSocket and the FstrmSocket over it,
// and its thread; the listener owns the Receiver and joins it before destroying it. The queue
// is borrowed and outlives it. Thread-safety: start() and join() are called by the owner;
// stop(), the counters and peer() may be read from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/error.h"
#include "event/event_queue.h"
#include "filter/edge_filter.h"
#include "net/fstrm_socket.h"
#include "net/net_settings.h"
#include "net/socket.h"
#include "net/tls_socket.h"

namespace vantrelo::worker::receiver {

NS_DEFINE_ERROR(ReceiverError);

class Receiver;

// Called on the receiver's own thread when its connection ended without a stop request; the
// receiver must not be destroyed before its thread is joined.
using FinishedCallback = void (*)(Receiver& receiver, void* context);

// What a receiver takes from its listener.
struct ReceiverSettings {
  net::SocketSettings socket;
  net::tls::TlsSettings tls;
  net::fstrm::FstrmSettings fstrm;
  filter::EdgeFilter* filter = nullptr;  // the listener's filters; null when none is set
};

class Receiver {
 public:
  // Takes ownership of the accepted socket; the id is the socket's. The peer address is read
  // here, so that it is fixed before any other thread can ask for it.
  Receiver(const ReceiverSettings& settings, FinishedCallback callback, void* context,
           event::queue::EventQueue& queue, std::unique_ptr<net::Socket> socket);
  // Releases the stream, shuts TLS down and closes the socket; the thread must be joined.
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  uint32_t id() const { return id_; }
  void start();
  // Sets the stop flag; the thread sees it within one second wherever it waits on the socket.
  void stop() { stopRequested_ = true; }
  void join();

  // The peer as read at construction (an empty record when it could not be read).
  const net::PeerAddress& peer() const { return peer_; }
  uint64_t bytesReceived() const { return bytesReceived_.load(); }
  uint64_t eventsReceived() const { return eventsReceived_.load(); }

 private:
  void run();
  void processLoop();
  // Returns false when a stop was requested; throws when the connection stayed silent.
  bool waitForData();
  // Hands the frames of one read to the queue in one batch and counts them: the one place where
  // relayed events enter the queue.
  void deliver();
  std::string prefix() const { return "Receiver[" + std::to_string(id_) + "]: "; }

  const uint32_t id_;
  const ReceiverSettings settings_;
  const FinishedCallback callback_;
  void* const context_;
  event::queue::EventQueue& queue_;
  std::unique_ptr<net::Socket> socket_;
  std::unique_ptr<net::tls::TlsSocket> tls_;
  std::unique_ptr<net::fstrm::FstrmSocket> fstrm_;
  std::thread thread_;
  net::PeerAddress peer_;
  std::string peerError_;  // why peer() failed at construction; reported by the thread
  filter::FrameFilter filter_;
  // The frames of the current read and their queue entries, reused for the connection's life;
  // frames the filter re-encoded wait in `rewritten_`, at the offsets noted per entry.
  std::vector<net::fstrm::FrameSpan> frames_;
  std::vector<event::queue::EventSpan> events_;
  std::string rewritten_;
  std::vector<std::pair<size_t, size_t>> rewrittenAt_;  // (entry, offset in rewritten_)
  std::atomic<bool> stopRequested_{false};
  std::atomic<uint64_t> bytesReceived_{0};
  std::atomic<uint64_t> eventsReceived_{0};
};

}  // namespace vantrelo::worker::receiver
