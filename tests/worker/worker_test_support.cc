#include "worker_test_support.h"

#include <thread>
#include <vector>

#include "encoding/dnstap_message.h"

namespace ns::worker::testing {

namespace {

void appendUint32(std::string& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>(value >> shift));
}

void appendUint16(std::string& out, uint16_t value) {
  out.push_back(static_cast<char>(value >> 8));
  out.push_back(static_cast<char>(value));
}

std::string queryWire(uint32_t number) {
  std::string wire;
  appendUint16(wire, static_cast<uint16_t>(number));  // id
  appendUint16(wire, 0x0100);                         // RD
  appendUint16(wire, 1);                              // one question
  appendUint16(wire, 0);
  appendUint16(wire, 0);
  appendUint16(wire, 0);
  for (const std::string& label :
       {"e" + std::to_string(number), std::string("example"), std::string("com")}) {
    wire.push_back(static_cast<char>(label.size()));
    wire += label;
  }
  wire.push_back(0);
  appendUint16(wire, 1);  // A
  appendUint16(wire, 1);  // IN
  return wire;
}

}  // namespace

std::string clientQueryEvent(uint32_t number) {
  encoding::dnstap::DnstapMessage record;
  record.identity = "worker-test";
  record.type = encoding::dnstap::kClientQuery;
  record.socket_family = encoding::dnstap::kFamilyInet;
  record.socket_protocol = encoding::dnstap::kProtocolUdp;
  record.query_address = std::string("\xC0\x00\x02\x07", 4);
  record.response_address = std::string("\xC0\x00\x02\x35", 4);
  record.query_port = 40000 + number % 20000;
  record.response_port = 53;
  record.query_time_sec = 1700000000 + number;
  record.query_time_nsec = 1000;
  record.query_message = queryWire(number);
  std::string out;
  record.encode(out);
  return out;
}

int64_t eventNumberIn(const std::string& line) {
  size_t at = 0;
  while ((at = line.find(".example", at)) != std::string::npos) {
    size_t begin = at;
    while (begin > 0 && line[begin - 1] >= '0' && line[begin - 1] <= '9') --begin;
    if (begin < at && begin > 0 && line[begin - 1] == 'e')
      return std::stoll(line.substr(begin, at - begin));
    at += 1;
  }
  return -1;
}

std::string controlFrame(uint32_t type, bool withContentType) {
  static const std::string kContentType = "protobuf:dnstap.Dnstap";
  std::string body;
  appendUint32(body, type);
  if (withContentType) {
    appendUint32(body, 1);
    appendUint32(body, static_cast<uint32_t>(kContentType.size()));
    body += kContentType;
  }
  std::string frame;
  appendUint32(frame, 0);
  appendUint32(frame, static_cast<uint32_t>(body.size()));
  return frame + body;
}

std::string dataFrame(const std::string& payload) {
  std::string frame;
  appendUint32(frame, static_cast<uint32_t>(payload.size()));
  return frame + payload;
}

std::vector<std::string> drain(event::queue::EventQueue& queue) {
  std::vector<std::string> events;
  while (queue.count() > 0) {
    std::string event;
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

}  // namespace ns::worker::testing
