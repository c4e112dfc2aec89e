#include "metrics/metrics_endpoint.h"

#include <exception>
#include <utility>

#include "base/log.h"
#include "metrics/agent_series.h"

namespace vantrelo::metrics {

namespace {

constexpr char kPrefix[] = "MetricsEndpoint: ";
constexpr uint32_t kWriteSeconds = 5;
// The accept loop waits in one-second passes: a stop is seen, finished connections are joined
// and the outputs' states are sampled for the health check about once a second.
constexpr uint32_t kWaitSeconds = 1;
constexpr auto kAcceptRetryPause = std::chrono::seconds(1);
constexpr size_t kReadChunk = 2048;
constexpr char kJsonType[] = "application/json";
constexpr char kTextType[] = "text/plain; charset=utf-8";

struct Status {
  int code;
  const char* reason;
};

constexpr Status kOk{200, "OK"};
constexpr Status kBadRequest{400, "Bad Request"};
constexpr Status kNotFound{404, "Not Found"};
constexpr Status kMethodNotAllowed{405, "Method Not Allowed"};
constexpr Status kHeadTooLarge{431, "Request Header Fields Too Large"};
constexpr Status kUnavailable{503, "Service Unavailable"};

std::string response(Status status, const char* type, const std::string& body, bool head,
                     const char* extraField = nullptr) {
  std::string out = "HTTP/1.1 " + std::to_string(status.code) + " " + status.reason +
                    "\r\nContent-Type: " + type +
                    "\r\nContent-Length: " + std::to_string(body.size()) +
                    "\r\nConnection: close\r\n";
  if (extraField != nullptr) out.append(extraField);
  out.append("\r\n");
  if (!head) out.append(body);
  return out;
}

std::string errorResponse(Status status, bool head = false, const char* extraField = nullptr) {
  return response(status, kTextType, std::string(status.reason) + "\n", head, extraField);
}

net::SocketSettings listeningSettings(net::SocketSettings socket) {
  socket.unix = false;
  socket.readTimeout = kReadSeconds;
  socket.writeTimeout = kWriteSeconds;
  socket.sendBufferSize = 0;
  socket.recvBufferSize = 0;
  return socket;
}

double secondsSinceEpoch() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

MetricsEndpoint::MetricsEndpoint(const EndpointSettings& settings, std::string version,
                                 std::vector<std::unique_ptr<MetricsSource>> sources)
    : settings_(settings),
      version_(std::move(version)),
      startTime_(secondsSinceEpoch()),
      sources_(std::move(sources)),
      socket_(0, listeningSettings(settings.socket)) {}

MetricsEndpoint::~MetricsEndpoint() {
  if (thread_.started()) stop();
}

void MetricsEndpoint::start() {
  thread_.start([this] { run(); });
}

void MetricsEndpoint::stop() { thread_.requestStop(); }

void MetricsEndpoint::join() { thread_.join(); }

void MetricsEndpoint::run() {
  base::runProcessLoop({.logPrefix = kPrefix,
                        .loop = [this] { acceptLoop(); },
                        .finish =
                            [this] {
                              // The connections end with the loop, whatever ended it.
                              thread_.requestStop();
                              reap(true);
                              socket_.close();
                            }});
}

void MetricsEndpoint::acceptLoop() {
  const net::SocketSettings& socket = settings_.socket;
  log::info(std::string(kPrefix) + "Listening on " + socket.host + ":" +
            std::to_string(socket.port));
  socket_.listen();
  boundPort_ = socket_.localPort();
  while (!thread_.stopRequested()) {
    reap(false);
    sampleHealth(nullptr);
    if (socket_.wait(true, kWaitSeconds)) continue;
    reap(false);  // a slot freed during the wait is free for this connection
    try {
      while (auto accepted = socket_.accept()) {
        if (connections_.size() >= kMaxConnections) {
          accepted->close();  // over the limit: refused at once, without a word
          continue;
        }
        Connection& connection = connections_.emplace_back();
        try {
          connection.thread =
              std::thread(&MetricsEndpoint::serve, this, std::move(accepted), std::ref(connection));
        } catch (...) {
          connections_.pop_back();
          throw;
        }
      }
    } catch (const std::exception& failure) {
      log::error(std::string(kPrefix) + failure.what());
      if (!thread_.stopRequested()) std::this_thread::sleep_for(kAcceptRetryPause);
    }
  }
}

void MetricsEndpoint::reap(bool all) {
  for (auto it = connections_.begin(); it != connections_.end();) {
    if (all || it->done) {
      it->thread.join();
      it = connections_.erase(it);
    } else {
      ++it;
    }
  }
}

void MetricsEndpoint::serve(std::unique_ptr<net::Socket> socket, Connection& connection) {
  try {
    std::string received;
    char chunk[kReadChunk];
    HttpRequest request;
    ParseStatus status = ParseStatus::kIncomplete;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kReadSeconds);
    while (status == ParseStatus::kIncomplete) {
      if (thread_.stopRequested() || std::chrono::steady_clock::now() >= deadline) break;
      if (socket->wait(true, kWaitSeconds)) continue;
      received.append(chunk, socket->recv(chunk, sizeof chunk));
      status = parseRequest(received, request);
    }
    // A client that never finished its request is closed without an answer.
    if (status != ParseStatus::kIncomplete) {
      const std::string out = respond(status, request);
      socket->send(out.data(), out.size());
    }
  } catch (const std::exception&) {
    // The client went away or stopped reading: nothing to tell it, nothing worth a log line.
  }
  socket->close();
  connection.done = true;
}

bool MetricsEndpoint::sampleHealth(std::string* body) {
  std::vector<OutputState> outputs;
  {
    std::lock_guard<std::mutex> lock(sourcesMutex_);
    for (auto& source : sources_) source->outputs(outputs);
  }
  return health_.update(outputs, HealthTracker::Clock::now(), body);
}

std::string MetricsEndpoint::respond(ParseStatus status, const HttpRequest& request) {
  if (status == ParseStatus::kTooLarge) return errorResponse(kHeadTooLarge);
  if (status != ParseStatus::kComplete) return errorResponse(kBadRequest);
  const bool head = request.method == "HEAD";
  const bool metrics = request.path == "/metrics";
  if (!metrics && request.path != "/health") return errorResponse(kNotFound, head);
  if (request.method != "GET" && !head) {
    return errorResponse(kMethodNotAllowed, false, "Allow: GET, HEAD\r\n");
  }
  if (!metrics) {
    std::string body;
    const bool healthy = sampleHealth(&body);
    return response(healthy ? kOk : kUnavailable, kJsonType, body, head);
  }
  ExpositionWriter writer;
  {
    std::lock_guard<std::mutex> lock(sourcesMutex_);
    for (auto& source : sources_) source->collect(writer);
  }
  appendProcess(writer, version_, startTime_);
  std::string body;
  writer.write(body);
  return response(kOk, kContentType, body, head);
}

}  // namespace vantrelo::metrics
