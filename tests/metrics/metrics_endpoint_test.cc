#include "metrics/metrics_endpoint.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace vantrelo::metrics {
namespace {

// Everything the server writes until it closes the connection.
std::string readAll(net::Socket& socket) {
  std::string out;
  char buffer[4096];
  try {
    for (;;) out.append(buffer, socket.recv(buffer, sizeof buffer));
  } catch (const net::SocketError&) {
    // closed (or reset) by the server
  }
  return out;
}

// The refusals' status lines and bodies; then a connection limit held by silent clients, who
// are dropped after the read time-out. Scrapes and /health run end to end against a real server.
TEST(MetricsEndpointTest, ResponsesConnectionLimitAndReadTimeOut) {
  net::startNetworking();
  // Not on 127.0.0.1: a scraper of another test running at the same time may try a port the
  // system hands out again here, and every connection it makes takes one of the slots counted.
  const std::string host = "127.0.0.2";
  MetricsEndpoint endpoint({.enabled = true, .socket = {.unix = false, .host = host, .port = 0}},
                           "9.9", {});
  endpoint.start();
  for (int i = 0; i < 500 && endpoint.boundPort() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_NE(endpoint.boundPort(), 0);
  auto connect = [&endpoint, &host] {
    auto socket = std::make_unique<net::Socket>(
        1, net::SocketSettings{
               .unix = false, .host = host, .port = endpoint.boundPort(), .readTimeout = 10});
    socket->connect();
    return socket;
  };
  auto exchange = [&connect](const std::string& request) {
    auto socket = connect();
    socket->send(request.data(), request.size());
    return readAll(*socket);
  };

  struct Case {
    std::string request;
    const char* head;  // the status line
    const char* body;  // the end of the body
  };
  const Case cases[] = {
      {"POST /metrics HTTP/1.0\r\n\r\n", "HTTP/1.1 405 Method Not Allowed\r\n", "Not Allowed\n"},
      {"GET /other HTTP/1.0\r\n\r\n", "HTTP/1.1 404 Not Found\r\n", "Not Found\n"},
      {"GET /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n", "Bad Request\n"},
      {"GET /metrics HTTP/1.0\r\nX: " + std::string(9000, 'x') + "\r\n\r\n",
       "HTTP/1.1 431 Request Header Fields Too Large\r\n", "Too Large\n"},
  };
  for (const Case& c : cases) {
    const std::string response = exchange(c.request);
    EXPECT_TRUE(response.starts_with(c.head) && response.ends_with(c.body)) << response;
    const size_t end = response.find("\r\n\r\n");
    const std::string length = "Content-Length: " + std::to_string(response.size() - end - 4);
    EXPECT_NE(response.find(length), std::string::npos) << response.substr(0, end);
  }

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
