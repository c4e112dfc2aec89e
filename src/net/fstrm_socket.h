// Frame Streams over a connected Socket or, when TLS is on, over the TlsSocket that wraps it.
//
// The sender role (open, data frames through writeBytes, close) and the receiver role's frame
// operations (readControl, readFrameLength, readBytes, writeControl), in bidirectional and
// unidirectional mode. The only content type is "protobuf:dnstap.Dnstap". Protocol violations
// throw FstrmError; socket and TLS errors pass through unchanged.
//
// Reading goes through a bounded read-ahead buffer, so a steady stream of small frames costs one
// system call per buffer-full rather than two per frame; a payload larger than that buffer is
// read straight into the caller's memory. readDataFrames hands out the whole data frames of the
// buffer where they lie, so a relay copies each payload once, into its queue. Time-outs and
// errors are those of the layer below: a read still waits only while it lacks bytes it needs.
//
// Ownership: the Socket and TlsSocket are borrowed and outlive this object; the buffers are
// owned, reused for every frame and freed by release(). Not thread-safe: one worker thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/error.h"
#include "net/net_settings.h"
#include "net/socket.h"
#include "net/tls_socket.h"

namespace vantrelo::net::fstrm {

NS_DEFINE_ERROR(FstrmError);

enum ControlType : uint32_t {
  kControlAccept = 1,
  kControlStart = 2,
  kControlStop = 3,
  kControlReady = 4,
  kControlFinish = 5,
};

inline constexpr uint32_t kFieldContentType = 1;
// Bytes read ahead at most per read: many frames of a busy stream per system call.
inline constexpr uint32_t kReadAheadSize = 65536;

// A data frame's payload where it lies in the socket's buffers.
struct FrameSpan {
  const uint8_t* data;
  uint32_t length;
};
inline constexpr char kContentType[] = "protobuf:dnstap.Dnstap";

class FstrmSocket {
 public:
  FstrmSocket(uint32_t id, const FstrmSettings& settings, Socket& socket,
              tls::TlsSocket& tlsSocket);
  FstrmSocket(const FstrmSocket&) = delete;
  FstrmSocket& operator=(const FstrmSocket&) = delete;

  // Reads exactly `count` bytes.
  void readBytes(void* buffer, uint32_t count);
  // Reads exactly `count` bytes into `out`, replacing its contents; `out` keeps its capacity,
  // so a caller that reuses one string allocates nothing in steady state.
  void readBytes(std::string& out, uint32_t count);
  void writeBytes(const void* buffer, uint32_t count);
  // A big-endian length; above dataFrameMaxSize throws when checkLimit. 0 announces a control
  // frame.
  uint32_t readFrameLength(bool checkLimit);
  // Reads until at least one whole data frame is buffered, then appends every whole data frame
  // the buffer holds to `frames`. The spans stay valid until the next read of this socket.
  // Returns false, with nothing appended, when the next frame is a control frame; its 4-byte
  // escape is then consumed, as readFrameLength would. A length above dataFrameMaxSize throws
  // FstrmError once the frames before it have been handed out.
  bool readDataFrames(std::vector<FrameSpan>& frames);
  // Reads one control frame and returns its type as read; the caller checks it.
  uint32_t readControl(bool readEscape, bool checkContentType);
  void writeControl(uint32_t type, bool withContentType);
  // The sender's opening (READY/ACCEPT in bidirectional mode, then START) and closing (STOP,
  // then FINISH in bidirectional mode) handshakes.
  void open();
  void close();
  // Waits up to `seconds` for input like Socket::wait; returns false at once when bytes are
  // already buffered here or in TLS, where a socket wait would not see them.
  bool wait(uint32_t seconds);
  bool hasBufferedData() const;
  // Frees the buffers; later calls allocate them again.
  void release();

 private:
  std::string prefix() const { return "FstrmSocket[" + std::to_string(id_) + "]: "; }
  uint32_t readFromLayer(uint8_t* buffer, uint32_t size);
  uint32_t readUint32();
  uint32_t bufferedUint32() const;
  // A frame too large for the read-ahead, read whole into large_; `length` is its payload's.
  FrameSpan readLargeFrame(uint32_t length);

  uint32_t id_;
  bool bidirectional_;
  uint32_t controlFrameMaxSize_;
  uint32_t dataFrameMaxSize_;
  Socket* socket_;
  tls::TlsSocket* tlsSocket_;
  bool useTls_;
  std::vector<uint8_t> buffer_;     // control frames, both directions
  std::vector<uint8_t> readAhead_;  // bytes received and not yet consumed
  std::vector<uint8_t> large_;      // the last frame that did not fit the read-ahead
  uint32_t readBegin_ = 0;
  uint32_t readEnd_ = 0;
};

}  // namespace vantrelo::net::fstrm
