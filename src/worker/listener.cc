#include "worker/listener.h"

#include <chrono>
#include <exception>
#include <string>
#include <thread>
#include <utility>

#include "base/log.h"

namespace vantrelo::worker::listener {

namespace {

constexpr char kStartingEtw[] = "Starting ETW session";
constexpr char kHandlingConnection[] = "Handling connection";

// The accept loop waits in one-second passes, so a stop request is seen within a second (well
// inside the three seconds promised) and finished receivers are reaped at least that often.
constexpr uint32_t kAcceptWaitSeconds = 1;
// After a failed accept (out of descriptors, say) the loop pauses before trying again rather
// than spinning on a socket that stays readable.
constexpr auto kAcceptRetryPause = std::chrono::seconds(1);

receiver::ReceiverSettings receiverSettingsOf(const ListenerSettings& settings,
                                              filter::EdgeFilter* filter) {
  return receiver::ReceiverSettings{settings.socket, settings.tls, settings.fstrm, filter};
}

std::unique_ptr<filter::EdgeFilter> filterOf(const ListenerSettings& settings) {
  if (!settings.filter) return nullptr;
  return std::make_unique<filter::EdgeFilter>(settings.filter);
}

}  // namespace

Listener::Listener(uint32_t id, const ListenerSettings& settings, event::queue::EventQueue& queue,
                   std::unique_ptr<etw::TraceSessionApi> sessionApi)
    : id_(id),
      settings_(settings),
      filter_(filterOf(settings)),
      receiverSettings_(receiverSettingsOf(settings, filter_.get())),
      queue_(queue),
      etwPusher_(queue, filter_.get()) {
  if (settings_.etw) {
    etwReader_ =
        std::make_unique<etw::EtwReader>(settings_.etwSettings, prefix(), std::move(sessionApi));
  } else {
    socket_ = std::make_unique<net::Socket>(id_, settings_.socket);
  }
}

Listener::~Listener() {
  if (thread_.started()) stop();
}

void Listener::start() {
  thread_.start([this] { run(); });
}

void Listener::stop() {
  thread_.requestStop();
  if (etwReader_) etwReader_->stop();
  // Told now rather than after the accept loop's last pass, so that the receivers' own passes
  // run alongside it and the whole stop stays within about one second.
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& entry : receivers_) entry.second->stop();
}

void Listener::join() { thread_.join(); }

void Listener::run() {
  base::runProcessLoop({.logPrefix = prefix(),
                        .loop = [this] { settings_.etw ? runEtw() : runSocket(); },
                        // Whatever ended the loop, no receiver may outlive it.
                        .finish =
                            [this] {
                              stopReceivers();
                              if (socket_) socket_->close();
                            },
                        .failed =
                            [this](const std::string& line) {
                              if (settings_.etw && failureHook_ != nullptr) failureHook_(line);
                            }});
}

void Listener::runEtw() {
  log::info(prefix() + kStartingEtw);
  etwReader_->run(&EventPusher::handle, &etwPusher_, &EventPusher::flushHandle);
}

void Listener::runSocket() {
  const net::SocketSettings& socket = settings_.socket;
  log::info(prefix() + "Listening on " +
            (socket.unix ? socket.path : socket.host + ":" + std::to_string(socket.port)));
  socket_->listen();
  boundPort_ = socket_->localPort();
  while (!thread_.stopRequested()) {
    reapFinished();
    if (socket_->wait(true, kAcceptWaitSeconds)) continue;
    try {
      acceptPending();
    } catch (const std::exception& failure) {
      log::error(prefix() + failure.what());
      if (!thread_.stopRequested()) std::this_thread::sleep_for(kAcceptRetryPause);
    }
  }
}

void Listener::acceptPending() {
  while (auto accepted = socket_->accept()) handleConnection(std::move(accepted));
}

void Listener::handleConnection(std::unique_ptr<net::Socket> socket) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (receivers_.size() >= settings_.socket.maxConnections) {
    // Refused without a word: the sender sees the connection close.
    socket->close();
    return;
  }
  log::info(prefix() + kHandlingConnection);
  auto created = std::make_unique<receiver::Receiver>(
      receiverSettings_, &Listener::receiverFinished, this, queue_, std::move(socket));
  receiver::Receiver& receiver = *created;
  receivers_[receiver.id()] = std::move(created);
  // Counted before the thread starts, so that a metrics report never lists a receiver that
  // the counters do not include yet.
  accepts_.fetch_add(1);
  const uint64_t active = activeReceivers_.fetch_add(1) + 1;
  if (active > peakReceivers_.load()) peakReceivers_.exchange(active);
  try {
    receiver.start();
  } catch (...) {
    // No thread (out of resources): nothing will report this receiver finished.
    activeReceivers_.fetch_sub(1);
    receivers_.erase(receiver.id());
    throw;
  }
  if (thread_.stopRequested()) receiver.stop();
}

void Listener::receiverFinished(receiver::Receiver& receiver, void* context) {
  auto& self = *static_cast<Listener*>(context);
  log::info(self.prefix() + "Receiver[" + std::to_string(receiver.id()) + "] Is finished");
  std::lock_guard<std::mutex> lock(self.mutex_);
  // Gone already when the listener is tearing its receivers down; it joins them itself.
  auto found = self.receivers_.find(receiver.id());
  if (found != self.receivers_.end()) {
    self.finished_.push_back(std::move(found->second));
    self.receivers_.erase(found);
  }
  self.activeReceivers_.fetch_sub(1);
}

void Listener::reapFinished() {
  std::vector<std::unique_ptr<receiver::Receiver>> done;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    done.swap(finished_);
  }
  // Joined outside the lock: a receiver thread may still be on its way out of the callback.
  for (auto& receiver : done) receiver->join();
}

void Listener::stopReceivers() {
  std::vector<std::unique_ptr<receiver::Receiver>> all;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : receivers_) {
      entry.second->stop();
      all.push_back(std::move(entry.second));
    }
    receivers_.clear();
    for (auto& receiver : finished_) all.push_back(std::move(receiver));
    finished_.clear();
  }
  for (auto& receiver : all) receiver->join();
}

void Listener::metrics(format::ListenerMetrics& out) {
  const net::SocketSettings& socket = settings_.socket;
  out.id = id_;
  out.is_etw = settings_.etw;
  out.is_unix = !settings_.etw && socket.unix;
  out.is_ipv6 = socket.ipv6;
  out.path = socket.path;
  out.host = socket.host;
  const uint16_t bound = boundPort();
  out.port = bound != 0 ? bound : socket.port;
  if (etwReader_) {
    try {
      etwReader_->queryStatistics();
    } catch (const std::exception&) {
      // The session is not running (yet, or any more): report what was last seen.
    }
    const etw::EtwStatistics statistics = etwReader_->statistics();
    out.etw.number_of_buffers = statistics.numberOfBuffers;
    out.etw.free_buffers = statistics.freeBuffers;
    out.etw.events_lost = statistics.eventsLost;
    out.etw.buffers_written = statistics.buffersWritten;
    out.etw.log_buffers_lost = statistics.logBuffersLost;
    out.etw.real_time_buffers_lost = statistics.realTimeBuffersLost;
  }
  if (filter_) {
    const filter::FilterSettings& rules = filter_->settings();
    const filter::FilterCounts counts = filter_->counts();
    out.filter.drop_list = !rules.dropDomains.empty();
    out.filter.keep_list = rules.keepList;
    out.filter.drop_types = rules.dropsTypes();
    out.filter.sampling = rules.samples();
    out.filter.privacy = rules.hidesClients();
    out.filter.dropped_by_domain = counts.droppedByDomain;
    out.filter.dropped_by_keep = counts.droppedByKeep;
    out.filter.dropped_by_type = counts.droppedByType;
    out.filter.sampled_out = counts.sampledOut;
    out.filter.dropped_unreadable = counts.droppedUnreadable;
  }
  out.receivers.clear();
  // The counters change under this lock too: read them with the receiver list they describe.
  std::lock_guard<std::mutex> lock(mutex_);
  out.accepts = accepts();
  out.active_receivers = activeReceivers();
  out.peak_receivers = peakReceivers();
  for (const auto& entry : receivers_) {
    const receiver::Receiver& receiver = *entry.second;
    const net::PeerAddress& peer = receiver.peer();
    format::ReceiverMetrics& record = out.receivers.emplace_back();
    record.id = receiver.id();
    record.is_unix = peer.unix;
    record.is_ipv6 = peer.ipv6;
    record.host = peer.host;
    record.port = peer.port;
    record.uid = peer.uid;
    record.gid = peer.gid;
    record.pid = peer.pid;
    record.bytes_received = receiver.bytesReceived();
    record.events_received = receiver.eventsReceived();
  }
}

}  // namespace vantrelo::worker::listener
