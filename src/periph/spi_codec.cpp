#include "periph/spi_codec.h"

#include <cstring>

#include "core/result_codes.h"

namespace varnel::spi {

int pack_bits(const char* text, std::vector<uint8_t>* packed, uint32_t* count) {
  const size_t n = strnlen(text, VARNEL_SPI_MAX_BITS);
  packed->assign((n + 7) / 8, 0);
  for (size_t i = 0; i < n; ++i) {
    if (text[i] != '0' && text[i] != '1') return kBadBitText;
    if (text[i] == '1') (*packed)[i / 8] |= uint8_t(0x80 >> (i % 8));
  }
  *count = uint32_t(n);
  return 0;
}

void unpack_bits(std::span<const uint8_t> packed, uint32_t count, char* text) {
  for (uint32_t i = 0; i < count; ++i) text[i] = (packed[i / 8] & (0x80 >> (i % 8))) ? '1' : '0';
  text[count] = '\0';
}

std::vector<uint8_t> FlashCommand::with_address(uint32_t address) const {
  std::vector<uint8_t> bytes{code};
  for (int shift = 8 * (address_bytes - 1); shift >= 0; shift -= 8)
    bytes.push_back(uint8_t(address >> shift));
  return bytes;
}

namespace {
struct CommandSlots {
  size_t three_byte, four_byte;
};
CommandSlots slots(FlashOp op) {
  switch (op) {
    case FlashOp::kRead:
      return {1, 8};
    case FlashOp::kFastRead:
      return {2, 9};
    case FlashOp::kProgram:
      return {3, 10};
    case FlashOp::kSectorErase:
      break;
  }
  return {6, 11};
}
}  // namespace

int flash_command(const SPI_FLASH_CONFIG& flash, FlashOp op, uint64_t address, uint64_t length,
                  FlashCommand* out) {
  const uint64_t end = address + length;
  if (flash.Param64 != 0 && end > flash.Param64) return result::kBadArgument;
  const CommandSlots slot = slots(op);
  const uint8_t four_byte = flash.Commands[slot.four_byte];
  // the start address must fit too: an empty range at 16 MiB is no range at 0
  const bool past_three_bytes = address >= kThreeByteSpan || end > kThreeByteSpan;
  if (four_byte != 0 && (flash.Param64 > kThreeByteSpan || past_three_bytes)) {
    *out = {four_byte, 4};
    return 0;
  }
  if (past_three_bytes) return result::kBadArgument;
  *out = {flash.Commands[slot.three_byte], 3};
  return 0;
}

}  // namespace varnel::spi
