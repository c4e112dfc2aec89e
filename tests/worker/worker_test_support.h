// Helpers shared by the worker tests: dnstap events, raw Frame Streams bytes, a running
// listener and a well-behaved sender, polling.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "event/event_queue.h"
#include "net/fstrm_socket.h"
#include "net/socket.h"
#include "net/tls_socket.h"
#include "net_test_support.h"
#include "worker/listener.h"

namespace vantrelo::worker::testing {

// One encoded client-query event whose query name is "e<number>.example.com", so that every
// event of a test can be told apart in any output format.
std::string clientQueryEvent(uint32_t number);

// Raw Frame Streams bytes, for senders that misbehave on purpose.
std::string controlFrame(uint32_t type, bool withContentType);
std::string dataFrame(const std::string& payload);

// Every event now in the queue, oldest first.
std::vector<std::string> drain(event::queue::EventQueue& queue);

// Polls `condition` every 10 ms until it holds or `timeout` passes; returns its last value.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

// The lines of `log` that start with `prefix`, in order.
std::vector<std::string> linesStartingWith(const net::testing::LogRecorder& log,
                                           const std::string& prefix);

// Threads of this process now, or -1 where the system does not say.
int threadCount();

// What a Unix-domain peer in this process is reported as: its user, group and process ids
// where the system passes peer credentials, zeros where it does not.
struct PeerIdentity {
  uint32_t uid = 0, gid = 0, pid = 0;
};
PeerIdentity ownPeerIdentity();

// A TCP listener on an ephemeral loopback port that gives up a silent sender after
// (keepalive + 1) one-second read time-outs.
listener::ListenerSettings loopbackListener(uint32_t keepalive = 5);

// A started listener, stopped and joined when destroyed.
struct RunningListener {
  explicit RunningListener(const listener::ListenerSettings& settings);
  ~RunningListener();
  // Where a sender connects: the settings listened on, with the port actually bound.
  net::SocketSettings target() const;

  event::queue::EventQueue queue;
  listener::Listener listener;
};

// A dnstap sender speaking Frame Streams through the net module, as a DNS server would.
struct Sender {
  Sender(const net::SocketSettings& settings, bool bidirectional);
  void send(const std::string& payload);

  net::Socket socket;
  net::tls::TlsSocket tls;
  std::unique_ptr<net::fstrm::FstrmSocket> fstrm;
};

}  // namespace vantrelo::worker::testing
