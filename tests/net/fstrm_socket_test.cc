#include "net/fstrm_socket.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "encoding/data.h"
#include "net_test_support.h"

namespace ns::net::fstrm {
namespace {

using testing::LogRecorder;
using testing::LoopbackPair;

std::string be32(uint32_t value) {
  return std::string{static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                     static_cast<char>(value >> 8), static_cast<char>(value)};
}

const std::string kType = "protobuf:dnstap.Dnstap";
std::string contentField() { return be32(1) + be32(22) + kType; }

// One loopback connection with a Frame Streams endpoint on each side; TLS off.
struct Link {
  explicit Link(FstrmSettings settings = FstrmSettings()) {
    clientFstrm = std::make_unique<FstrmSocket>(1, settings, *pair.client, clientTls);
    serverFstrm = std::make_unique<FstrmSocket>(2, settings, *pair.server, serverTls);
  }
  std::string readRaw(size_t count) {
    std::string out(count, '\0');
    size_t got = 0;
    while (got < count) got += pair.server->recv(out.data() + got, count - got);
    return out;
  }
  LoopbackPair pair;
  tls::TlsSocket clientTls{"client", tls::TlsSettings(), *pair.client};
  tls::TlsSocket serverTls{"server", tls::TlsSettings(), *pair.server};
  std::unique_ptr<FstrmSocket> clientFstrm;
  std::unique_ptr<FstrmSocket> serverFstrm;
};

TEST(FstrmSocketTest, ControlFramesHaveTheirExactBytes) {
  struct Case {
    uint32_t type;
    bool withContentType;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {kControlReady, true, be32(0) + be32(34) + be32(4) + contentField()},
      {kControlStart, true, be32(0) + be32(34) + be32(2) + contentField()},
      {kControlStop, false, be32(0) + be32(4) + be32(3)},
      {kControlFinish, false, be32(0) + be32(4) + be32(5)},
  };
  Link link;
  for (const Case& c : cases) {
    link.clientFstrm->writeControl(c.type, c.withContentType);
    EXPECT_EQ(link.readRaw(c.expected.size()), c.expected) << c.type;
  }
  EXPECT_EQ(link.pair.server->bytesAvailable(), 0u);
}

TEST(FstrmSocketTest, ReadControlChecksEveryLimit) {
  struct Case {
    const char* name;
    std::string wire;
    bool readEscape;
    bool checkContentType;
    uint32_t expectedType;  // when no error is expected
    std::string expectedError;
  };
  const std::string big(65536 - 4, 'z');
  const std::vector<Case> cases = {
      {"start with content type", be32(0) + be32(34) + be32(2) + contentField(), true, true, 2, ""},
      {"type only, unchecked", be32(0) + be32(4) + be32(3), true, false, 3, ""},
      {"type only, checked", be32(0) + be32(4) + be32(2), true, true, 0,
       "Expected content type of protobuf:dnstap.Dnstap but did not get it"},
      {"no escape read", be32(4) + be32(3), false, false, 3, ""},
      {"unknown field first",
       be32(0) + be32(4 + 8 + 3 + 30) + be32(4) + be32(7) + be32(3) + "abc" + contentField(), true,
       true, 4, ""},
      {"wrong content type",
       be32(0) + be32(4 + 8 + 22) + be32(2) + be32(1) + be32(22) + "protobuf:dnstap.Dnstaq", true,
       true, 0, "Expected content type of protobuf:dnstap.Dnstap but did not get it"},
      {"field longer than body", be32(0) + be32(4 + 8 + 2) + be32(2) + be32(1) + be32(22) + "pr",
       true, true, 0, "Expected content type of protobuf:dnstap.Dnstap but did not get it"},
      {"nonzero escape", be32(7), true, false, 0,
       "Expected control message preamble of 0 but got 7"},
      {"length 3", be32(0) + be32(3), true, false, 0,
       "Expected control message length of at least 4 bytes but got 3"},
      {"length over limit", be32(0) + be32(65537), true, false, 0,
       "Control frame length 65537 is larger than the configured limit 65536"},
      {"length at limit", be32(0) + be32(65536) + be32(3) + big, true, false, 3, ""},
  };
  for (const Case& c : cases) {
    Link link;
    link.pair.client->send(c.wire.data(), c.wire.size());
    try {
      uint32_t type = link.serverFstrm->readControl(c.readEscape, c.checkContentType);
      EXPECT_EQ(c.expectedError, "") << c.name;
      EXPECT_EQ(type, c.expectedType) << c.name;
    } catch (const FstrmError& e) {
      EXPECT_EQ(e.what(), c.expectedError) << c.name;
    }
  }
}

TEST(FstrmSocketTest, TruncatedFieldHeaderPassesTheReaderErrorThrough) {
  Link link;
  std::string wire = be32(0) + be32(4 + 6) + be32(2) + be32(1) + "ab";
  link.pair.client->send(wire.data(), wire.size());
  EXPECT_THROW(link.serverFstrm->readControl(true, true), encoding::data::DataError);
}

TEST(FstrmSocketTest, DataFrameLengthLimit) {
  struct Case {
    uint32_t length;
    bool checkLimit;
    std::string expectedError;
  };
  for (const Case& c : std::vector<Case>{
           {262144, true, ""},
           {262145, true, "Data frame length 262145 is larger than the configured limit 262144"},
           {262145, false, ""},
           {0, true, ""}}) {
    Link link;
    std::string wire = be32(c.length);
    link.pair.client->send(wire.data(), wire.size());
    try {
      EXPECT_EQ(link.serverFstrm->readFrameLength(c.checkLimit), c.length);
      EXPECT_EQ(c.expectedError, "");
    } catch (const FstrmError& e) {
      EXPECT_EQ(e.what(), c.expectedError);
    }
  }
}

// The receiving side as a worker drives it; returns the payloads and the control types seen.
std::vector<std::string> receive(FstrmSocket& fstrm, bool& bidirectional) {
  uint32_t type = fstrm.readControl(true, true);
  bidirectional = type == kControlReady;
  if (bidirectional) {
    fstrm.writeControl(kControlAccept, true);
    type = fstrm.readControl(true, true);
  }
  EXPECT_EQ(type, kControlStart);
  std::vector<std::string> frames;
  std::string payload;
  while (uint32_t length = fstrm.readFrameLength(true)) {
    fstrm.readBytes(payload, length);
    frames.push_back(payload);
  }
  EXPECT_EQ(fstrm.readControl(false, false), kControlStop);
  if (bidirectional) fstrm.writeControl(kControlFinish, false);
  return frames;
}

TEST(FstrmSocketTest, SenderAndReceiverHandshakesInBothModes) {
  std::vector<std::string> payloads;
  for (size_t size : {1, 5, 100, 16383, 16384, 16385, 70000, 3, 262144}) {
    std::string payload(size, '\0');
    for (size_t i = 0; i < size; ++i) payload[i] = static_cast<char>(i * 7 + size);
    payloads.push_back(payload);
  }
  for (int i = 0; i < 500; ++i) payloads.push_back(std::string(1 + i % 37, static_cast<char>(i)));
  for (bool bidirectional : {true, false}) {
    FstrmSettings settings;
    settings.bidirectional = bidirectional;
    Link link(settings);
    LogRecorder log;
    std::vector<std::string> received;
    bool sawBidirectional = !bidirectional;
    std::thread receiver([&] { received = receive(*link.serverFstrm, sawBidirectional); });
    link.clientFstrm->open();
    for (const std::string& payload : payloads) {
      std::string frame = be32(static_cast<uint32_t>(payload.size())) + payload;
      link.clientFstrm->writeBytes(frame.data(), static_cast<uint32_t>(frame.size()));
    }
    link.clientFstrm->close();
    receiver.join();
    EXPECT_EQ(sawBidirectional, bidirectional);
    EXPECT_EQ(received, payloads) << bidirectional;
    EXPECT_TRUE(log.contains("I FstrmSocket[1]: Stream ready"));
  }
}

TEST(FstrmSocketTest, UnidirectionalOpenWritesOnlyStart) {
  FstrmSettings settings;
  settings.bidirectional = false;
  Link link(settings);
  link.clientFstrm->open();
  EXPECT_EQ(link.readRaw(42), be32(0) + be32(34) + be32(kControlStart) + contentField());
  EXPECT_TRUE(link.pair.server->wait(true, 1));
}

TEST(FstrmSocketTest, SenderHandshakeRejectsWrongReplies) {
  struct Case {
    bool opening;
    std::string reply;
    std::string expectedError;
  };
  const std::vector<Case> cases = {
      {true, be32(0) + be32(4) + be32(kControlFinish),
       "Expected content type of protobuf:dnstap.Dnstap but did not get it"},
      {true, be32(0) + be32(34) + be32(kControlFinish) + contentField(),
       "Expected ACCEPT(1) control message but got 5"},
      {false, be32(0) + be32(4) + be32(kControlAccept),
       "Expected FINISH(5) control message but got 1"},
  };
  for (const Case& c : cases) {
    Link link;
    link.pair.server->send(c.reply.data(), c.reply.size());
    try {
      if (c.opening) {
        link.clientFstrm->open();
      } else {
        link.clientFstrm->close();
      }
      ADD_FAILURE() << "no error for " << c.expectedError;
    } catch (const FstrmError& e) {
      EXPECT_EQ(e.what(), c.expectedError);
    }
  }
}

TEST(FstrmSocketTest, ReadAheadKeepsTimeOutsAndWaits) {
  Link link;
  std::string wire =
      be32(3) + "abc" + be32(2).substr(0, 2);  // a frame, then half of the next length
  link.pair.client->send(wire.data(), wire.size());
  EXPECT_EQ(link.serverFstrm->readFrameLength(true), 3u);
  // The rest is buffered now: waiting must not consult the socket.
  EXPECT_TRUE(link.serverFstrm->hasBufferedData());
  EXPECT_FALSE(link.serverFstrm->wait(1));
  std::string payload;
  link.serverFstrm->readBytes(payload, 3);
  EXPECT_EQ(payload, "abc");
  EXPECT_TRUE(link.serverFstrm->hasBufferedData());
  try {
    link.serverFstrm->readFrameLength(true);
    ADD_FAILURE() << "a half length must time out";
  } catch (const SocketError& e) {
    EXPECT_STREQ(e.what(), "recv() failed: wait() timed out");
  }
  link.serverFstrm->release();
  link.pair.client->close();
  EXPECT_THROW(link.serverFstrm->readFrameLength(true), SocketError);
}

}  // namespace
}  // namespace ns::net::fstrm
