#include "metrics/metrics_endpoint.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace vantrelo::metrics {
namespace {

const MetricFamily kTicks{"test_ticks_total", MetricType::kCounter, "Ticks."};

// One counter, and one forwarder whose connection the test switches.
class FakeSource : public MetricsSource {
 public:
  explicit FakeSource(std::atomic<bool>& connected) : connected_(connected) {}
  void collect(ExpositionWriter& out) override { out.add(kTicks, {{"id", "0"}}, uint64_t{42}); }
  void outputs(std::vector<OutputState>& out) override {
    out.push_back({0, "c:1", false, connected_.load()});
  }

 private:
  std::atomic<bool>& connected_;
};

class MetricsEndpointTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { net::startNetworking(); }

  void SetUp() override {
    EndpointSettings settings;
    settings.enabled = true;
    settings.socket.unix = false;
    settings.socket.port = 0;
    std::vector<std::unique_ptr<MetricsSource>> sources;
    sources.push_back(std::make_unique<FakeSource>(connected_));
    endpoint_ = std::make_unique<MetricsEndpoint>(settings, "9.9", std::move(sources));
    endpoint_->start();
    for (int i = 0; i < 500 && endpoint_->boundPort() == 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_NE(endpoint_->boundPort(), 0);
  }

  void TearDown() override {
    endpoint_->stop();
    endpoint_->join();
  }

  std::unique_ptr<net::Socket> connect() {
    net::SocketSettings settings;
    settings.unix = false;
    settings.port = endpoint_->boundPort();
    settings.readTimeout = 10;
    auto socket = std::make_unique<net::Socket>(1, settings);
    socket->connect();
    return socket;
  }

  // Everything the server writes until it closes the connection.
  static std::string readAll(net::Socket& socket) {
    std::string out;
    char buffer[4096];
    try {
      for (;;) out.append(buffer, socket.recv(buffer, sizeof buffer));
    } catch (const net::SocketError&) {
      // closed (or reset) by the server
    }
    return out;
  }

  std::string exchange(const std::string& request) {
    auto socket = connect();
    socket->send(request.data(), request.size());
    return readAll(*socket);
  }

  std::atomic<bool> connected_{true};
  std::unique_ptr<MetricsEndpoint> endpoint_;
};

TEST_F(MetricsEndpointTest, Responses) {
  struct Case {
    std::string request;
    const char* head;  // the status line and the content type
    const char* body;  // a part of the body
  };
  const Case cases[] = {
      {"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n",
       "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n",
       "# HELP test_ticks_total Ticks.\n# TYPE test_ticks_total counter\n"
       "test_ticks_total{id=\"0\"} 42\n"},
      {"GET /metrics HTTP/1.0\r\n\r\n", "HTTP/1.1 200 OK\r\n",
       "vantrelo_build_info{version=\"9.9\"} 1\n"},
      {"GET /health HTTP/1.0\r\n\r\n", "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n",
       "{\"status\":\"ok\",\"down\":[],"},
      {"POST /metrics HTTP/1.0\r\n\r\n", "HTTP/1.1 405 Method Not Allowed\r\n", "Not Allowed\n"},
      {"GET /other HTTP/1.0\r\n\r\n", "HTTP/1.1 404 Not Found\r\n", "Not Found\n"},
      {"GET /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n", "Bad Request\n"},
      {std::string("\x16\x03\x01\x00\x05", 5), "HTTP/1.1 400 Bad Request\r\n", "Bad Request\n"},
      {"GET /metrics HTTP/1.0\r\nX: " + std::string(9000, 'x') + "\r\n\r\n",
       "HTTP/1.1 431 Request Header Fields Too Large\r\n", "Too Large\n"},
  };
  for (const Case& c : cases) {
    const std::string response = exchange(c.request);
    EXPECT_TRUE(response.starts_with(c.head)) << response.substr(0, 200);
    EXPECT_NE(response.find(c.body), std::string::npos) << response;
    const size_t end = response.find("\r\n\r\n");
    const std::string length = "Content-Length: " + std::to_string(response.size() - end - 4);
    EXPECT_NE(response.find(length), std::string::npos) << response.substr(0, end);
  }
}

TEST_F(MetricsEndpointTest, ConnectionLimitAndReadTimeOut) {
  // Sixteen clients that never send their request hold every slot; the next is closed at once.
  std::vector<std::unique_ptr<net::Socket>> idle;
  for (uint32_t i = 0; i < kMaxConnections; ++i) idle.push_back(connect());
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(exchange("GET /metrics HTTP/1.0\r\n\r\n"), "");
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(3));
  // Each idle client is dropped, unanswered, after the read time-out; then scrapes work again.
  for (auto& socket : idle) EXPECT_EQ(readAll(*socket), "");
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(kReadSeconds + 3));
  EXPECT_TRUE(exchange("GET /metrics HTTP/1.0\r\n\r\n").starts_with("HTTP/1.1 200 OK\r\n"));
}

}  // namespace
}  // namespace vantrelo::metrics
