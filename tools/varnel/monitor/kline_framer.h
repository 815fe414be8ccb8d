// KWP2000 frames out of the bytes a K-line's UART received, for the monitor's K-line view.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace varnel_cli::monitor {

// A KWP2000 frame: format byte (address mode in bits 7..6, length of SID and data in 5..0, 0 when
// a length byte follows), target and source with address modes 2 and 3, the length byte, SID and
// data, and the sum of all those bytes modulo 256.
struct KlineFrame {
  std::vector<uint8_t> bytes;  // the whole frame as it came, checksum last
  bool complete = true;        // false: the line went quiet before its end
  bool checksum_ok = false;
  uint64_t at_us = 0;
};

// Cuts a K-line's bytes into frames. A frame that stops short for longer than `quiet_us` (an
// inter-byte time no KWP2000 timing allows) is given up as incomplete.
class KlineFramer {
 public:
  explicit KlineFramer(uint64_t quiet_us = 100000) : quiet_us_(quiet_us) {}
  void add(const uint8_t* bytes, size_t count, uint64_t at_us, std::vector<KlineFrame>& out);
  void idle(uint64_t now_us, std::vector<KlineFrame>& out);

 private:
  size_t expected_size() const;  // 0 while the header is not yet complete
  std::vector<uint8_t> pending_;
  uint64_t first_us_ = 0, last_us_ = 0;
  uint64_t quiet_us_;
};

}  // namespace varnel_cli::monitor
