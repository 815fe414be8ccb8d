// An SPI NOR flash on a virtual SPI port, command by command as a chip-select session sees it:
// write enable (06) / disable (04), read status (05: bit 0 busy, bit 1 write enable latch), read
// identification (9F), read (03) and fast read (0B, one dummy byte) with 24-bit addresses, page
// program (02: clears bits only and wraps at the end of its page), 4 KiB sector erase (20) and
// chip erase (C7 or 60). Program and erase need the latch, clear it, and keep the busy bit set for
// their time on the device clock; a busy flash answers only the status read.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

namespace sim {

class SpiNorFlash {
 public:
  static constexpr size_t kSize = 1 << 20;  // 1 MiB
  static constexpr size_t kPage = 256;
  static constexpr size_t kSector = 4096;
  static constexpr std::array<uint8_t, 3> kId = {0xEF, 0x40, 0x14};
  static constexpr uint64_t kProgramUs = 700, kSectorEraseUs = 45000, kChipEraseUs = 200000;

  SpiNorFlash() : memory_(kSize, 0xFF) {}

  // One session at device time `now_us`: the bytes written, then `read_length` bytes clocked in.
  std::vector<uint8_t> transfer(std::span<const uint8_t> out, size_t read_length, uint64_t now_us);
  // When the running operation ends (0 when idle).
  uint64_t busy_until_us() const;

  std::vector<uint8_t> contents() const;
  // Test knob: the busy bit never clears.
  void set_stuck_busy(bool stuck);

 private:
  bool busy(uint64_t now_us) const { return stuck_ || now_us < busy_until_us_; }
  size_t address(std::span<const uint8_t> out) const;

  mutable std::mutex mutex_;
  std::vector<uint8_t> memory_;
  bool write_enabled_ = false, stuck_ = false;
  uint64_t busy_until_us_ = 0;
};

}  // namespace sim
