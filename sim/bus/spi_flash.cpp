#include "sim/bus/spi_flash.h"

#include <algorithm>

namespace sim {

void SpiNorFlash::resize(size_t size) {
  std::lock_guard guard(mutex_);
  const bool power_of_two = size >= (1u << 16) && size <= (1u << 28) && (size & (size - 1)) == 0;
  memory_.assign(power_of_two ? size : kSize, 0xFF);
  write_enabled_ = false;
  busy_until_us_ = 0;
}

size_t SpiNorFlash::size() const {
  std::lock_guard guard(mutex_);
  return memory_.size();
}

std::array<uint8_t, 3> SpiNorFlash::id() const {
  std::lock_guard guard(mutex_);
  return id_locked();
}

std::array<uint8_t, 3> SpiNorFlash::id_locked() const {
  uint8_t capacity = 0;
  while ((size_t(1) << capacity) < memory_.size()) ++capacity;
  return {0xEF, 0x40, capacity};
}

size_t SpiNorFlash::address(std::span<const uint8_t> out, size_t width) const {
  size_t at = 0;
  for (size_t i = 1; i <= width && i < out.size(); ++i) at = at << 8 | out[i];
  return at % memory_.size();
}

namespace {
// The address width of a command that carries an address (0 for the others).
size_t address_width(uint8_t command) {
  switch (command) {
    case 0x03:
    case 0x0B:
    case 0x02:
    case 0x20:
      return 3;
    case 0x13:
    case 0x0C:
    case 0x12:
    case 0x21:
      return 4;
    default:
      return 0;
  }
}
}  // namespace

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
  const size_t width = address_width(command);
  const size_t at = address(out, width);
  const size_t size = memory_.size();
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
    case 0x9F: {
      const auto id = id_locked();
      for (size_t i = 0; i < in.size() && i < id.size(); ++i) in[i] = id[i];
      break;
    }
    case 0x03:
    case 0x13:
    case 0x0B:
    case 0x0C: {
      const bool fast = command == 0x0B || command == 0x0C;
      if (out.size() >= 1 + width + (fast ? 1 : 0))
        for (size_t i = 0; i < in.size(); ++i) in[i] = memory_[(at + i) % size];
      break;
    }
    case 0x02:
    case 0x12:
      if (!write_enabled_ || out.size() < 1 + width) break;
      for (size_t i = 1 + width; i < out.size(); ++i) {
        const size_t page = at / kPage * kPage;
        memory_[page + (at % kPage + i - 1 - width) % kPage] &= out[i];  // only 1 -> 0
      }
      start(kProgramUs);
      break;
    case 0x20:
    case 0x21:
      if (!write_enabled_ || out.size() < 1 + width) break;
      std::fill_n(memory_.begin() + ptrdiff_t(at / kSector * kSector), kSector, 0xFF);
      start(sector_erase_us_);
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

void SpiNorFlash::set_sector_erase_us(uint64_t us) {
  std::lock_guard guard(mutex_);
  sector_erase_us_ = us;
}

void SpiNorFlash::set_stuck_busy(bool stuck) {
  std::lock_guard guard(mutex_);
  stuck_ = stuck;
}

}  // namespace sim
