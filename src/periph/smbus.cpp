// SMBus: each protocol as an I2C write, read or write-then-read with a 10 ms bus time-out and the
// PEC flag in the event-byte slot; the three block protocols have commands of their own.
#include <array>
#include <cstring>
#include <vector>

#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/result_codes.h"
#include "core/transaction.h"
#include "periph/i2c.h"
#include "varnel.h"

namespace {

using varnel::guarded;
using varnel::result::kBadArgument;
using varnel::result::kFailed;

constexpr uint32_t kTimeoutMs = 10;

bool bad_address(uint16_t address) {
  return address > 0x7F;
}

int write(uint32_t h, uint8_t ch, uint16_t address, std::span<const uint8_t> data, uint8_t pec) {
  if (bad_address(address)) return kBadArgument;
  return varnel::i2c::write(h, ch, address, data, kTimeoutMs, pec);
}

// Reads `N` bytes after writing `data`; `done` gets them only when the adapter delivered them.
template <size_t N, typename Done>
int write_read(uint32_t h, uint8_t ch, uint16_t address, std::span<const uint8_t> data, uint8_t pec,
               Done done) {
  if (bad_address(address)) return kBadArgument;
  std::array<uint8_t, N> in{};
  bool delivered = false;
  int rc = data.empty()
               ? varnel::i2c::read(h, ch, address, in, kTimeoutMs, pec, &delivered)
               : varnel::i2c::write_read(h, ch, address, data, in, kTimeoutMs, pec, &delivered);
  if (delivered) done(in);  // only a status-0 reply delivers
  return rc;
}

// Words go on the bus high byte first and are read back the same way; this is the adapter's
// order, not the SMBus one, and must stay so.
uint16_t word_of(const std::array<uint8_t, 2>& in) {
  return uint16_t(in[0] << 8 | in[1]);
}

// Block commands: channel, address, time-out, command, PEC flag, then the data. The reply is a
// status byte and, for reads, the block; a block beyond what the caller's buffer holds is -4.
int block(uint32_t h, uint8_t ch, uint16_t address, uint32_t command, uint8_t code,
          std::span<const uint8_t> data, uint8_t pec, uint8_t* out, uint32_t* count) {
  if (bad_address(address) || data.size() > VARNEL_SMBUS_BLOCK_MAX) return kBadArgument;
  varnel::PayloadWriter payload;
  payload.u8(ch).u16(address).u32(kTimeoutMs).u8(code).u8(pec).raw(data.data(), data.size());
  std::array<uint8_t, 1 + VARNEL_SMBUS_BLOCK_MAX> reply{};
  varnel::TransactionOptions options;
  options.read_timeout_ms = varnel::i2c::kTransferReplyTimeoutMs;
  auto r = varnel::transact(h, command, payload.bytes(), reply, options);
  if (r.send_result != 0) return varnel::result::kWriteFailed;
  const bool is_read = out != nullptr;
  if (r.read_result != 0 || r.reply_length < 1 || (!is_read && r.reply_length != 1) ||
      size_t(r.reply_length) > reply.size())
    return varnel::result::kReplyFailed;
  uint8_t status = reply[0];
  if (status == 0 && is_read) {
    *count = uint32_t(r.reply_length - 1);
    std::memcpy(out, reply.data() + 1, *count);
  }
  return status;
}

}  // namespace

VARNEL_API int SMBUS_Init(DevHandle h, uint8_t ch, uint32_t clock_hz, uint8_t option) {
  return guarded(kFailed, [&] {
    IIC_CONFIG config{};
    config.ClockSpeedHz = clock_hz;
    config.Master = 1;
    config.AddrBits = 7;
    config.Option1 = option;
    return IIC_Init(h, ch, &config);
  });
}

VARNEL_API int SMBUS_QuickCommand(DevHandle h, uint8_t ch, uint16_t address, uint8_t write_flag) {
  return guarded(kFailed, [&] {
    if (write_flag) return write(h, ch, address, {}, 0);
    return write_read<0>(h, ch, address, {}, 0, [](auto&) {});
  });
}

VARNEL_API int SMBUS_WriteByte(DevHandle h, uint8_t ch, uint16_t address, uint8_t data,
                               uint8_t pec) {
  return guarded(kFailed, [&] {
    std::array<uint8_t, 1> out{data};
    return write(h, ch, address, out, pec);
  });
}

VARNEL_API int SMBUS_ReadByte(DevHandle h, uint8_t ch, uint16_t address, uint8_t* data,
                              uint8_t pec) {
  return guarded(kFailed, [&] {
    if (!data) return kBadArgument;
    return write_read<1>(h, ch, address, {}, pec, [&](auto& in) { *data = in[0]; });
  });
}

VARNEL_API int SMBUS_WriteByteProtocol(DevHandle h, uint8_t ch, uint16_t address, uint8_t code,
                                       uint8_t data, uint8_t pec) {
  return guarded(kFailed, [&] {
    std::array<uint8_t, 2> out{code, data};
    return write(h, ch, address, out, pec);
  });
}

VARNEL_API int SMBUS_WriteWordProtocol(DevHandle h, uint8_t ch, uint16_t address, uint8_t code,
                                       uint16_t data, uint8_t pec) {
  return guarded(kFailed, [&] {
    std::array<uint8_t, 3> out{code, uint8_t(data >> 8), uint8_t(data)};
    return write(h, ch, address, out, pec);
  });
}

VARNEL_API int SMBUS_ReadByteProtocol(DevHandle h, uint8_t ch, uint16_t address, uint8_t code,
                                      uint8_t* data, uint8_t pec) {
  return guarded(kFailed, [&] {
    if (!data) return kBadArgument;
    std::array<uint8_t, 1> out{code};
    return write_read<1>(h, ch, address, out, pec, [&](auto& in) { *data = in[0]; });
  });
}

VARNEL_API int SMBUS_ReadWordProtocol(DevHandle h, uint8_t ch, uint16_t address, uint8_t code,
                                      uint16_t* data, uint8_t pec) {
  return guarded(kFailed, [&] {
    if (!data) return kBadArgument;
    std::array<uint8_t, 1> out{code};
    return write_read<2>(h, ch, address, out, pec, [&](auto& in) { *data = word_of(in); });
  });
}

VARNEL_API int SMBUS_ProcessCall(DevHandle h, uint8_t ch, uint16_t address, uint8_t code,
                                 uint16_t word, uint16_t* result, uint8_t pec) {
  return guarded(kFailed, [&] {
    if (!result) return kBadArgument;
    std::array<uint8_t, 3> out{code, uint8_t(word >> 8), uint8_t(word)};
    return write_read<2>(h, ch, address, out, pec, [&](auto& in) { *result = word_of(in); });
  });
}

VARNEL_API int SMBUS_BlockWrite(DevHandle h, uint8_t ch, uint16_t address, uint8_t code,
                                const uint8_t* data, uint32_t count, uint8_t pec) {
  return guarded(kFailed, [&] {
    if (count > 0 && !data) return kBadArgument;
    if (count > VARNEL_SMBUS_BLOCK_MAX) return kBadArgument;
    return block(h, ch, address, varnel::i2c::kSmbusBlockWrite, code, {data, count}, pec, nullptr,
                 nullptr);
  });
}

VARNEL_API int SMBUS_BlockRead(DevHandle h, uint8_t ch, uint16_t address, uint8_t code,
                               uint8_t* data, uint32_t* count, uint8_t pec) {
  return guarded(kFailed, [&] {
    if (!data || !count) return kBadArgument;
    return block(h, ch, address, varnel::i2c::kSmbusBlockRead, code, {}, pec, data, count);
  });
}

VARNEL_API int SMBUS_BlockProcessCall(DevHandle h, uint8_t ch, uint16_t address, uint8_t code,
                                      const uint8_t* write_data, uint32_t write_count,
                                      uint8_t* read_data, uint32_t* read_count, uint8_t pec) {
  return guarded(kFailed, [&] {
    if ((write_count > 0 && !write_data) || !read_data || !read_count) return kBadArgument;
    if (write_count > VARNEL_SMBUS_BLOCK_MAX) return kBadArgument;
    return block(h, ch, address, varnel::i2c::kSmbusBlockProcessCall, code,
                 {write_data, write_count}, pec, read_data, read_count);
  });
}
