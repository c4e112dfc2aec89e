// Frame Streams against independent peers: the capture tool receives what FstrmSocket sends,
// and the replay tool sends to a receiver built on FstrmSocket. Both over TCP and Unix sockets.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "net/fstrm_socket.h"
#include "net_test_support.h"

namespace ns::net::fstrm {
namespace {

using testing::ChildProcess;

std::string be32(uint32_t value) {
  return std::string{static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                     static_cast<char>(value >> 8), static_cast<char>(value)};
}

uint32_t readBe32(const std::string& data, size_t& offset) {
  if (offset + 4 > data.size()) throw std::runtime_error("file ends inside a length");
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(data[offset + i]);
  offset += 4;
  return value;
}

// The data frames of a Frame Streams file; checks its START and STOP frames on the way.
std::vector<std::string> framesOfFile(const std::string& data) {
  size_t offset = 0;
  EXPECT_EQ(readBe32(data, offset), 0u);
  uint32_t length = readBe32(data, offset);
  size_t typeOffset = offset;
  EXPECT_EQ(readBe32(data, typeOffset), static_cast<uint32_t>(kControlStart));
  EXPECT_NE(data.substr(offset, length).find(kContentType), std::string::npos);
  offset += length;
  std::vector<std::string> frames;
  while ((length = readBe32(data, offset)) != 0) {
    frames.push_back(data.substr(offset, length));
    offset += length;
  }
  EXPECT_EQ(readBe32(data, offset), 4u);
  EXPECT_EQ(readBe32(data, offset), static_cast<uint32_t>(kControlStop));
  return frames;
}

std::vector<std::string> samplePayloads() {
  std::vector<std::string> payloads;
  for (uint32_t size : {1u, 40u, 300u, 5000u, 20000u, 100000u}) {
    std::string payload(size, '\0');
    for (uint32_t i = 0; i < size; ++i) payload[i] = static_cast<char>(i * 31 + size);
    payloads.push_back(payload);
  }
  return payloads;
}

class FstrmInteropTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (!testing::haveProgram("fstrm_capture") || !testing::haveProgram("fstrm_replay")) {
      GTEST_SKIP() << "fstrm_capture/fstrm_replay not installed (package fstrm-bin)";
    }
    directory_ = testing::makeTempDirectory("fstrm");
    settings_ = testing::loopbackSettings();
    settings_.unix = GetParam();
    settings_.path = directory_ + "/fstrm.sock";
    Socket probe(1, testing::loopbackSettings(0));
    probe.listen();
    settings_.port = probe.localPort();
  }
  void TearDown() override {
    if (!directory_.empty() && !HasFailure()) std::filesystem::remove_all(directory_);
  }
  std::string endpoint() const {
    return settings_.unix ? "-u " + settings_.path
                          : "-a 127.0.0.1 -p " + std::to_string(settings_.port);
  }

  std::string directory_;
  SocketSettings settings_;
};

TEST_P(FstrmInteropTest, CaptureToolReceivesWhatTheSenderWrites) {
  const std::string file = directory_ + "/capture.fstrm";
  ChildProcess capture("fstrm_capture -t protobuf:dnstap.Dnstap " + endpoint() + " -w " + file,
                       directory_ + "/capture.log");
  Socket socket(1, settings_);
  for (int attempt = 0; !socket.isOpen(); ++attempt) {
    try {
      socket.connect();
    } catch (const SocketError&) {
      socket.close();
      if (attempt == 50) throw;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  tls::TlsSocket tls("capture", tls::TlsSettings(), socket);
  FstrmSocket fstrm(1, FstrmSettings(), socket, tls);
  fstrm.open();
  const std::vector<std::string> payloads = samplePayloads();
  for (const std::string& payload : payloads) {
    std::string frame = be32(static_cast<uint32_t>(payload.size())) + payload;
    fstrm.writeBytes(frame.data(), static_cast<uint32_t>(frame.size()));
  }
  fstrm.close();  // bidirectional: returns once the tool has answered FINISH
  capture.stop();
  EXPECT_EQ(framesOfFile(testing::readFile(file)), payloads)
      << testing::readFile(directory_ + "/capture.log");
}

TEST_P(FstrmInteropTest, ReceiverTakesWhatTheReplayToolSends) {
  const std::vector<std::string> payloads = samplePayloads();
  std::string data = be32(0) + be32(34) + be32(kControlStart) + be32(1) + be32(22) + kContentType;
  for (const std::string& payload : payloads) {
    data += be32(static_cast<uint32_t>(payload.size())) + payload;
  }
  data += be32(0) + be32(4) + be32(kControlStop);
  const std::string file = directory_ + "/replay.fstrm";
  std::ofstream(file, std::ios::binary) << data;

  Socket listener(1, settings_);
  listener.listen();
  ChildProcess replay("fstrm_replay -t protobuf:dnstap.Dnstap " + endpoint() + " -r " + file,
                      directory_ + "/replay.log");
  std::unique_ptr<Socket> socket = testing::acceptOne(listener);
  tls::TlsSocket tls("replay", tls::TlsSettings(), *socket);
  FstrmSocket fstrm(2, FstrmSettings(), *socket, tls);

  uint32_t type = fstrm.readControl(true, true);
  const bool bidirectional = type == kControlReady;
  if (bidirectional) {
    fstrm.writeControl(kControlAccept, true);
    type = fstrm.readControl(true, true);
  }
  ASSERT_EQ(type, static_cast<uint32_t>(kControlStart));
  std::vector<std::string> received;
  std::string payload;
  while (uint32_t length = fstrm.readFrameLength(true)) {
    fstrm.readBytes(payload, length);
    received.push_back(payload);
  }
  EXPECT_EQ(fstrm.readControl(false, false), static_cast<uint32_t>(kControlStop));
  if (bidirectional) fstrm.writeControl(kControlFinish, false);
  EXPECT_EQ(replay.waitExit(10), 0) << testing::readFile(directory_ + "/replay.log");
  EXPECT_EQ(received, payloads);
}

INSTANTIATE_TEST_SUITE_P(Transports, FstrmInteropTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "Unix" : "Tcp";
                         });

}  // namespace
}  // namespace ns::net::fstrm
