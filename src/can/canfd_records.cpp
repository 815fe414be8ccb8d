// The CAN FD adapters' device record: 12-byte header of three big-endian words, then the data.
//   word 0  identifier in device layout (extended: id bits 18-28 in bits 0-10, id bits 0-17 in
//           bits 11-28; standard: id bits 0-10 in bits 0-10, id bit 11 in bit 29)
//   word 1  bits 0-3 length code, 4 extended, 5 remote, 6/8 the Flags bits 0/1, 7 FD format,
//           9-15 index in the send chunk, 16-23 time stamp bits 32-39, 24 echo
//   word 2  time stamp bits 0-31
// A header with word 0 all ones and 0x55 in word-1 bits 25-31 is a 20-byte device event.
#include <cstring>

#include "can/can_records.h"
#include "core/bytes.h"

namespace varnel::can {
namespace {

constexpr size_t kHeader = 12;
constexpr size_t kEventSize = 20;

uint32_t device_identifier(uint32_t id, bool extended) {
  if (extended) return ((id >> 18) & 0x7FF) | ((id & 0x3FFFF) << 11);
  return (id & 0x7FF) | (((id >> 11) & 1) << 29);
}

uint32_t host_identifier(uint32_t word0, bool extended) {
  if (extended) return ((word0 & 0x7FF) << 18) | ((word0 >> 11) & 0x3FFFF);
  return (word0 & 0x7FF) | (((word0 >> 29) & 1) << 11);
}

}  // namespace

size_t encode_fd_record(const CANFD_MSG& msg, uint8_t index_in_chunk, uint8_t* out) {
  const uint32_t id = msg.Id & 0x1FFFFFFFu;
  const bool extended = (msg.Id & 0x80000000u) || id > 0x7FF;
  const uint8_t code = fd_length_code(msg.DataLen);
  uint32_t word1 = code;
  if (extended) word1 |= 1u << 4;
  if (msg.Id & 0x40000000u) word1 |= 1u << 5;
  if (msg.Flags & 0x01) word1 |= 1u << 6;
  if (msg.Flags & 0x04) word1 |= 1u << 7;
  if (msg.Flags & 0x02) word1 |= 1u << 8;
  word1 |= uint32_t(index_in_chunk & 0x7F) << 9;
  put_be32(out, device_identifier(id, extended));
  put_be32(out + 4, word1);
  put_be32(out + 8, msg.TimeStamp);
  const size_t len = fd_code_length(code);
  std::memcpy(out + kHeader, msg.Data, len);
  return kHeader + len;
}

size_t decode_fd_records(std::span<const uint8_t> bytes, uint8_t channel, CANFD_MSG* out,
                         size_t max) {
  size_t count = 0, at = 0;
  while (count < max && bytes.size() - at >= kHeader) {
    const uint8_t* p = bytes.data() + at;
    const uint32_t word0 = get_be32(p), word1 = get_be32(p + 4), word2 = get_be32(p + 8);
    CANFD_MSG& msg = out[count];
    std::memset(&msg, 0, sizeof msg);
    msg.TimeStamp = word2;
    msg.TimeStampHigh = uint8_t(word1 >> 16);
    if (word0 == kFdEventId && (word1 >> 25) == 0x55) {
      if (bytes.size() - at < kEventSize) break;
      msg.Id = kFdEventId;
      msg.DataLen = 8;
      msg.Flags = uint8_t((channel & 1) << 5);
      std::memcpy(msg.Data, p + kHeader, 8);
      at += kEventSize;
      ++count;
      continue;
    }
    const uint8_t len = fd_code_length(uint8_t(word1 & 15));
    if (bytes.size() - at - kHeader < len) break;  // a record cut short ends the batch
    const bool extended = word1 & (1u << 4);
    msg.Id = host_identifier(word0, extended);
    if (extended) msg.Id |= 0x80000000u;
    if (word1 & (1u << 5)) msg.Id |= 0x40000000u;
    msg.DataLen = len;
    msg.Flags = uint8_t(((word1 >> 6) & 1) | (((word1 >> 8) & 1) << 1) | (((word1 >> 7) & 1) << 2) |
                        ((channel & 1) << 5) | (((word1 >> 24) & 1) << 7));
    std::memcpy(msg.Data, p + kHeader, len);
    at += kHeader + len;
    ++count;
  }
  return count;
}

}  // namespace varnel::can
