// The HTTP endpoint that monitoring servers scrape: GET /metrics and GET /health.
//
// One more worker of the agent: start() opens the listening socket's thread, which accepts
// connections and serves each on a short-lived thread of its own, so a slow client holds up
// nobody but itself. Each connection carries one request (head at most 8 KiB, read within 5
// seconds) and gets one response, after which the server closes it. At most 16 connections are
// served at once; one more is closed as soon as it is accepted. Responses are built from the
// sources one scrape at a time; the workers' counters are read, never locked for long, so a
// scrape cannot slow the agent.
//
// Ownership: the endpoint owns its sources, its sockets and its threads; the workers the
// sources read must outlive it. start(), stop() and join() are called by the agent's thread;
// stop() may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/worker_thread.h"
#include "metrics/health.h"
#include "metrics/http_request.h"
#include "metrics/metrics_source.h"
#include "net/net_settings.h"
#include "net/socket.h"

namespace vantrelo::metrics {

// From the `metrics-listen` key; without it the agent serves no endpoint.
struct EndpointSettings {
  bool enabled = false;
  net::SocketSettings socket;
};

inline constexpr uint32_t kMaxConnections = 16;
inline constexpr uint32_t kReadSeconds = 5;

class MetricsEndpoint {
 public:
  MetricsEndpoint(const EndpointSettings& settings, std::string version,
                  std::vector<std::unique_ptr<MetricsSource>> sources);
  // Stops and joins a thread that is still running.
  ~MetricsEndpoint();
  MetricsEndpoint(const MetricsEndpoint&) = delete;
  MetricsEndpoint& operator=(const MetricsEndpoint&) = delete;

  void start();
  // Sets the stop flag; the threads see it within a second (a response being written may take
  // up to its write time-out).
  void stop();
  void join();

  // The TCP port listened on (the system's pick for port 0); 0 until listening.
  uint16_t boundPort() const { return boundPort_.load(); }

  // The response to one request head as parsed (status line, header fields, body).
  std::string respond(ParseStatus status, const HttpRequest& request);

 private:
  struct Connection {
    std::thread thread;
    std::atomic<bool> done{false};
  };

  void run();
  void acceptLoop();
  void reap(bool all);
  void serve(std::unique_ptr<net::Socket> socket, Connection& connection);
  // Feeds the outputs' states to the health tracker; true when healthy.
  bool sampleHealth(std::string* body);

  const EndpointSettings settings_;
  const std::string version_;
  const double startTime_;  // seconds since the epoch
  std::vector<std::unique_ptr<MetricsSource>> sources_;
  std::mutex sourcesMutex_;  // one scrape of the sources at a time
  HealthTracker health_;
  net::Socket socket_;
  std::atomic<uint16_t> boundPort_{0};
  std::list<Connection> connections_;  // touched by the accept thread only
  base::WorkerThread thread_;          // last: joined before the members above go
};

}  // namespace vantrelo::metrics
