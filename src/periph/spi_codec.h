// The pure parts of the SPI family: bit texts packed to bytes and back, and the flash command a
// range of addresses needs under a flash description. No adapter is reached from here.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "varnel.h"

namespace varnel::spi {

constexpr int kBadBitText = -5;

// A text of '0' and '1', first bit first, cut at VARNEL_SPI_MAX_BITS characters, packed most
// significant bit first (the last byte padded with zero bits). -5 for any other character.
int pack_bits(const char* text, std::vector<uint8_t>* packed, uint32_t* count);
// `count` bits of `packed` as a zero-terminated text; `text` holds count + 1 characters and
// `packed` at least (count + 7) / 8 bytes.
void unpack_bits(std::span<const uint8_t> packed, uint32_t count, char* text);

// What the flash description's command bytes are used for. The 3-byte-address forms sit in bytes
// 1, 2, 3 and 6; the 4-byte-address forms, which a flash above 16 MiB needs, in bytes 8 to 11.
enum class FlashOp { kRead, kFastRead, kProgram, kSectorErase };
constexpr uint64_t kThreeByteSpan = uint64_t(1) << 24;

struct FlashCommand {
  uint8_t code = 0;
  uint8_t address_bytes = 3;
  // The command byte and the address, most significant byte first.
  std::vector<uint8_t> with_address(uint32_t address) const;
};

// The command for `op` over [address, address + length): the 4-byte form when the description has
// one and the flash is larger than 16 MiB or the range reaches past it, the 3-byte form otherwise.
// -7 for a range past the flash size (Param64, when set) or past 16 MiB without a 4-byte form.
int flash_command(const SPI_FLASH_CONFIG& flash, FlashOp op, uint64_t address, uint64_t length,
                  FlashCommand* out);

}  // namespace varnel::spi
