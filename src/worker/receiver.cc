#include "worker/receiver.h"

#include <exception>
#include <string_view>
#include <utility>

#include "base/log.h"

namespace vantrelo::worker::receiver {

namespace {

constexpr char kStartingLoop[] = "Starting process loop";
constexpr char kFinishedLoop[] = "Finished process loop";
constexpr char kLoopFailed[] = "Process loop failed: ";
constexpr char kUnexpectedControl[] = "Unexpected control message type ";
constexpr char kTimedOut[] = "Connection timed out";

// Every data frame travels behind a 4-byte big-endian length.
constexpr uint64_t kFrameLengthBytes = 4;

// The wait for data runs in passes of this many seconds so that a stop is seen quickly even
// with a long read time-out.
constexpr uint32_t kWaitPassSeconds = 1;

net::tls::TlsSettings serverRole(net::tls::TlsSettings tls) {
  tls.server_role = true;
  return tls;
}

}  // namespace

Receiver::Receiver(const ReceiverSettings& settings, FinishedCallback callback, void* context,
                   event::queue::EventQueue& queue, std::unique_ptr<net::Socket> socket)
    : id_(socket->id()),
      settings_{settings.socket, serverRole(settings.tls), settings.fstrm, settings.filter},
      callback_(callback),
      context_(context),
      queue_(queue),
      socket_(std::move(socket)),
      filter_(settings.filter) {
  // Any wait, also inside a frame, a TLS record or the handshake, ends once a stop is asked:
  // a trickling or silent sender must not hold the agent's stop up.
  socket_->stopOn(&stopRequested_, net::StopMode::kAtOnce);
  tls_ = std::make_unique<net::tls::TlsSocket>(id_, settings_.tls, *socket_);
  fstrm_ = std::make_unique<net::fstrm::FstrmSocket>(id_, settings_.fstrm, *socket_, *tls_);
  try {
    peer_ = socket_->peer();
  } catch (const std::exception& failure) {
    peerError_ = failure.what();
  }
}

Receiver::~Receiver() {
  fstrm_->release();
  if (settings_.tls.enabled) tls_->shutdown();
  socket_->close();
}

void Receiver::start() {
  if (thread_.joinable()) return;
  thread_ = std::thread(&Receiver::run, this);
}

void Receiver::join() {
  if (thread_.joinable()) thread_.join();
}

void Receiver::run() {
  log::info(prefix() + kStartingLoop);
  try {
    processLoop();
  } catch (const std::exception& failure) {
    // A stop ends the connection wherever it stands; a partly received frame is dropped.
    if (!stopRequested_) log::error(prefix() + kLoopFailed + failure.what());
    if (settings_.tls.enabled) tls_->shutdown();
    socket_->close();
  }
  // The listener reaps a receiver that ended by itself; one that was told to stop is being
  // torn down by the listener already.
  if (!stopRequested_) callback_(*this, context_);
  log::info(prefix() + kFinishedLoop);
}

void Receiver::deliver() {
  // The one place where relayed frames enter the queue: each passes the agent's filters, then
  // the frames of the read go in as one batch, straight from the read-ahead buffer, the one copy
  // a relayed frame costs. The filter keeps a re-encoded frame only until its next call, so such
  // frames wait in rewritten_ until the batch is pushed.
  events_.clear();
  rewritten_.clear();
  rewrittenAt_.clear();
  uint64_t bytes = 0;
  size_t received = 0;
  std::string_view refused;  // a frame that can never fit the queue ends the batch
  for (const net::fstrm::FrameSpan& frame : frames_) {
    std::string_view event(reinterpret_cast<const char*>(frame.data), frame.length);
    if (filter_.admit(event)) {
      const auto length = static_cast<uint32_t>(event.size());
      if (!queue_.fits(length)) {
        refused = event;
        break;
      }
      if (event.data() != reinterpret_cast<const char*>(frame.data)) {
        rewrittenAt_.emplace_back(events_.size(), rewritten_.size());
        rewritten_.append(event);
      }
      events_.push_back({reinterpret_cast<const uint8_t*>(event.data()), length});
    }
    ++received;
    bytes += frame.length + kFrameLengthBytes;
  }
  for (const auto& [entry, offset] : rewrittenAt_) {
    events_[entry].data = reinterpret_cast<const uint8_t*>(rewritten_.data()) + offset;
  }
  queue_.pushBatch(events_.data(), events_.size());
  eventsReceived_.fetch_add(received);
  bytesReceived_.fetch_add(bytes);
  // Refused with the queue's own error, as a single push would be.
  if (received < frames_.size()) {
    queue_.push(reinterpret_cast<const uint8_t*>(refused.data()),
                static_cast<uint32_t>(refused.size()));
  }
}

bool Receiver::waitForData() {
  uint32_t allowance = settings_.socket.keepalive;
  for (;;) {
    for (uint32_t pass = 0; pass < settings_.socket.readTimeout; pass += kWaitPassSeconds) {
      if (stopRequested_) return false;
      if (!fstrm_->wait(kWaitPassSeconds)) return true;
    }
    // A read time-out of 0 has expired at once, as every socket wait treats it.
    if (stopRequested_) return false;
    if (allowance == 0) throw ReceiverError(kTimedOut);
    --allowance;
  }
}

void Receiver::processLoop() {
  if (!peerError_.empty()) throw ReceiverError(peerError_);
  if (peer_.unix) {
    log::info(prefix() + "Handling connection from uid=" + std::to_string(peer_.uid) +
              " gid=" + std::to_string(peer_.gid) + " pid=" + std::to_string(peer_.pid));
  } else {
    // The port stays in network byte order, as the socket address holds it.
    log::info(prefix() + "Handling connection from " + peer_.host + ":" +
              std::to_string(peer_.port));
    if (settings_.tls.enabled) tls_->handshake();
  }

  bool bidirectional = false;
  uint32_t type = fstrm_->readControl(true, true);
  if (type == net::fstrm::kControlReady) {
    fstrm_->writeControl(net::fstrm::kControlAccept, true);
    type = fstrm_->readControl(true, true);
    bidirectional = true;
  }
  if (type != net::fstrm::kControlStart) {
    throw ReceiverError(kUnexpectedControl + std::to_string(type));
  }

  for (;;) {
    if (!waitForData()) return;
    frames_.clear();
    if (!fstrm_->readDataFrames(frames_)) break;
    deliver();
  }

  type = fstrm_->readControl(false, false);
  if (type != net::fstrm::kControlStop) {
    throw ReceiverError(kUnexpectedControl + std::to_string(type));
  }
  if (bidirectional) fstrm_->writeControl(net::fstrm::kControlFinish, false);
}

}  // namespace vantrelo::worker::receiver
