// An SPI NOR flash on a virtual SPI port, command by command as a chip-select session sees it:
// write enable (06) / disable (04), read status (05: bit 0 busy, bit 1 write enable latch), read
// identification (9F), read (03) and fast read (0B, one dummy byte), page program (02: clears bits
// only and wraps at the end of its page), 4 KiB sector erase (20) and chip erase (C7 or 60). The
// 3-byte-address commands reach the lowest 16 MiB only (the chip stays in 3-byte mode); the
// 4-byte forms read (13), fast read (0C), page program (12) and sector erase (21) reach all of a
// larger flash. Program and erase need the latch, clear it, and keep the busy bit set for
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
  static constexpr size_t kSize = 1 << 20;  // 1 MiB unless told otherwise
  static constexpr size_t kPage = 256;
  static constexpr size_t kSector = 4096;
  static constexpr uint64_t kProgramUs = 700, kSectorEraseUs = 45000, kChipEraseUs = 200000;

  // `size`: a power of two from 64 KiB to 256 MiB (anything else is 1 MiB).
  explicit SpiNorFlash(size_t size = kSize) { resize(size); }

  // A fresh, erased flash of `size` bytes.
  void resize(size_t size);
  size_t size() const;
  // EF 40 and the capacity byte: the size is 2^capacity bytes.
  std::array<uint8_t, 3> id() const;

  // One session at device time `now_us`: the bytes written, then `read_length` bytes clocked in.
  std::vector<uint8_t> transfer(std::span<const uint8_t> out, size_t read_length, uint64_t now_us);
  // When the running operation ends (0 when idle).
  uint64_t busy_until_us() const;

  std::vector<uint8_t> contents() const;
  // Test knob: the busy bit never clears.
  void set_stuck_busy(bool stuck);
  // Test knob: how long a sector erase keeps the flash busy.
  void set_sector_erase_us(uint64_t us);

 private:
  bool busy(uint64_t now_us) const { return stuck_ || now_us < busy_until_us_; }
  std::array<uint8_t, 3> id_locked() const;
  // The address of a command with `width` address bytes after the command byte.
  size_t address(std::span<const uint8_t> out, size_t width) const;

  mutable std::mutex mutex_;
  std::vector<uint8_t> memory_;
  bool write_enabled_ = false, stuck_ = false;
  uint64_t busy_until_us_ = 0;
  uint64_t sector_erase_us_ = kSectorEraseUs;
};

}  // namespace sim
