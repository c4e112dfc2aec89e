#include "net/fstrm_socket.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "net_test_support.h"

namespace vantrelo::net::fstrm {
namespace {

using namespace testing;
using Frames = std::vector<std::string>;

const std::string kField = be32(1) + be32(22) + kContentType;
const std::string kStop = be32(0) + be32(4) + be32(3);
const std::string kNoContentType =
    "Expected content type of protobuf:dnstap.Dnstap but did not get it";

// One loopback connection with a Frame Streams endpoint on each side; TLS off.
struct Link {
  explicit Link(FstrmSettings settings = FstrmSettings())
      : client(1, settings, *pair.client, clientTls),
        server(2, settings, *pair.server, serverTls) {}
  LoopbackPair pair;
  tls::TlsSocket clientTls{"client", tls::TlsSettings(), *pair.client};
  tls::TlsSocket serverTls{"server", tls::TlsSettings(), *pair.server};
  FstrmSocket client, server;
};

TEST(FstrmSocketTest, LimitsAndErrors) {
  const std::function<uint32_t(FstrmSocket&)>
      control = [](FstrmSocket&f) { return f.readControl(true, true); },
      unchecked = [](FstrmSocket&f) { return f.readControl(true, false); },
      length = [](FstrmSocket&f) { return f.readFrameLength(true); },
      anyLength = [](FstrmSocket&f) { return f.readFrameLength(false); },
      open = [](FstrmSocket&f) { return f.open(), 0u; },
      close = [](FstrmSocket&f) { return f.close(), 0u; }, cut = [](FstrmSocket&f) {
        std::vector<FrameSpan> frames;
        return f.readDataFrames(frames) ? static_cast<uint32_t>(frames.size()) : 0u;
      };
  const struct {
    const std::function<uint32_t(FstrmSocket&)>& read;
    std::string wire;
    uint32_t value;
    std::string error;  // empty for success
  } cases[] = {
      // the well-formed START, STOP and end of data are the handshake tests'
      {unchecked, kStop, 3, ""},
      {control, be32(0) + be32(4) + be32(2), 0, kNoContentType},
      {control, be32(0) + be32(45) + be32(4) + be32(7) + be32(3) + "abc" + kField, 4, ""},
      {control, be32(0) + be32(34) + be32(2) + be32(1) + be32(22) + "protobuf:dnstap.Dnstaq", 0,
       kNoContentType},
      {control, be32(0) + be32(14) + be32(2) + be32(1) + be32(22) + "pr", 0, kNoContentType},
      {control, be32(0) + be32(10) + be32(2) + be32(1) + "ab", 0,
       "Read uint32_t failed: Offset 8 + 4 is out of bounds for data of 10 bytes"},
      {unchecked, be32(7), 0, "Expected control message preamble of 0 but got 7"},
      {unchecked, be32(0) + be32(3), 0,
       "Expected control message length of at least 4 bytes but got 3"},
      {unchecked, be32(0) + be32(101), 0,
       "Control frame length 101 is larger than the configured limit 100"},
      {unchecked, be32(0) + be32(100) + be32(3) + std::string(96, 'z'), 3, ""},
      {length, be32(5000), 5000, ""},
      {length, be32(5001), 0, "Data frame length 5001 is larger than the configured limit 5000"},
      {anyLength, be32(5001), 5001, ""},
      // Whole frames are cut up to a control frame or an oversized length, which come next.
      {cut, be32(3) + "abc" + be32(2) + "xy" + be32(0), 2, ""},
      {cut, be32(3) + "abc" + be32(5001), 1, ""},
      {cut, be32(5001), 0, "Data frame length 5001 is larger than the configured limit 5000"},
      // The sender's handshakes, answered wrongly.
      {open, be32(0) + be32(4) + be32(kControlFinish), 0, kNoContentType},
      {open, be32(0) + be32(34) + be32(kControlFinish) + kField, 0,
       "Expected ACCEPT(1) control message but got 5"},
      {close, be32(0) + be32(4) + be32(kControlAccept), 0,
       "Expected FINISH(5) control message but got 1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.wire.size());
    Link link({true, 100, 5000});
    link.pair.client->send(c.wire.data(), c.wire.size());
    uint32_t value = 0;
    EXPECT_EQ(errorOf([&] { value = c.read(link.server); }),
              c.error.empty() ? "(no error)" : c.error);
    EXPECT_EQ(value, c.value);
  }
}

// The receiving side as a worker drives it.
TEST(FstrmSocketTest, HandshakesInBothModes) {
  // Payloads around the read-ahead size (with and without their length), and many small ones
  // that share a read.
  Frames payloads;
  for (size_t size : {1, 5, 100, 65531, 65532, 65533, 65536, 70000, 3, 140000}) {
    payloads.emplace_back(size, '\0');
    for (size_t i = 0; i < size; ++i) payloads.back()[i] = static_cast<char>(i * 7 + size);
  }
  for (int i = 0; i < 300; ++i) payloads.emplace_back(1 + i % 37, static_cast<char>(i));
  for (bool bidirectional : {true, false}) {
    Link link({bidirectional});
    LogRecorder log;
    Frames received;
    std::thread receiver([&] {
      uint32_t type = link.server.readControl(true, true);
      EXPECT_EQ(type == kControlReady, bidirectional);
      if (type == kControlReady) {
        link.server.writeControl(kControlAccept, true);
        type = link.server.readControl(true, true);
      }
      EXPECT_EQ(type, kControlStart);
      for (std::vector<FrameSpan> cut; link.server.readDataFrames(cut); cut.clear()) {
        for (const FrameSpan& f : cut) received.emplace_back(f.data, f.data + f.length);
      }
      EXPECT_EQ(link.server.readControl(false, false), kControlStop);
      if (bidirectional) link.server.writeControl(kControlFinish, false);
    });
    link.client.open();
    for (const std::string& payload : payloads) {
      const std::string frame = be32(static_cast<uint32_t>(payload.size())) + payload;
      link.client.writeBytes(frame.data(), static_cast<uint32_t>(frame.size()));
    }
    link.client.close();
    receiver.join();
    EXPECT_EQ(received, payloads) << bidirectional;
    EXPECT_TRUE(log.contains("I FstrmSocket[1]: Stream ready"));
  }
}

TEST(FstrmSocketTest, ReadAheadKeepsTimeOutsAndWaits) {
  Link link;
  const std::string wire = be32(3) + "abc" + be32(2).substr(0, 2);  // and half the next length
  link.pair.client->send(wire.data(), wire.size());
  EXPECT_EQ(link.server.readFrameLength(true), 3u);
  // The rest is buffered now: waiting must not consult the socket.
  EXPECT_TRUE(link.server.hasBufferedData());
  EXPECT_FALSE(link.server.wait(1));
  std::string payload;
  link.server.readBytes(payload, 3);
  EXPECT_EQ(payload, "abc");
  EXPECT_EQ(errorOf([&] { link.server.readFrameLength(true); }), "recv() failed: wait() timed out");
  link.server.release();
  link.pair.client->close();
  EXPECT_EQ(errorOf([&] { link.server.readFrameLength(true); }), "recv() failed: socket closed");
}

}  // namespace
}  // namespace vantrelo::net::fstrm
