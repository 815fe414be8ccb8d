// SPI master transfers (bytes and bit texts) and the SPI NOR flash layer. Each call is one
// transaction, except the flash erases, which the host composes from byte transfers with the
// command bytes of the flash description it keeps per adapter and channel.
#include "periph/spi.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "core/adapter_state.h"
#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/delay.h"
#include "core/locks.h"
#include "core/result_codes.h"
#include "core/transaction.h"
#include "periph/spi_codec.h"
#include "varnel.h"

namespace varnel::spi {

bool bad_buffer(const void* data, int64_t length) {
  return length < 0 || length > VARNEL_SPI_MAX_LENGTH || (length > 0 && !data);
}

TransactionOptions reply_within(int read_timeout_ms) {
  TransactionOptions options;
  options.read_timeout_ms = read_timeout_ms;
  return options;
}

int acknowledged(uint32_t handle, uint32_t command, const PayloadWriter& request,
                 int read_timeout_ms) {
  return transact_ack(handle, command, request.bytes(), reply_within(read_timeout_ms))
      .acknowledged();
}

int read_exactly(uint32_t handle, uint32_t command, const PayloadWriter& request,
                 std::span<uint8_t> out, int read_timeout_ms) {
  std::vector<uint8_t> reply(out.size());
  const int r = transact(handle, command, request.bytes(), reply, reply_within(read_timeout_ms))
                    .expect_length(int32_t(out.size()));
  if (r == 0 && !out.empty()) std::memcpy(out.data(), reply.data(), out.size());
  return r;
}

}  // namespace varnel::spi

namespace varnel {
namespace {

using namespace spi;

enum : uint32_t {
  kSpiInit = 0x200,
  kSpiWrite = 0x201,
  kSpiWriteAsync = 0x202,
  kSpiRead = 0x203,
  kSpiWriteRead = 0x204,
  kFlashInit = 0x207,
  kFlashReadId = 0x208,
  kFlashWrite = 0x209,
  kFlashRead = 0x20A,
  kFlashEraseSector = 0x20B,
  kFlashReadFast = 0x20C,
  kSpiWriteBits = 0x210,
  kSpiReadBits = 0x211,
  kSpiWriteReadBits = 0x212,
};

constexpr int kChannels = 2;
constexpr int kBitsSendTimeoutMs = 100;
constexpr int kFlashPollMs = 10;
constexpr uint32_t kSectorSize = 4096;
constexpr uint8_t kBusy = 0x01;
// Command bytes of the flash description the host uses itself.
constexpr size_t kWriteEnable = 0, kChipErase = 7, kReadStatus = 13;

using result::kBadArgument;
constexpr int kStillBusy = -6;

// The flash description each channel was given (SPI_FlashInit), per adapter.
struct FlashDescriptions {
  std::mutex mutex;
  std::array<SPI_FLASH_CONFIG, kChannels> configs{};
  std::array<bool, kChannels> known{};
};

void keep_flash_description(uint32_t handle, uint8_t channel, const SPI_FLASH_CONFIG& config) {
  auto adapter = adapter_table<FlashDescriptions>().find_or_create(handle);
  if (!adapter) return;
  std::lock_guard guard(adapter->mutex);
  if (SPI_FLASH_CONFIG* slot = channel_at(adapter->configs, channel)) {
    *slot = config;
    adapter->known[channel] = true;
  }
}

int bits_transfer(uint32_t handle, uint32_t command, const PayloadWriter& request, uint32_t count,
                  char* out) {
  std::vector<uint8_t> packed((count + 7) / 8);
  const int r = read_exactly(handle, command, request, packed);
  if (r == 0) unpack_bits(packed, count, out);
  return r;
}

bool flash_description(uint32_t handle, uint8_t channel, SPI_FLASH_CONFIG* out) {
  auto adapter = adapter_table<FlashDescriptions>().find(handle);
  if (!adapter) return false;
  std::lock_guard guard(adapter->mutex);
  const bool* known = channel_at(adapter->known, channel);
  if (!known || !*known) return false;
  *out = adapter->configs[channel];
  return true;
}

// The flash's status register, through a write-read of the read-status command.
int flash_status(uint32_t handle, uint8_t channel, const SPI_FLASH_CONFIG& flash, uint8_t* status) {
  uint8_t command = flash.Commands[kReadStatus];
  return SPI_WriteReadBytes(handle, channel, &command, 1, status, 1, 0);
}

// Waits for the busy bit to clear, counting 10 ms steps in `elapsed_ms`: busy-waiting before an
// operation, sleeping while one runs. -6 once the count passes the time-out.
int wait_idle(uint32_t handle, uint8_t channel, const SPI_FLASH_CONFIG& flash, int32_t timeout_ms,
              bool sleep, int32_t* elapsed_ms) {
  uint8_t status = 0;
  if (int r = flash_status(handle, channel, flash, &status); r != 0) return r;
  while (status & kBusy) {
    if (sleep)
      sleep_for_ms(kFlashPollMs);
    else
      wait_for_us(kFlashPollMs * 1000);
    *elapsed_ms += kFlashPollMs;
    if (*elapsed_ms > timeout_ms) return kStillBusy;
    if (int r = flash_status(handle, channel, flash, &status); r != 0) return r;
  }
  return 0;
}

int send_command(uint32_t handle, uint8_t channel, std::vector<uint8_t> bytes) {
  return SPI_WriteBytes(handle, channel, bytes.data(), int32_t(bytes.size()));
}

// One erase: idle, write enable, the erase command, then polling until the flash is done. The
// adapter stays locked throughout: another thread's write enable or erase in between would leave
// one of the two erases without its latch, and the flash ignores it.
int flash_erase(uint32_t handle, uint8_t channel, const SPI_FLASH_CONFIG& flash,
                std::vector<uint8_t> erase, int32_t timeout_ms) {
  DeviceLockGuard whole_operation(handle);
  int32_t elapsed = 0;
  if (int r = wait_idle(handle, channel, flash, timeout_ms, false, &elapsed); r != 0) return r;
  if (int r = send_command(handle, channel, {flash.Commands[kWriteEnable]}); r != 0) return r;
  if (int r = send_command(handle, channel, std::move(erase)); r != 0) return r;
  return wait_idle(handle, channel, flash, timeout_ms, true, &elapsed);
}

}  // namespace
}  // namespace varnel

using namespace varnel;

VARNEL_API int SPI_Init(DevHandle handle, uint8_t channel, SPI_CONFIG* config) {
  return guarded(result::kFailed, [&] {
    if (!config) return kBadArgument;
    PayloadWriter request;
    request.u8(channel)
        .u8(config->Mode)
        .u8(config->Master)
        .u8(config->CPOL)
        .u8(config->CPHA)
        .u8(config->LSBFirst)
        .u8(config->SelPolarity)
        .u32(config->ClockSpeedHz);
    return acknowledged(handle, kSpiInit, request, kDefaultTimeoutMs);
  });
}

namespace {
int write_bytes(uint32_t handle, uint8_t channel, uint32_t command, const uint8_t* data,
                int32_t length) {
  if (bad_buffer(data, length)) return result::kBadArgument;
  PayloadWriter request;
  request.u8(channel).raw(data, size_t(std::max(length, 0)));
  return acknowledged(handle, command, request);
}
}  // namespace

VARNEL_API int SPI_WriteBytes(DevHandle handle, uint8_t channel, uint8_t* data, int32_t length) {
  return guarded(result::kFailed,
                 [&] { return write_bytes(handle, channel, kSpiWrite, data, length); });
}

VARNEL_API int SPI_WriteBytesAsync(DevHandle handle, uint8_t channel, uint8_t* data,
                                   int32_t length) {
  return guarded(result::kFailed,
                 [&] { return write_bytes(handle, channel, kSpiWriteAsync, data, length); });
}

VARNEL_API int SPI_ReadBytes(DevHandle handle, uint8_t channel, uint8_t* out, int32_t length) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(out, length)) return kBadArgument;
    PayloadWriter request;
    request.u8(channel).u32(uint32_t(length));
    return read_exactly(handle, kSpiRead, request, {out, size_t(length)});
  });
}

VARNEL_API int SPI_WriteReadBytes(DevHandle handle, uint8_t channel, uint8_t* data,
                                  int32_t write_length, uint8_t* out, int32_t read_length,
                                  int32_t interval_us) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, write_length) || bad_buffer(out, read_length)) return kBadArgument;
    PayloadWriter request;
    request.u8(channel)
        .u32(uint32_t(read_length))
        .u32(uint32_t(interval_us))
        .raw(data, size_t(write_length));
    return read_exactly(handle, kSpiWriteRead, request, {out, size_t(read_length)});
  });
}

VARNEL_API int SPI_WriteBits(DevHandle handle, uint8_t channel, const char* text) {
  return guarded(result::kFailed, [&] {
    if (!text) return kBadArgument;
    std::vector<uint8_t> packed;
    uint32_t count = 0;
    if (int r = pack_bits(text, &packed, &count); r != 0) return r;
    PayloadWriter request;
    request.u8(channel).u32(count).raw(packed.data(), packed.size());
    TransactionOptions options = reply_within(kTransferTimeoutMs);
    options.write_timeout_ms = kBitsSendTimeoutMs;
    return transact_ack(handle, kSpiWriteBits, request.bytes(), options).acknowledged();
  });
}

VARNEL_API int SPI_ReadBits(DevHandle handle, uint8_t channel, char* out, int32_t count) {
  return guarded(result::kFailed, [&] {
    if (!out || count < 0 || count > VARNEL_SPI_MAX_BITS) return kBadArgument;
    out[0] = '\0';
    PayloadWriter request;
    request.u8(channel).u32(uint32_t(count));
    return bits_transfer(handle, kSpiReadBits, request, uint32_t(count), out);
  });
}

VARNEL_API int SPI_WriteReadBits(DevHandle handle, uint8_t channel, const char* text, char* out) {
  return guarded(result::kFailed, [&] {
    if (!text || !out) return kBadArgument;
    std::vector<uint8_t> packed;
    uint32_t count = 0;
    if (int r = pack_bits(text, &packed, &count); r != 0) return r;
    out[0] = '\0';
    PayloadWriter request;
    request.u8(channel).u32(count).raw(packed.data(), packed.size());
    return bits_transfer(handle, kSpiWriteReadBits, request, count, out);
  });
}

VARNEL_API int VARNEL_SPI_NorFlashConfig(SPI_FLASH_CONFIG* config, uint64_t size) {
  if (!config) return kBadArgument;
  *config = SPI_FLASH_CONFIG{};
  const uint8_t commands[] = {0x06, 0x03, 0x0B, 0x02, 0x9F, 0x04, 0x20, 0xC7, 0, 0, 0, 0, 0, 0x05};
  std::memcpy(config->Commands, commands, sizeof commands);
  if (size > kThreeByteSpan) {
    // read, fast read, page program and 4 KiB sector erase with 4 address bytes
    const uint8_t four_byte[] = {0x13, 0x0C, 0x12, 0x21};
    std::memcpy(config->Commands + 8, four_byte, sizeof four_byte);
  }
  config->Param64 = size;
  config->Param32 = 256;
  return 0;
}

VARNEL_API int SPI_FlashInit(DevHandle handle, uint8_t channel, uint32_t clock_hz,
                             SPI_FLASH_CONFIG* config) {
  return guarded(result::kFailed, [&] {
    if (!config) return kBadArgument;
    SPI_FLASH_CONFIG kept = *config;
    if (kept.Commands[31] == 0) kept.Commands[31] = 1;
    PayloadWriter request;
    request.u8(channel)
        .u32(clock_hz)
        .raw(kept.Commands, 32)
        .u32(uint32_t(kept.Param64 >> 32))
        .u32(uint32_t(kept.Param64))
        .u32(kept.Param32);
    const int r = acknowledged(handle, kFlashInit, request, kDefaultTimeoutMs);
    if (r == 0) keep_flash_description(handle, channel, kept);
    return r;
  });
}

VARNEL_API int SPI_FlashReadID(DevHandle handle, uint8_t channel, uint8_t* id) {
  return guarded(result::kFailed, [&] {
    if (!id) return kBadArgument;
    std::array<uint8_t, VARNEL_SPI_FLASH_ID_SIZE> reply{};
    const auto r =
        transact(handle, kFlashReadId, {&channel, 1}, reply, reply_within(kDefaultTimeoutMs));
    if (r.send_result != 0) return result::kWriteFailed;
    if (r.read_result != 0 || r.reply_length <= 0 || r.reply_length > int32_t(reply.size()))
      return result::kReplyFailed;
    std::memcpy(id, reply.data(), size_t(r.reply_length));
    return 0;
  });
}

namespace {
// A range the kept description cannot address (past the flash, or past 16 MiB with no 4-byte
// command) is refused before it reaches the adapter. Without a kept description the adapter
// judges alone.
bool unaddressable(uint32_t handle, uint8_t channel, FlashOp op, uint64_t address,
                   uint64_t length) {
  SPI_FLASH_CONFIG flash;
  FlashCommand command;
  return flash_description(handle, channel, &flash) &&
         flash_command(flash, op, address, length, &command) != 0;
}
}  // namespace

VARNEL_API int SPI_FlashWrite(DevHandle handle, uint8_t channel, uint32_t address, uint8_t* data,
                              int32_t length) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, length) ||
        unaddressable(handle, channel, FlashOp::kProgram, address, uint64_t(length)))
      return kBadArgument;
    PayloadWriter request;
    request.u8(channel).u32(address).raw(data, size_t(length));
    return acknowledged(handle, kFlashWrite, request);
  });
}

namespace {
int flash_read(uint32_t handle, uint8_t channel, uint32_t command, uint32_t address, uint8_t* out,
               int32_t length) {
  const FlashOp op = command == kFlashRead ? FlashOp::kRead : FlashOp::kFastRead;
  if (bad_buffer(out, length) || unaddressable(handle, channel, op, address, uint64_t(length)))
    return result::kBadArgument;
  PayloadWriter request;
  request.u8(channel).u32(address).u32(uint32_t(length));
  return read_exactly(handle, command, request, {out, size_t(length)});
}
}  // namespace

VARNEL_API int SPI_FlashRead(DevHandle handle, uint8_t channel, uint32_t address, uint8_t* out,
                             int32_t length) {
  return guarded(result::kFailed,
                 [&] { return flash_read(handle, channel, kFlashRead, address, out, length); });
}

VARNEL_API int SPI_FlashReadFast(DevHandle handle, uint8_t channel, uint32_t address, uint8_t* out,
                                 int32_t length) {
  return guarded(result::kFailed,
                 [&] { return flash_read(handle, channel, kFlashReadFast, address, out, length); });
}

VARNEL_API int SPI_FlashEraseSector(DevHandle handle, uint8_t channel, uint32_t address,
                                    int32_t count, int32_t timeout_ms) {
  return guarded(result::kFailed, [&] {
    if (count < 0 || timeout_ms < 0 ||
        unaddressable(handle, channel, FlashOp::kSectorErase, address / kSectorSize * kSectorSize,
                      uint64_t(count) * kSectorSize))
      return kBadArgument;
    PayloadWriter request;
    request.u8(channel).u32(address).u32(uint32_t(count));
    return acknowledged(handle, kFlashEraseSector, request,
                        int(std::min<int64_t>(int64_t(timeout_ms) + 3000, INT32_MAX)));
  });
}

VARNEL_API int SPI_FlashEraseChip(DevHandle handle, uint8_t channel, int32_t timeout_ms) {
  return guarded(result::kFailed, [&] {
    SPI_FLASH_CONFIG flash;
    if (!flash_description(handle, channel, &flash)) return result::kNotInitialised;
    return flash_erase(handle, channel, flash, {flash.Commands[kChipErase]}, timeout_ms);
  });
}

VARNEL_API int SPI_FlashErase(DevHandle handle, uint8_t channel, uint32_t address, int32_t length,
                              int32_t timeout_ms) {
  return guarded(result::kFailed, [&] {
    if (length < 0) return kBadArgument;
    SPI_FLASH_CONFIG flash;
    if (!flash_description(handle, channel, &flash)) return result::kNotInitialised;
    // every 4 KiB sector the range touches, each within the time-out; the whole range is
    // checked before the first erase
    const uint64_t first = address / kSectorSize * kSectorSize;
    const uint64_t end = uint64_t(address) + uint64_t(length);
    FlashCommand erase;
    if (end > first &&
        flash_command(flash, FlashOp::kSectorErase, first,
                      (end - first + kSectorSize - 1) / kSectorSize * kSectorSize, &erase) != 0)
      return kBadArgument;
    for (uint64_t sector = first; sector < end; sector += kSectorSize) {
      const int r =
          flash_erase(handle, channel, flash, erase.with_address(uint32_t(sector)), timeout_ms);
      if (r != 0) return r;
    }
    return 0;
  });
}
