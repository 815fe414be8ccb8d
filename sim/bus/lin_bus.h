// The virtual LIN bus: frames as the wire carries them (break, sync, protected identifier, data,
// checksum), their duration in bit times, and the slave nodes that answer headers. A bus belongs
// to the channels that sit on it; the adapter's firmware plays frames on it (sim/families/lin.*).
#pragma once

#include <cstdint>
#include <vector>

namespace sim {

uint8_t lin_protected_id(uint8_t id);
uint8_t lin_checksum(uint8_t pid, const std::vector<uint8_t>& data, bool enhanced);

// A slave node on the bus: it answers the header of its identifier.
struct LinSlaveNode {
  uint8_t id = 0;  // 0..0x3F
  std::vector<uint8_t> data;
  bool enhanced = true;
  // Faults: the checksum sent inverted; no answer at all.
  bool wrong_checksum = false;
  bool silent = false;
};

// One frame as every node on the bus saw it.
struct LinFrame {
  uint8_t pid = 0;
  std::vector<uint8_t> data;  // the response bytes (none for a header nobody answered)
  uint8_t check = 0;
  bool answered = false;  // a response followed the header
  bool break_only = false;
  uint8_t break_bits = 13;
  uint64_t end_us = 0;  // device time at the end of the frame
};

// Bit times on the bus: break, delimiter, then 10 bits a byte (start, 8 data, stop) for the sync
// byte and the identifier; a response follows one bit time after the header (the response space;
// no space between its bytes) with 10 bits a byte for its data and checksum. A header nobody
// answers holds the bus for the response time-out of 8 data bytes: 1.4 x 10 x (8 + 1) bit times.
constexpr uint32_t kResponseSpaceBits = 1;
constexpr uint32_t kNoResponseBits = 126;
uint32_t lin_frame_bits(const LinFrame& frame);

// What answers a header when two or more responders drive the bus at once: LIN is wired-AND, so
// the bits that reach the bus are the AND of theirs.
void lin_collide(LinFrame& into, const std::vector<uint8_t>& data, uint8_t check);

}  // namespace sim
