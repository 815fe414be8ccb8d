#include "can/can_records.h"

#include <algorithm>
#include <cstring>

namespace varnel::can {
namespace {

// Collects the unstuffed bits of a frame up to the CRC, then stuffs the whole sequence.
class FrameBits {
 public:
  void put(uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) bits_[size_++] = uint8_t((value >> i) & 1);
  }
  void put_crc() {
    uint32_t crc = 0;
    for (int i = 0; i < size_; ++i) {
      uint32_t next = bits_[i] ^ ((crc >> 14) & 1);
      crc = (crc << 1) & 0x7FFF;
      if (next) crc ^= 0x4599;
    }
    put(crc, 15);
  }
  // After five equal bits one complementary bit is inserted; it starts the next run.
  int stuffed_length() const {
    int length = 0, run = 0;
    uint8_t last = 2;
    for (int i = 0; i < size_; ++i) {
      ++length;
      if (bits_[i] == last) {
        ++run;
      } else {
        last = bits_[i];
        run = 1;
      }
      if (run == 5) {
        ++length;
        last ^= 1;
        run = 1;
      }
    }
    return length;
  }

 private:
  uint8_t bits_[160];
  int size_ = 0;
};

}  // namespace

int frame_bit_length(const CAN_MSG& msg) {
  FrameBits bits;
  const bool remote = msg.Flags & 1;
  const uint32_t id = msg.Id & 0x1FFFFFFFu;
  const uint8_t len = std::min<uint8_t>(msg.DataLen, 15);
  bits.put(0, 1);  // start of frame
  if (needs_extended(msg)) {
    bits.put(id >> 18, 11);
    bits.put(1, 1);  // SRR
    bits.put(1, 1);  // IDE
    bits.put(id & 0x3FFFF, 18);
    bits.put(remote, 1);
    bits.put(0, 2);  // r1, r0
  } else {
    bits.put(id & 0x7FF, 11);
    bits.put(remote, 1);
    bits.put(0, 2);  // IDE, r0
  }
  bits.put(len, 4);
  if (!remote)
    for (int i = 0; i < std::min<int>(len, 8); ++i) bits.put(msg.Data[i], 8);
  bits.put_crc();
  return bits.stuffed_length() + 10;  // CRC delimiter, ACK slot and delimiter, end of frame
}

uint32_t frame_time_us(const CAN_MSG& msg, uint32_t bitrate) {
  if (bitrate == 0) return 0;
  return uint32_t(frame_bit_length(msg)) * 1000000u / bitrate;
}

uint32_t fd_frame_time_us(const CANFD_MSG& msg, uint32_t nominal_bps, uint32_t data_bps) {
  if (nominal_bps == 0) return 0;
  const bool extended = (msg.Id & 0x80000000u) || (msg.Id & 0x1FFFFFFFu) > 0x7FF;
  const bool fd = (msg.Flags & 0x04) || msg.DataLen > 8;
  const uint32_t len = fd_code_length(fd_length_code(msg.DataLen));
  if (!fd) {
    // classic frame: a fixed estimate of stuffing (one bit in ten)
    uint32_t bits = (extended ? 67u : 47u) + 8u * std::min<uint32_t>(len, 8);
    return (bits + bits / 10) * 1000000u / nominal_bps;
  }
  const uint32_t arbitration = (extended ? 41u : 22u) + 10u;          // header and trailer
  const uint32_t data_bits = 8u * len + (len > 16 ? 26u : 22u) + 5u;  // data, CRC, stuff count
  const uint32_t data_rate = (msg.Flags & 0x01) && data_bps ? data_bps : nominal_bps;
  uint64_t us =
      uint64_t(arbitration) * 1000000u / nominal_bps + uint64_t(data_bits) * 1000000u / data_rate;
  return uint32_t(us);
}

uint8_t fd_length_code(uint8_t len) {
  if (len <= 8) return len;
  if (len <= 12) return 9;
  if (len <= 16) return 10;
  if (len <= 20) return 11;
  if (len <= 24) return 12;
  if (len <= 32) return 13;
  if (len <= 48) return 14;
  return 15;
}

uint8_t fd_code_length(uint8_t code) {
  static constexpr uint8_t kLengths[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
  return kLengths[code & 15];
}

CANFD_MSG to_canfd(const CAN_MSG& msg) {
  CANFD_MSG out{};
  out.Id = msg.Id & 0x1FFFFFFFu;
  if (needs_extended(msg)) out.Id |= 0x80000000u;
  if (msg.Flags & 1) out.Id |= 0x40000000u;
  out.DataLen = std::min<uint8_t>(msg.DataLen, 8);
  out.Flags = uint8_t((msg.Flags & 0x20) | (msg.Flags & 0x80));
  const uint64_t stamp = ((uint64_t(msg.TimeStampHigh) << 32) | msg.TimeStamp) * 10;
  out.TimeStamp = uint32_t(stamp);
  out.TimeStampHigh = uint8_t(stamp >> 32);
  std::memcpy(out.Data, msg.Data, 8);
  return out;
}

CAN_MSG to_can(const CANFD_MSG& msg) {
  CAN_MSG out{};
  if (msg.Id == kFdEventId) {
    out.Id = kFdEventId;
  } else {
    out.Id = msg.Id & 0x1FFFFFFFu;
    out.Extended = (msg.Id >> 31) & 1;
  }
  out.Flags = uint8_t(((msg.Id >> 30) & 1) | ((msg.Flags & 0x20) ? 0x20 : 0) | (msg.Flags & 0x80));
  out.DataLen = std::min<uint8_t>(msg.DataLen, 8);
  const uint64_t stamp = ((uint64_t(msg.TimeStampHigh) << 32) | msg.TimeStamp) / 10;
  out.TimeStamp = uint32_t(stamp);
  out.TimeStampHigh = uint8_t(stamp >> 32);
  std::memcpy(out.Data, msg.Data, 8);
  return out;
}

}  // namespace varnel::can
