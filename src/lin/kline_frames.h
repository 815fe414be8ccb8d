// KWP2000 frames on the K-line, without any device: building a request from a K_MSG or KWP_MSG
// record, the additive checksum, and reading a response byte by byte as it trickles in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "varnel.h"

namespace varnel::kline {

// Fmt, two addresses, a length byte, the SID, 254 data bytes and the checksum.
constexpr size_t kMaxFrame = 260;

// The sum of the bytes modulo 256.
uint8_t checksum(std::span<const uint8_t> bytes);

// Address modes 2 and 3 (physical, functional) carry target and source.
constexpr bool has_addresses(uint8_t fmt) {
  return (fmt & 0xC0) > 0x40;
}
constexpr uint8_t length_bits(uint8_t fmt) {
  return fmt & 0x3F;
}

struct Frame {
  std::array<uint8_t, kMaxFrame> bytes{};
  size_t size = 0;
  std::span<const uint8_t> view() const { return {bytes.data(), size}; }
};

// K_Request's frame: the addresses always, the length byte only when Fmt has no length.
Frame k_request_frame(const K_MSG& request);
// KWP_Request's frame. A Len above 63 clears the length bits of the caller's Fmt, so that a length
// byte carries it; the checksum sent is written to CheckSum.
Frame kwp_request_frame(KWP_MSG& request);

// The K-line reads back its own transmission: the echo must be exactly the bytes sent.
bool echo_matches(std::span<const uint8_t> sent, std::span<const uint8_t> echo);

// A response as it arrives. The header (Fmt, addresses, length byte) is read as soon as its bytes
// are in; the frame ends after SID + data and the checksum. Bytes beyond the frame are ignored.
class ResponseReader {
 public:
  // The K_ calls read Tgt and Src from every response, whatever its Fmt says.
  explicit ResponseReader(bool addresses_always) : addresses_always_(addresses_always) {}

  void feed(std::span<const uint8_t> bytes);
  bool empty() const { return size_ == 0; }
  bool complete() const { return total_ != 0 && size_ == total_; }

  uint8_t fmt() const { return bytes_[0]; }
  bool addressed() const { return addresses_always_ || has_addresses(fmt()); }
  bool length_byte() const { return length_bits(fmt()) == 0; }
  size_t header_size() const { return 1 + (addressed() ? 2 : 0) + (length_byte() ? 1 : 0); }
  // Length of SID + data, from Fmt or from the length byte.
  uint8_t length() const { return length_byte() ? bytes_[header_size() - 1] : length_bits(fmt()); }
  uint8_t at(size_t i) const { return bytes_[i]; }
  // The sum of every byte before the received checksum, and that checksum.
  uint8_t sum() const { return checksum({bytes_.data(), size_ - 1}); }
  uint8_t received_checksum() const { return bytes_[size_ - 1]; }
  // The bytes after the SID: data and the received checksum (at most `capacity` of them).
  std::span<const uint8_t> after_sid(size_t capacity) const;

 private:
  bool header_known() const;
  bool addresses_always_;
  std::array<uint8_t, kMaxFrame> bytes_{};
  size_t size_ = 0;
  size_t total_ = 0;  // 0 until the header is in
};

// Copies a complete response into a record: Fmt, Tgt, Src, Len, SID, the bytes after the SID,
// and the computed sum in CheckSum.
void fill_record(const ResponseReader& reader, K_MSG& record);
void fill_record(const ResponseReader& reader, KWP_MSG& record);

}  // namespace varnel::kline
