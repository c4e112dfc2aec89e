#include "worker_test_support.h"

#include <gtest/gtest.h>

#include <thread>

#include "encoding/dnstap_message.h"

namespace vantrelo::worker::testing {

using net::testing::be32;

std::string clientQueryEvent(uint32_t number) {
  const std::string label = "e" + std::to_string(number);
  // Header: id, RD, one question. Then the name, type A, class IN.
  std::string query = {
      static_cast<char>(number >> 8), static_cast<char>(number), 1, 0, 0, 1, 0, 0, 0, 0, 0, 0};
  query +=
      static_cast<char>(label.size()) + label + "\7example\3com" + std::string("\0\0\1\0\1", 5);
  namespace dnstap = encoding::dnstap;
  dnstap::DnstapMessage record;
  record.type = dnstap::kClientQuery;
  record.socket_family = dnstap::kFamilyInet;
  record.socket_protocol = dnstap::kProtocolUdp;
  record.query_address = std::string("\xC0\x00\x02\x07", 4);
  record.response_address = std::string("\xC0\x00\x02\x35", 4);
  record.query_port = 40000;
  record.response_port = 53;
  record.query_time_sec = 1700000000;
  record.query_message = query;
  std::string out;
  record.encode(out);
  return out;
}

std::string controlFrame(uint32_t type, bool withContentType) {
  const std::string kContentType = "protobuf:dnstap.Dnstap";
  std::string body = be32(type);
  if (withContentType) {
    body += be32(1) + be32(static_cast<uint32_t>(kContentType.size())) + kContentType;
  }
  return be32(0) + be32(static_cast<uint32_t>(body.size())) + body;
}

std::string dataFrame(const std::string& payload) {
  return be32(static_cast<uint32_t>(payload.size())) + payload;
}

std::vector<std::string> drain(event::queue::EventQueue& queue) {
  std::vector<std::string> events;
  for (std::string event; queue.count() > 0; event.clear()) {
    queue.pop(event);
    events.push_back(event);
  }
  return events;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::vector<std::string> linesStartingWith(const net::testing::LogRecorder& log,
                                           const std::string& prefix) {
  std::vector<std::string> found;
  for (const std::string& line : log.lines()) {
    if (line.rfind(prefix, 0) == 0) found.push_back(line);
  }
  return found;
}

listener::ListenerSettings loopbackListener(uint32_t keepalive) {
  listener::ListenerSettings settings = listener::parse("ipv4 127.0.0.1 1 read-timeout=1");
  settings.socket.port = 0;
  settings.socket.keepalive = keepalive;
  return settings;
}

RunningListener::RunningListener(const listener::ListenerSettings& settings)
    : queue(event::queue::QueueOptions{1 << 22, false, ""}), listener(0, settings, queue) {
  listener.start();
  EXPECT_TRUE(settings.socket.unix || waitUntil([&] { return listener.boundPort() != 0; }));
}

RunningListener::~RunningListener() {
  listener.stop();
  listener.join();
}

net::SocketSettings RunningListener::target() const {
  net::SocketSettings settings = listener.settings().socket;
  settings.port = listener.boundPort();
  return settings;
}

Sender::Sender(const net::SocketSettings& settings, bool bidirectional)
    : socket(7, settings), tls(7, net::tls::TlsSettings{}, socket) {
  net::fstrm::FstrmSettings fstrmSettings;
  fstrmSettings.bidirectional = bidirectional;
  socket.connect();
  fstrm = std::make_unique<net::fstrm::FstrmSocket>(7, fstrmSettings, socket, tls);
  fstrm->open();
}

void Sender::send(const std::string& payload) {
  const std::string frame = dataFrame(payload);
  fstrm->writeBytes(frame.data(), static_cast<uint32_t>(frame.size()));
}

}  // namespace vantrelo::worker::testing
