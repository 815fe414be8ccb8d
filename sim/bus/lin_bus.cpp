#include "sim/bus/lin_bus.h"

#include <algorithm>

namespace sim {

uint8_t lin_protected_id(uint8_t id) {
  // P0 = ID0 ^ ID1 ^ ID2 ^ ID4, P1 = !(ID1 ^ ID3 ^ ID4 ^ ID5): parities of two bit masks
  const auto parity = [](unsigned bits) { return __builtin_parity(bits); };
  id &= 0x3F;
  return uint8_t(id | parity(id & 0x17) << 6 | (parity(id & 0x3A) ^ 1) << 7);
}

uint8_t lin_checksum(uint8_t pid, const std::vector<uint8_t>& data, bool enhanced) {
  unsigned sum = enhanced ? pid : 0;
  for (uint8_t byte : data) {
    sum += byte;
    sum = (sum & 0xFF) + (sum >> 8);  // the carry goes round
  }
  return uint8_t(~sum);
}

uint32_t lin_frame_bits(const LinFrame& frame) {
  const uint32_t head = frame.break_bits + 1u;
  if (frame.break_only) return head;
  const uint32_t header = head + 2 * 10;
  if (!frame.answered) return header + kNoResponseBits;
  return header + kResponseSpaceBits + 10 * (uint32_t(frame.data.size()) + 1);
}

void lin_collide(LinFrame& into, const std::vector<uint8_t>& data, uint8_t check) {
  if (!into.answered) {
    into.answered = true;
    into.data = data;
    into.check = check;
    return;
  }
  into.data.resize(std::max(into.data.size(), data.size()), 0xFF);
  for (size_t i = 0; i < data.size(); ++i) into.data[i] &= data[i];
  into.check &= check;
}

}  // namespace sim
