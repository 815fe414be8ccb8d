// Big-endian payload writer and reader: command payloads carry their integers most significant
// byte first. Records that go raw are copied as they lie instead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace varnel {

inline void put_be32(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v >> 24);
  p[1] = uint8_t(v >> 16);
  p[2] = uint8_t(v >> 8);
  p[3] = uint8_t(v);
}
inline uint32_t get_be32(const uint8_t* p) {
  return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}
inline void put_be16(uint8_t* p, uint16_t v) {
  p[0] = uint8_t(v >> 8);
  p[1] = uint8_t(v);
}
inline uint16_t get_be16(const uint8_t* p) {
  return uint16_t((p[0] << 8) | p[1]);
}

// Appends big-endian fields to a growing payload.
class PayloadWriter {
 public:
  PayloadWriter& u8(uint8_t v) {
    bytes_.push_back(v);
    return *this;
  }
  PayloadWriter& u16(uint16_t v) {
    size_t at = grow(2);
    put_be16(&bytes_[at], v);
    return *this;
  }
  PayloadWriter& u32(uint32_t v) {
    size_t at = grow(4);
    put_be32(&bytes_[at], v);
    return *this;
  }
  PayloadWriter& raw(const void* data, size_t size) {
    size_t at = grow(size);
    if (size) std::memcpy(&bytes_[at], data, size);
    return *this;
  }
  std::span<const uint8_t> bytes() const { return bytes_; }
  std::vector<uint8_t>& vector() { return bytes_; }
  size_t size() const { return bytes_.size(); }

 private:
  size_t grow(size_t n) {
    size_t at = bytes_.size();
    bytes_.resize(at + n);
    return at;
  }
  std::vector<uint8_t> bytes_;
};

// Reads big-endian fields from a reply payload; reading past the end sets failed() and yields 0.
class PayloadReader {
 public:
  explicit PayloadReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  uint8_t u8() { return take(1) ? bytes_[pos_ - 1] : 0; }
  uint16_t u16() { return take(2) ? get_be16(&bytes_[pos_ - 2]) : 0; }
  uint32_t u32() { return take(4) ? get_be32(&bytes_[pos_ - 4]) : 0; }
  bool raw(void* out, size_t size) {
    if (!take(size)) return false;
    if (size) std::memcpy(out, &bytes_[pos_ - size], size);
    return true;
  }
  size_t remaining() const { return bytes_.size() - pos_; }
  bool failed() const { return failed_; }

 private:
  bool take(size_t n) {
    if (bytes_.size() - pos_ < n) {
      failed_ = true;
      return false;
    }
    pos_ += n;
    return true;
  }
  std::span<const uint8_t> bytes_;
  size_t pos_ = 0;
  bool failed_ = false;
};

}  // namespace varnel
