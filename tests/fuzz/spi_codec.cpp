// libFuzzer target: SPI bit texts packed and unpacked again, and the flash command a flash
// description gives a range of addresses. The first byte chooses; a bit text is the rest as text,
// a range is a 44-byte description, u32 address, u32 length and the operation.
#include "periph/spi_codec.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/bytes.h"

namespace {

using namespace varnel::spi;

void check(bool holds) {
  if (!holds) std::abort();
}

void bit_text(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<uint8_t> packed;
  uint32_t count = 0;
  if (pack_bits(text.c_str(), &packed, &count) != 0) {
    check(text.find_first_not_of("01") < std::min<size_t>(text.size(), VARNEL_SPI_MAX_BITS) &&
          text.find_first_not_of("01") < strlen(text.c_str()));
    return;
  }
  check(count == std::min<size_t>(strlen(text.c_str()), VARNEL_SPI_MAX_BITS));
  check(packed.size() == (count + 7) / 8);
  if (count % 8) check((packed.back() & (0xFF >> (count % 8))) == 0);  // zero padding
  std::vector<char> back(count + 1, 'x');
  unpack_bits(packed, count, back.data());
  check(std::memcmp(back.data(), text.data(), count) == 0 && back[count] == '\0');
}

void flash_range(const uint8_t* data, size_t size) {
  SPI_FLASH_CONFIG flash;
  if (size < sizeof flash + 9) return;
  std::memcpy(&flash, data, sizeof flash);
  const uint64_t address = varnel::get_be32(data + sizeof flash);
  const uint64_t length = varnel::get_be32(data + sizeof flash + 4);
  const auto op = FlashOp(data[sizeof flash + 8] % 4);
  const uint64_t end = address + length;
  FlashCommand command;
  if (flash_command(flash, op, address, length, &command) != 0) {
    const bool past_flash = flash.Param64 != 0 && end > flash.Param64;
    check(past_flash || end > kThreeByteSpan || address >= kThreeByteSpan);
    return;
  }
  check(flash.Param64 == 0 || end <= flash.Param64);
  check(command.address_bytes == 4 || end <= kThreeByteSpan);
  const std::vector<uint8_t> bytes = command.with_address(uint32_t(address));
  check(bytes.size() == size_t(1 + command.address_bytes) && bytes[0] == command.code);
  uint64_t decoded = 0;
  for (size_t i = 1; i < bytes.size(); ++i) decoded = decoded << 8 | bytes[i];
  check(decoded == address);  // never a cut address: the fault that erases the wrong sector
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if (data[0] & 1)
    bit_text(data + 1, size - 1);
  else
    flash_range(data + 1, size - 1);
  return 0;
}
