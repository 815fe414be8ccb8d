// The boot loader of a virtual LIN control unit: sessions, security access with a two-byte seed
// and the unit's key constant, erase (routine DFFF) and memory check (routine DFFE, CRC-32 of the
// last download) with their results, download (34 00 44), transfer data and exit into a flash
// model that programs only erased cells, ECU reset. Request bytes in, answer bytes out.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "sim/ecu/uds_server.h"

namespace sim {

class LinBootServer {
 public:
  static constexpr uint32_t kFlashBase = 0x00000000;
  static constexpr size_t kFlashSize = 0x20000;  // 128 KiB

  UdsAnswer handle(std::span<const uint8_t> request);

  // The key for a seed: rotated left by 5 bits, XOR the unit's constant.
  static uint16_t key_for(uint16_t seed, uint16_t constant);
  // Another routine: the seed XOR the constant.
  static uint16_t key_by_xor(uint16_t seed, uint16_t constant);
  using KeyRoutine = uint16_t (*)(uint16_t seed, uint16_t constant);
  // A routine by name ("rotate5", the default, or "xor"); null for another name.
  static KeyRoutine key_routine_named(std::string_view name);

  KeyRoutine key_routine = key_for;  // the unit's own
  uint16_t key_constant = 0xBEEF;
  uint16_t block_length = 0x0082;  // 128 data bytes a transfer
  uint16_t erase_wait_ms = 20, check_wait_ms = 5;
  int silent_after_switch = 2;  // response headers left unanswered while it restarts
  int take_silent_reads();      // the count for the answer just given, then 0

  const std::vector<uint8_t>& flash() const { return flash_; }
  uint8_t session() const { return session_; }
  uint16_t next_seed = 0x1234;

 private:
  UdsAnswer security(std::span<const uint8_t> r);
  UdsAnswer routine(std::span<const uint8_t> r);
  UdsAnswer download(std::span<const uint8_t> r);
  UdsAnswer transfer(std::span<const uint8_t> r);
  bool in_flash(uint32_t address, uint32_t size) const;

  std::vector<uint8_t> flash_ = std::vector<uint8_t>(kFlashSize, 0xFF);
  uint8_t session_ = 1;
  bool unlocked_ = false, seed_given_ = false;
  uint16_t seed_ = 0;
  int silent_reads_ = 0;
  bool downloading_ = false;
  uint32_t address_ = 0, size_ = 0, done_ = 0;
  uint8_t counter_ = 1;
  uint32_t last_address_ = 0, last_size_ = 0;
  uint8_t check_result_ = 0;
};

}  // namespace sim
