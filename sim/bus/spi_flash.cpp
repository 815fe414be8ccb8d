#include "sim/bus/spi_flash.h"

#include <algorithm>

namespace sim {

size_t SpiNorFlash::address(std::span<const uint8_t> out) const {
  if (out.size() < 4) return 0;
  return (size_t(out[1]) << 16 | size_t(out[2]) << 8 | out[3]) % kSize;
}

std::vector<uint8_t> SpiNorFlash::transfer(std::span<const uint8_t> out, size_t read_length,
                                           uint64_t now_us) {
  std::lock_guard guard(mutex_);
  std::vector<uint8_t> in(read_length, 0xFF);  // an undriven line reads high
  if (out.empty()) return in;
  const uint8_t command = out[0];
  if (command == 0x05) {
    const uint8_t status = uint8_t((busy(now_us) ? 1 : 0) | (write_enabled_ ? 2 : 0));
    std::fill(in.begin(), in.end(), status);
    return in;
  }
  if (busy(now_us)) return in;
  const size_t at = address(out);
  auto start = [&](uint64_t us) {
    write_enabled_ = false;
    busy_until_us_ = now_us + us;
  };
  switch (command) {
    case 0x06:
      write_enabled_ = true;
      break;
    case 0x04:
      write_enabled_ = false;
      break;
    case 0x9F:
      for (size_t i = 0; i < in.size() && i < kId.size(); ++i) in[i] = kId[i];
      break;
    case 0x03:
    case 0x0B:
      if (out.size() >= (command == 0x0B ? 5u : 4u))
        for (size_t i = 0; i < in.size(); ++i) in[i] = memory_[(at + i) % kSize];
      break;
    case 0x02:
      if (!write_enabled_ || out.size() < 4) break;
      for (size_t i = 4; i < out.size(); ++i) {
        const size_t page = at / kPage * kPage;
        memory_[page + (at % kPage + i - 4) % kPage] &= out[i];  // only 1 -> 0
      }
      start(kProgramUs);
      break;
    case 0x20:
      if (!write_enabled_ || out.size() < 4) break;
      std::fill_n(memory_.begin() + ptrdiff_t(at / kSector * kSector), kSector, 0xFF);
      start(kSectorEraseUs);
      break;
    case 0xC7:
    case 0x60:
      if (!write_enabled_) break;
      std::fill(memory_.begin(), memory_.end(), 0xFF);
      start(kChipEraseUs);
      break;
    default:
      break;
  }
  return in;
}

uint64_t SpiNorFlash::busy_until_us() const {
  std::lock_guard guard(mutex_);
  return busy_until_us_;
}

std::vector<uint8_t> SpiNorFlash::contents() const {
  std::lock_guard guard(mutex_);
  return memory_;
}

void SpiNorFlash::set_stuck_busy(bool stuck) {
  std::lock_guard guard(mutex_);
  stuck_ = stuck;
}

}  // namespace sim
