#include "can/isotp_reader.h"

#include <algorithm>
#include <cstring>

#include "core/bytes.h"
#include "varnel.h"

namespace varnel::can {
namespace {

constexpr uint8_t kSingle = 0x00, kFirst = 0x10, kConsecutive = 0x20, kFlow = 0x30;
constexpr size_t kLongestFrame = 64;

}  // namespace

int IsoTpReader::take(const uint8_t* frame, size_t length, bool* flow_control_due) {
  *flow_control_due = false;
  length = std::min(length, kLongestFrame);
  if (length < pci_offset_ + 2) return 0;  // no room for a protocol byte and its first byte
  const uint8_t* body = frame + pci_offset_;
  const size_t body_len = length - pci_offset_;
  const uint8_t pci = body[0];
  switch (pci & 0xF0) {
    case kSingle:
      return single(pci, body, body_len, length > 8);
    case kFirst:
      return first(pci, body, body_len, flow_control_due);
    case kConsecutive:
      return consecutive(pci, body, body_len);
    case kFlow:
      return 0;
    default:
      return CAN_UDS_ERR_FRAME;
  }
}

int IsoTpReader::single(uint8_t pci, const uint8_t* body, size_t body_len, bool long_frame) {
  size_t length = pci & 0x0F, offset = 1;
  if (long_frame || length == 0) {  // 00 LL: the escape of frames longer than 8 bytes
    length = body[1];
    offset = 2;
  }
  if (length > body_len - offset) return CAN_UDS_ERR_FRAME;
  if (length > size_) return VARNEL_CAN_UDS_ERR_SIZE;
  copy(0, body + offset, length);
  return int(length);
}

int IsoTpReader::first(uint8_t pci, const uint8_t* body, size_t body_len, bool* flow_control_due) {
  uint64_t length = uint64_t(pci & 0x0F) << 8 | body[1];
  size_t offset = 2;
  if (length == 0) {  // 10 00 and a 32-bit length
    if (body_len < 6) return CAN_UDS_ERR_FRAME;
    length = get_be32(body + 2);
    offset = 6;
  }
  if (length > size_) return VARNEL_CAN_UDS_ERR_SIZE;
  if (length > uint64_t(INT32_MAX)) return CAN_UDS_ERR_FRAME;
  announced_ = length;
  received_ = std::min<uint64_t>(length, body_len - offset);
  copy(0, body + offset, size_t(received_));
  expected_ = 1;
  started_ = true;
  *flow_control_due = true;
  return received_ == announced_ ? int(announced_) : 0;
}

int IsoTpReader::consecutive(uint8_t pci, const uint8_t* body, size_t body_len) {
  if (!started_ || (pci & 0x0F) != (expected_ & 0x0F)) return CAN_UDS_ERR_SEQUENCE;
  ++expected_;
  const uint64_t n = std::min<uint64_t>(body_len - 1, announced_ - received_);
  copy(size_t(received_), body + 1, size_t(n));
  received_ += n;
  return received_ == announced_ ? int(announced_) : 0;
}

// An empty copy is skipped: a caller with no room may pass no buffer at all, and memcpy must not be
// handed a null pointer even for nothing.
void IsoTpReader::copy(size_t at, const uint8_t* bytes, size_t n) {
  if (n > 0) std::memcpy(out_ + at, bytes, n);
}

}  // namespace varnel::can
