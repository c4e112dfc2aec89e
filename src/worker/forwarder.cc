#include "worker/forwarder.h"

#include <chrono>
#include <cstring>
#include <exception>

#include "base/log.h"
#include "encoding/text_encoding.h"

namespace vantrelo::worker::forwarder {

namespace {

constexpr char kConnectionError[] = "Connection error: ";

// A collector that cannot be reached is tried again after this many one-second sleeps.
constexpr int kReconnectSleeps = 10;
constexpr auto kReconnectSleep = std::chrono::milliseconds(1000);
// How often join() wakes the queue while the thread has not yet seen its stop flag.
constexpr auto kJoinWakeInterval = std::chrono::milliseconds(20);

net::tls::TlsSettings clientRole(net::tls::TlsSettings tls) {
  tls.server_role = false;
  return tls;
}

ForwarderSettings withClientTls(ForwarderSettings settings) {
  settings.tls = clientRole(settings.tls);
  return settings;
}

}  // namespace

Forwarder::Forwarder(uint32_t id, const ForwarderSettings& settings,
                     event::queue::EventQueue& queue,
                     const format::MessageSettings& messageSettings, std::FILE* output)
    : ForwarderCounters(id),
      settings_(withClientTls(settings)),
      dnstap_(messageSettings.format == format::MessageFormat::kDnstap),
      queue_(queue),
      output_(output),
      formatter_(messageSettings),
      socket_(std::make_unique<net::Socket>(id, settings_.socket)) {
  // A stop ends a wait that finds the collector unresponsive (connect, handshake, a write it
  // does not read) within a pass, while a collector that keeps up still gets its orderly close.
  socket_->stopOn(&stopRequested_, net::StopMode::kWhenBlocked);
  resetStreams();
}

Forwarder::~Forwarder() {
  if (!thread_.joinable()) return;
  stop();
  join();
}

void Forwarder::start() {
  if (thread_.joinable()) return;
  thread_ = std::thread(&Forwarder::run, this);
}

void Forwarder::stop() {
  stopRequested_ = true;
  // Through the lock, so that a thread about to pause cannot miss the notification.
  { std::lock_guard<std::mutex> lock(stateMutex_); }
  stateCondition_.notify_all();
  queue_.wakeAll();
}

void Forwarder::join() {
  if (!thread_.joinable()) return;
  {
    // A wake-up that comes just before the thread starts waiting is lost and only the wait's
    // bound ends that wait; waking it until the thread has ended makes the stop prompt.
    std::unique_lock<std::mutex> lock(stateMutex_);
    while (!finished_) {
      queue_.wakeAll();
      stateCondition_.wait_for(lock, kJoinWakeInterval);
    }
  }
  thread_.join();
}

void Forwarder::run() {
  const net::SocketSettings& socket = settings_.socket;
  runProcessLoop(socket.host + ":" + std::to_string(socket.port), [this] { processLoop(); });
  std::lock_guard<std::mutex> lock(stateMutex_);
  finished_ = true;
  stateCondition_.notify_all();
}

void Forwarder::processLoop() {
  while (!stopRequested_) {
    try {
      if (!settings_.toStdout && !socket_->isOpen()) connect();
      sendLoop();
      disconnect();
    } catch (const std::exception& failure) {
      handleError(failure.what());
    }
  }
}

void Forwarder::connect() {
  connects_.fetch_add(1);
  socket_->connect();
  if (settings_.tls.enabled) tls_->handshake();
  if (dnstap_) fstrm_->open();
  established_ = true;
  connected_ = true;
}

void Forwarder::disconnect() {
  if (settings_.toStdout || !socket_->isOpen()) return;
  connected_ = false;
  if (dnstap_) fstrm_->close();
  if (settings_.tls.enabled) tls_->shutdown();
  // After an orderly close the collector normally has it all; what it has not acknowledged
  // yet is saved with the queue rather than trusted to a socket about to close. A system that
  // cannot tell leaves it to the orderly close, so that every stop does not repeat a batch.
  if (settings_.returnPrevious && !sent_.empty()) {
    const int64_t pending = socket_->unacknowledgedBytes();
    if (pending <= 0) {
      sent_.clear();
    } else {
      sent_.acknowledge(socket_->bytesWritten(), pending);
      settleSent(true);
    }
  }
  socket_->close();
}

void Forwarder::settleSent(bool all) {
  if (!settings_.returnPrevious || sent_.empty()) return;
  if (!all) {
    sent_.acknowledge(socket_->bytesWritten(), socket_->unacknowledgedBytes());
    return;
  }
  log::info(prefix() + "Returning " + std::to_string(sent_.count()) +
            " previous events back to the event queue");
  sent_.returnTo(queue_);
}

void Forwarder::sendLoop() {
  while (!stopRequested_) {
    if (current().count() == 0) {
      fillBatch();
      if (current().count() == 0) {
        sendBuffer_.clear();
        // While idle the collector catches up: forget what it has acknowledged by now.
        if (!settings_.toStdout) settleSent(false);
        waitForEvents();
        continue;
      }
    }
    writeBatch();
    Batch& written = current();
    bytesSent_.fetch_add(written.bytes);
    eventsSent_.fetch_add(written.count());
    if (settings_.returnPrevious && !settings_.toStdout) {
      sent_.keep(written, socket_->bytesWritten(), socket_->unacknowledgedBytes());
    }
    currentIndex_ = 1 - currentIndex_;
    current().clear();
    sendBuffer_.clear();
  }
}

void Forwarder::fillBatch() {
  Batch& batch = current();
  // One lock for the whole batch; the events are then checked and formatted outside it.
  popped_.clear();
  const size_t start = batch.events.size();
  if (queue_.popBatch(batch.events, popped_, settings_.batchSize) == 0) return;
  auto* events = reinterpret_cast<uint8_t*>(batch.events.data());
  size_t read = start;
  size_t kept = start;
  for (const uint32_t length : popped_) {
    const size_t formattedFrom = sendBuffer_.size();
    bool formatted = false;
    try {
      formatted = formatter_.formatEvent(events + read, length, record_, sendBuffer_);
    } catch (const std::exception&) {
      formatted = false;
    }
    if (formatted) {
      // Skipped events leave a gap; the kept ones close ranks so the batch stays back to back.
      if (kept != read) std::memmove(events + kept, events + read, length);
      kept += length;
      batch.lengths.push_back(length);
    } else {
      // Skipped for good: returning it to the queue would only fail again.
      sendBuffer_.resize(formattedFrom);
      dnstapErrors_.fetch_add(1);
    }
    read += length;
  }
  batch.events.resize(kept);
  batch.bytes = sendBuffer_.size();
}

void Forwarder::waitForEvents() {
  if (stopRequested_) return;
  // Bounded, so that a stop request whose wake-up came just before the wait is seen in time.
  queue_.waitFor(event::queue::kWaitBound);
}

void Forwarder::writeBatch() {
  const auto* data = reinterpret_cast<const uint8_t*>(sendBuffer_.data());
  const auto size = static_cast<uint32_t>(sendBuffer_.size());
  if (settings_.toStdout) {
    if (dnstap_) {
      hexBuffer_.clear();
      encoding::hex::hexEncode(hexBuffer_, data, size);
      hexBuffer_.push_back('\n');
      std::fwrite(hexBuffer_.data(), 1, hexBuffer_.size(), output_);
    } else {
      std::fwrite(data, 1, size, output_);
    }
    // A program reading the pipe sees every batch as soon as it is written.
    std::fflush(output_);
  } else if (dnstap_) {
    fstrm_->writeBytes(data, size);
  } else if (settings_.tls.enabled) {
    tls_->write(data, size);
  } else {
    socket_->send(data, size);
  }
}

void Forwarder::handleError(const char* text) {
  log::error(prefix() + kConnectionError + text);
  connected_ = false;
  if (!settings_.toStdout) socket_->close();
  Batch& before = previous();
  // Everything written that the collector's TCP had not acknowledged when last asked; the
  // socket is not asked again, as a reset connection no longer tells.
  settleSent(true);
  if (settings_.returnCurrent) {
    returnEvents(current(), "current");
  } else if (stopRequested_ && current().count() > 0) {
    // The stop cut this batch's write short; it is saved with the queue rather than lost.
    returnEvents(current(), "current");
  }
  before.clear();
  current().clear();
  sendBuffer_.clear();
  resetStreams();
  if (established_) {
    established_ = false;
    return;
  }
  pauseBeforeReconnect();
}

void Forwarder::returnEvents(Batch& batch, const char* which) {
  log::info(prefix() + "Returning " + std::to_string(batch.count()) + " " + which +
            " events back to the event queue");
  const auto* data = reinterpret_cast<const uint8_t*>(batch.events.data());
  for (uint32_t length : batch.lengths) {
    if (length != 0) queue_.push(data, length);
    data += length;
  }
}

void Forwarder::resetStreams() {
  fstrm_.reset();
  tls_ = std::make_unique<net::tls::TlsSocket>(id_, settings_.tls, *socket_);
  fstrm_ = std::make_unique<net::fstrm::FstrmSocket>(id_, settings_.fstrm, *socket_, *tls_);
}

void Forwarder::pauseBeforeReconnect() {
  std::unique_lock<std::mutex> lock(stateMutex_);
  for (int sleep = 0; sleep < kReconnectSleeps && !stopRequested_; ++sleep) {
    stateCondition_.wait_for(lock, kReconnectSleep, [this] { return stopRequested_.load(); });
  }
}

void Forwarder::metrics(format::ForwarderMetrics& out) const {
  fillCounters(out);
  out.is_ipv6 = settings_.socket.ipv6;
  out.host = settings_.socket.host;
  out.port = settings_.socket.port;
}

}  // namespace vantrelo::worker::forwarder
