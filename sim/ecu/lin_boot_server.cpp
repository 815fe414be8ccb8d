#include "sim/ecu/lin_boot_server.h"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

UdsAnswer positive(std::vector<uint8_t> bytes) {
  return {0, std::move(bytes)};
}
UdsAnswer negative(uint8_t service, uint8_t code) {
  return {0, {0x7F, service, code}};
}
uint32_t be32_at(std::span<const uint8_t> r, size_t at) {
  return uint32_t(r[at]) << 24 | uint32_t(r[at + 1]) << 16 | uint32_t(r[at + 2]) << 8 | r[at + 3];
}

}  // namespace

uint16_t LinBootServer::key_for(uint16_t seed, uint16_t constant) {
  return uint16_t(((seed << 5) | (seed >> 11)) ^ constant);
}

uint16_t LinBootServer::key_by_xor(uint16_t seed, uint16_t constant) {
  return uint16_t(seed ^ constant);
}

LinBootServer::KeyRoutine LinBootServer::key_routine_named(std::string_view name) {
  if (name == "rotate5") return key_for;
  if (name == "xor") return key_by_xor;
  return nullptr;
}

int LinBootServer::take_silent_reads() {
  return std::exchange(silent_reads_, 0);
}

bool LinBootServer::in_flash(uint32_t address, uint32_t size) const {
  return address >= kFlashBase && size <= kFlashSize && address - kFlashBase <= kFlashSize - size;
}

UdsAnswer LinBootServer::handle(std::span<const uint8_t> r) {
  if (r.empty()) return {};
  switch (r[0]) {
    case 0x10:
      if (r.size() != 2 || r[1] < 1 || r[1] > 3) return negative(0x10, kNrcSubFunctionNotSupported);
      if (r[1] == 2 && session_ != 2) silent_reads_ = silent_after_switch;  // restarts first
      session_ = r[1];
      unlocked_ = false;
      return positive({0x50, r[1]});
    case 0x11:
      session_ = 1;
      unlocked_ = downloading_ = false;
      return positive({0x51, 0x01});
    case 0x27:
      return security(r);
    case 0x31:
      return routine(r);
    case 0x34:
      return download(r);
    case 0x36:
      return transfer(r);
    case 0x37:
      if (!downloading_ || done_ != size_) return negative(0x37, kNrcRequestSequenceError);
      downloading_ = false;
      return positive({0x77});
    default:
      return negative(r[0], kNrcServiceNotSupported);
  }
}

UdsAnswer LinBootServer::security(std::span<const uint8_t> r) {
  if (r.size() == 2 && r[1] == 0x01) {
    seed_ = next_seed;
    next_seed = uint16_t(next_seed * 31 + 7);  // a seed is used once
    seed_given_ = true;
    return positive({0x67, 0x01, uint8_t(seed_ >> 8), uint8_t(seed_)});
  }
  if (r.size() != 4 || r[1] != 0x02) return negative(0x27, kNrcIncorrectLength);
  if (!seed_given_) return negative(0x27, kNrcRequestSequenceError);
  seed_given_ = false;
  if (uint16_t(r[2] << 8 | r[3]) != key_routine(seed_, key_constant))
    return negative(0x27, kNrcInvalidKey);
  unlocked_ = true;
  return positive({0x67, 0x02});
}

// DFFF erase (44, address, size) and DFFE check (the CRC-32 of the last download); 31 03 gives
// the result byte (0 good, 1 not).
UdsAnswer LinBootServer::routine(std::span<const uint8_t> r) {
  if (r.size() < 4 || r[2] != 0xDF || (r[3] != 0xFF && r[3] != 0xFE))
    return negative(0x31, kNrcRequestOutOfRange);
  if (session_ != 2 || !unlocked_) return negative(0x31, kNrcSecurityAccessDenied);
  const bool erase = r[3] == 0xFF;
  if (r[1] == 0x03) return positive({0x71, 0x03, 0xDF, r[3], check_result_});
  if (r[1] != 0x01) return negative(0x31, kNrcSubFunctionNotSupported);
  uint16_t wait = check_wait_ms;
  if (erase) {
    if (r.size() != 13 || r[4] != 0x44) return negative(0x31, kNrcIncorrectLength);
    const uint32_t address = be32_at(r, 5), size = be32_at(r, 9);
    if (!in_flash(address, size)) return negative(0x31, kNrcRequestOutOfRange);
    std::fill_n(flash_.begin() + (address - kFlashBase), size, 0xFF);
    check_result_ = 0;
    wait = erase_wait_ms;
  } else {
    if (r.size() != 8) return negative(0x31, kNrcIncorrectLength);
    const auto region = std::span(flash_).subspan(last_address_ - kFlashBase, last_size_);
    check_result_ = crc32_ieee(region) == be32_at(r, 4) ? 0 : 1;
  }
  return positive({0x71, 0x01, 0xDF, r[3], uint8_t(wait >> 8), uint8_t(wait)});
}

UdsAnswer LinBootServer::download(std::span<const uint8_t> r) {
  if (r.size() != 11 || r[1] != 0x00 || r[2] != 0x44) return negative(0x34, kNrcIncorrectLength);
  if (session_ != 2 || !unlocked_) return negative(0x34, kNrcSecurityAccessDenied);
  const uint32_t address = be32_at(r, 3), size = be32_at(r, 7);
  if (!in_flash(address, size)) return negative(0x34, kNrcRequestOutOfRange);
  downloading_ = true;
  address_ = last_address_ = address;
  size_ = last_size_ = size;
  done_ = 0;
  counter_ = 1;
  return positive({0x74, 0x20, uint8_t(block_length >> 8), uint8_t(block_length)});
}

UdsAnswer LinBootServer::transfer(std::span<const uint8_t> r) {
  if (!downloading_) return negative(0x36, kNrcRequestSequenceError);
  if (r.size() < 2 || r.size() > block_length) return negative(0x36, kNrcIncorrectLength);
  if (r[1] != counter_) return negative(0x36, kNrcWrongBlockSequenceCounter);
  const size_t n = r.size() - 2;
  if (done_ + n > size_) return negative(0x36, kNrcTransferDataSuspended);
  for (size_t i = 0; i < n; ++i)  // programming clears bits only
    flash_[address_ - kFlashBase + done_ + i] &= r[2 + i];
  done_ += uint32_t(n);
  ++counter_;
  return positive({0x76, r[1]});
}

}  // namespace sim
