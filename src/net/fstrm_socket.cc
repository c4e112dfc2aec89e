#include "net/fstrm_socket.h"

#include <algorithm>
#include <cstring>

#include "base/data.h"
#include "base/log.h"

namespace vantrelo::net::fstrm {

namespace {

constexpr uint32_t kEscape = 0;
constexpr uint32_t kMinControlLength = 4;  // the control type alone
constexpr uint32_t kContentTypeLength = sizeof kContentType - 1;
constexpr uint32_t kFrameLengthBytes = 4;

void appendUint32(std::vector<uint8_t>& out, uint32_t value) {
  out.push_back(static_cast<uint8_t>(value >> 24));
  out.push_back(static_cast<uint8_t>(value >> 16));
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

}  // namespace

FstrmSocket::FstrmSocket(uint32_t id, const FstrmSettings& settings, Socket& socket,
                         tls::TlsSocket& tlsSocket)
    : id_(id),
      bidirectional_(settings.bidirectional),
      controlFrameMaxSize_(settings.controlFrameMaxSize),
      dataFrameMaxSize_(settings.dataFrameMaxSize),
      socket_(&socket),
      tlsSocket_(&tlsSocket),
      useTls_(tlsSocket.enabled()) {}

uint32_t FstrmSocket::readFromLayer(uint8_t* buffer, uint32_t size) {
  if (useTls_) return tlsSocket_->read(buffer, size);
  return static_cast<uint32_t>(socket_->recv(buffer, size));
}

void FstrmSocket::readBytes(void* buffer, uint32_t count) {
  uint8_t* out = static_cast<uint8_t*>(buffer);
  while (count > 0) {
    if (readBegin_ < readEnd_) {
      uint32_t take = std::min(count, readEnd_ - readBegin_);
      std::memcpy(out, readAhead_.data() + readBegin_, take);
      readBegin_ += take;
      out += take;
      count -= take;
      continue;
    }
    if (count >= kReadAheadSize) {
      // A large payload goes straight to its destination: no copy through the read-ahead.
      uint32_t got = readFromLayer(out, count);
      out += got;
      count -= got;
      continue;
    }
    if (readAhead_.size() < kReadAheadSize) readAhead_.resize(kReadAheadSize);
    readBegin_ = 0;
    readEnd_ = readFromLayer(readAhead_.data(), kReadAheadSize);
  }
}

void FstrmSocket::readBytes(std::string& out, uint32_t count) {
  out.resize(count);
  readBytes(out.data(), count);
}

void FstrmSocket::writeBytes(const void* buffer, uint32_t count) {
  if (useTls_) {
    tlsSocket_->write(buffer, count);
  } else {
    socket_->send(buffer, count);
  }
}

uint32_t FstrmSocket::readUint32() {
  uint8_t bytes[4];
  readBytes(bytes, sizeof bytes);
  return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
         static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

uint32_t FstrmSocket::bufferedUint32() const {
  const uint8_t* bytes = readAhead_.data() + readBegin_;
  return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
         static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

FrameSpan FstrmSocket::readLargeFrame(uint32_t length) {
  readBegin_ += kFrameLengthBytes;
  large_.resize(length);
  readBytes(large_.data(), length);
  return {large_.data(), length};
}

bool FstrmSocket::readDataFrames(std::vector<FrameSpan>& frames) {
  if (readAhead_.size() < kReadAheadSize) readAhead_.resize(kReadAheadSize);
  for (;;) {
    const size_t before = frames.size();
    while (readEnd_ - readBegin_ >= kFrameLengthBytes) {
      const uint32_t length = bufferedUint32();
      // A control frame or an oversized length ends the cut; both are dealt with once the
      // frames before them are out.
      if (length == 0 || length > dataFrameMaxSize_) break;
      if (length > readEnd_ - readBegin_ - kFrameLengthBytes) break;
      frames.push_back({readAhead_.data() + readBegin_ + kFrameLengthBytes, length});
      readBegin_ += kFrameLengthBytes + length;
    }
    if (frames.size() != before) return true;
    if (readEnd_ - readBegin_ >= kFrameLengthBytes) {
      const uint32_t length = readFrameLength(true);  // consumes it, and throws above the limit
      if (length == 0) return false;
      // The buffer holds part of a frame that is too large for it.
      readBegin_ -= kFrameLengthBytes;
      if (length > kReadAheadSize - kFrameLengthBytes) {
        frames.push_back(readLargeFrame(length));
        return true;
      }
    }
    // Part of a frame is left: move it to the front and read more behind it.
    if (readBegin_ != 0) {
      std::memmove(readAhead_.data(), readAhead_.data() + readBegin_, readEnd_ - readBegin_);
      readEnd_ -= readBegin_;
      readBegin_ = 0;
    }
    readEnd_ += readFromLayer(readAhead_.data() + readEnd_, kReadAheadSize - readEnd_);
  }
}

uint32_t FstrmSocket::readFrameLength(bool checkLimit) {
  uint32_t length = readUint32();
  if (checkLimit && length > dataFrameMaxSize_) {
    throw FstrmError("Data frame length " + std::to_string(length) +
                     " is larger than the configured limit " + std::to_string(dataFrameMaxSize_));
  }
  return length;
}

uint32_t FstrmSocket::readControl(bool readEscape, bool checkContentType) {
  if (readEscape) {
    uint32_t escape = readFrameLength(false);
    if (escape != kEscape) {
      throw FstrmError("Expected control message preamble of 0 but got " + std::to_string(escape));
    }
  }
  uint32_t length = readUint32();
  if (length < kMinControlLength) {
    throw FstrmError("Expected control message length of at least 4 bytes but got " +
                     std::to_string(length));
  }
  if (length > controlFrameMaxSize_) {
    throw FstrmError("Control frame length " + std::to_string(length) +
                     " is larger than the configured limit " +
                     std::to_string(controlFrameMaxSize_));
  }
  buffer_.resize(length);
  readBytes(buffer_.data(), length);
  const uint8_t* body = buffer_.data();
  uint32_t type = 0;
  uint32_t offset = base::data::readUint32(type, body, length, 0);
  if (!checkContentType) return type;
  while (offset < length) {
    uint32_t fieldType = 0;
    uint32_t fieldLength = 0;
    offset = base::data::readUint32(fieldType, body, length, offset);
    offset = base::data::readUint32(fieldLength, body, length, offset);
    if (fieldLength > length - offset) break;
    if (fieldType == kFieldContentType && fieldLength == kContentTypeLength &&
        std::memcmp(body + offset, kContentType, kContentTypeLength) == 0) {
      return type;
    }
    offset += fieldLength;
  }
  throw FstrmError("Expected content type of protobuf:dnstap.Dnstap but did not get it");
}

void FstrmSocket::writeControl(uint32_t type, bool withContentType) {
  buffer_.clear();
  appendUint32(buffer_, kEscape);
  appendUint32(buffer_, 0);  // the length, set below
  appendUint32(buffer_, type);
  if (withContentType) {
    appendUint32(buffer_, kFieldContentType);
    appendUint32(buffer_, kContentTypeLength);
    buffer_.insert(buffer_.end(), kContentType, kContentType + kContentTypeLength);
  }
  // The control length counts the body only: neither the escape nor itself.
  uint32_t length = static_cast<uint32_t>(buffer_.size()) - 8;
  buffer_[4] = static_cast<uint8_t>(length >> 24);
  buffer_[5] = static_cast<uint8_t>(length >> 16);
  buffer_[6] = static_cast<uint8_t>(length >> 8);
  buffer_[7] = static_cast<uint8_t>(length);
  writeBytes(buffer_.data(), static_cast<uint32_t>(buffer_.size()));
}

void FstrmSocket::open() {
  if (bidirectional_) {
    writeControl(kControlReady, true);
    uint32_t type = readControl(true, true);
    if (type != kControlAccept) {
      throw FstrmError("Expected ACCEPT(1) control message but got " + std::to_string(type));
    }
  }
  writeControl(kControlStart, true);
  log::info(prefix() + "Stream ready");
}

void FstrmSocket::close() {
  writeControl(kControlStop, false);
  if (bidirectional_) {
    uint32_t type = readControl(true, false);
    if (type != kControlFinish) {
      throw FstrmError("Expected FINISH(5) control message but got " + std::to_string(type));
    }
  }
}

bool FstrmSocket::hasBufferedData() const {
  return readBegin_ < readEnd_ || (useTls_ && tlsSocket_->hasBufferedData());
}

bool FstrmSocket::wait(uint32_t seconds) {
  if (hasBufferedData()) return false;
  return socket_->wait(true, seconds);
}

void FstrmSocket::release() {
  std::vector<uint8_t>().swap(buffer_);
  std::vector<uint8_t>().swap(readAhead_);
  std::vector<uint8_t>().swap(large_);
  readBegin_ = 0;
  readEnd_ = 0;
}

}  // namespace vantrelo::net::fstrm
