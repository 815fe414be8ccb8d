// I2C: master transfers (plain, event-started and in blocks), slave buffers, bus scan. Each call is
// one transaction; the library keeps only a copy of each channel's configuration.
#include "periph/i2c.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <mutex>
#include <vector>

#include "core/adapter_state.h"
#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/result_codes.h"
#include "core/transaction.h"
#include "varnel.h"

namespace varnel::i2c {
namespace {

using result::kBadArgument;

// The last configuration each channel was initialised with; AddrBits 0 = never initialised.
struct StoredConfigs {
  std::mutex mutex;
  std::array<IIC_CONFIG, VARNEL_IIC_MAX_CHANNELS> configs{};
};

uint8_t stored_width(uint32_t handle, uint8_t channel) {
  auto adapter = adapter_table<StoredConfigs>().find(handle);
  if (!adapter) return 0;
  std::lock_guard guard(adapter->mutex);
  const IIC_CONFIG* config = channel_at(adapter->configs, channel);
  return config ? config->AddrBits : 0;
}

void remember(uint32_t handle, uint8_t channel, const IIC_CONFIG& config) {
  auto adapter = adapter_table<StoredConfigs>().find_or_create(handle);
  if (!adapter) return;
  std::lock_guard guard(adapter->mutex);
  if (IIC_CONFIG* slot = channel_at(adapter->configs, channel)) *slot = config;
}

bool bad_buffer(const void* data, int64_t length) {
  return length < 0 || length > VARNEL_IIC_MAX_LENGTH || (length > 0 && data == nullptr);
}
bool bad_address(uint16_t address) {
  return address > 0x3FF;
}

template <typename T>
std::span<T> bytes(T* data, int64_t length) {
  return length > 0 ? std::span<T>(data, size_t(length)) : std::span<T>();
}

// One transfer whose reply is a status byte, followed by the data on status 0.
int status_transaction(uint32_t handle, uint32_t command, std::span<const uint8_t> request,
                       std::span<uint8_t> out, bool* delivered = nullptr) {
  std::vector<uint8_t> reply(out.size() + 1);
  TransactionOptions options;
  options.read_timeout_ms = kTransferReplyTimeoutMs;
  auto r = transact(handle, command, request, reply, options);
  return status_and_data(r.send_result, r.read_result, r.reply_length, reply, out, delivered);
}

int acknowledged(uint32_t handle, uint32_t command, std::span<const uint8_t> request) {
  return transact_ack(handle, command, request).acknowledged();
}

// Slave calls give the adapter the bus time-out and wait 100 ms more for its answer.
int slave_reply_timeout(uint32_t timeout_ms) {
  return int(std::min<int64_t>(int64_t(timeout_ms) + 100, INT_MAX));
}

}  // namespace

int status_and_data(int send_result, int read_result, int32_t reply_length,
                    std::span<const uint8_t> reply, std::span<uint8_t> out, bool* delivered) {
  if (delivered) *delivered = false;
  if (send_result != 0) return result::kWriteFailed;
  if (read_result != 0 || (reply_length != 1 && size_t(reply_length) != out.size() + 1))
    return result::kReplyFailed;
  uint8_t status = reply[0];
  if (status == 0 && reply_length > 1) {
    std::copy_n(reply.begin() + 1, out.size(), out.begin());
    if (delivered) *delivered = true;
  }
  return status;
}

int write(uint32_t handle, uint8_t channel, uint16_t address, std::span<const uint8_t> data,
          uint32_t timeout_ms, uint8_t event) {
  if (bad_address(address)) return kBadArgument;
  PayloadWriter payload;
  payload.u8(channel).u16(address).u32(timeout_ms).u8(event).raw(data.data(), data.size());
  return status_transaction(handle, kWrite, payload.bytes(), {});
}

int read(uint32_t handle, uint8_t channel, uint16_t address, std::span<uint8_t> out,
         uint32_t timeout_ms, uint8_t event, bool* delivered) {
  if (bad_address(address)) return kBadArgument;
  PayloadWriter payload;
  payload.u8(channel).u16(address).u32(uint32_t(out.size())).u32(timeout_ms).u8(event);
  return status_transaction(handle, kRead, payload.bytes(), out, delivered);
}

int write_read(uint32_t handle, uint8_t channel, uint16_t address, std::span<const uint8_t> data,
               std::span<uint8_t> out, uint32_t timeout_ms, uint8_t event, bool* delivered) {
  if (bad_address(address)) return kBadArgument;
  PayloadWriter payload;
  payload.u8(channel).u16(address).u32(timeout_ms).u32(uint32_t(out.size())).u8(event);
  payload.raw(data.data(), data.size());
  return status_transaction(handle, kWriteRead, payload.bytes(), out, delivered);
}

}  // namespace varnel::i2c

using namespace varnel::i2c;
using varnel::guarded;
using varnel::PayloadWriter;
using varnel::result::kBadArgument;
using varnel::result::kFailed;

VARNEL_API int IIC_Init(DevHandle handle, uint8_t channel, const IIC_CONFIG* config) {
  return guarded(kFailed, [&] {
    if (!config) return kBadArgument;
    // The firmware knows 7- and 10-bit addressing only; anything else is sent as 7.
    uint8_t width = config->AddrBits == 10 ? 10 : 7;
    PayloadWriter payload;
    payload.u8(channel).u8(width).u8(config->Master).u16(config->OwnAddr);
    payload.u32(config->ClockSpeedHz).u8(config->Option1).u8(config->Option2);
    int rc = acknowledged(handle, kInit, payload.bytes());
    if (rc == 0) remember(handle, channel, *config);
    return rc;
  });
}

VARNEL_API int IIC_GetSlaveAddr(DevHandle handle, uint8_t channel, uint16_t* addresses) {
  return guarded(kFailed, [&] {
    if (!addresses) return varnel::result::kNotInitialised;
    const uint16_t last = stored_width(handle, channel) == 7 ? 127 : 1023;
    int found = 0;
    for (uint16_t address = 0; address <= last; ++address) {
      const int probe = write(handle, channel, address, {}, 5, 0);
      // A probe the adapter does not answer means the adapter is gone (or silent): every other
      // probe would wait its full time-out too, so the scan ends with that code. A missing
      // acknowledge is the adapter's positive status and just leaves the address out.
      if (probe < 0) return probe;
      if (probe == 0) addresses[found++] = address;
    }
    return found;
  });
}

VARNEL_API int IIC_WriteBytes(DevHandle handle, uint8_t channel, uint16_t address,
                              const uint8_t* data, int32_t length, uint32_t timeout_ms) {
  return guarded(kFailed, [&] {
    if (bad_buffer(data, length)) return kBadArgument;
    return write(handle, channel, address, bytes(data, length), timeout_ms, 0);
  });
}

VARNEL_API int IIC_ReadBytes(DevHandle handle, uint8_t channel, uint16_t address, uint8_t* data,
                             int32_t length, uint32_t timeout_ms) {
  return guarded(kFailed, [&] {
    if (bad_buffer(data, length)) return kBadArgument;
    return read(handle, channel, address, bytes(data, length), timeout_ms, 0);
  });
}

VARNEL_API int IIC_WriteReadBytes(DevHandle handle, uint8_t channel, uint16_t address,
                                  const uint8_t* write_data, int32_t write_length,
                                  uint8_t* read_data, int32_t read_length, uint32_t timeout_ms) {
  return guarded(kFailed, [&] {
    if (bad_buffer(write_data, write_length) || bad_buffer(read_data, read_length))
      return kBadArgument;
    return write_read(handle, channel, address, bytes(write_data, write_length),
                      bytes(read_data, read_length), timeout_ms, 0);
  });
}

VARNEL_API int IIC_SlaveWriteBytes(DevHandle handle, uint8_t channel, const uint8_t* data,
                                   int32_t length, uint32_t timeout_ms) {
  return guarded(kFailed, [&] {
    if (bad_buffer(data, length)) return kBadArgument;
    PayloadWriter payload;
    payload.u8(channel).u32(timeout_ms).raw(data, size_t(length));
    std::array<uint8_t, 2> reply{};
    varnel::TransactionOptions options;
    options.read_timeout_ms = slave_reply_timeout(timeout_ms);
    auto r = varnel::transact(handle, kSlaveWrite, payload.bytes(), reply, options);
    if (int rc = r.expect_length(2)) return rc;
    return reply[0] | reply[1] << 8;  // low byte first
  });
}

VARNEL_API int IIC_SlaveReadBytes(DevHandle handle, uint8_t channel, uint8_t* data,
                                  uint32_t timeout_ms) {
  return guarded(kFailed, [&] {
    if (!data) return kBadArgument;
    PayloadWriter payload;
    payload.u8(channel).u32(timeout_ms);
    varnel::TransactionOptions options;
    options.read_timeout_ms = slave_reply_timeout(timeout_ms);
    auto r = varnel::transact(handle, kSlaveRead, payload.bytes(),
                              std::span<uint8_t>(data, VARNEL_IIC_SLAVE_BUFFER_SIZE), options);
    if (r.send_result != 0) return varnel::result::kWriteFailed;
    if (r.read_result != 0 || r.reply_length > VARNEL_IIC_SLAVE_BUFFER_SIZE)
      return varnel::result::kReplyFailed;
    return std::max(0, int(r.reply_length));
  });
}

VARNEL_API int IIC_SlaveWriteRemain(DevHandle handle, uint8_t channel) {
  return guarded(kFailed, [&] {
    std::array<uint8_t, 1> request{channel};
    std::array<uint8_t, 2> reply{};
    auto r = varnel::transact(handle, kSlaveWriteRemain, request, reply);
    if (int rc = r.expect_length(2)) return rc;
    return reply[0] | reply[1] << 8;
  });
}

VARNEL_API int IIC_WriteBytesOfEvent(DevHandle handle, uint8_t channel, uint16_t address,
                                     const uint8_t* data, int32_t length, uint32_t timeout_ms,
                                     uint8_t event, uint32_t event_wait) {
  return guarded(kFailed, [&] {
    if (bad_buffer(data, length) || bad_address(address)) return kBadArgument;
    PayloadWriter payload;
    payload.u8(channel).u16(address).u32(timeout_ms).u8(event).u32(event_wait);
    payload.raw(data, size_t(length));
    return status_transaction(handle, kWriteOfEvent, payload.bytes(), {});
  });
}

VARNEL_API int IIC_ReadBytesOfEvent(DevHandle handle, uint8_t channel, uint16_t address,
                                    uint8_t* data, int32_t length, uint32_t timeout_ms,
                                    uint8_t event, uint32_t event_wait) {
  return guarded(kFailed, [&] {
    if (bad_buffer(data, length) || bad_address(address)) return kBadArgument;
    PayloadWriter payload;
    payload.u8(channel).u16(address).u32(uint32_t(length)).u32(timeout_ms).u8(event);
    payload.u32(event_wait);
    return status_transaction(handle, kReadOfEvent, payload.bytes(), bytes(data, length));
  });
}

VARNEL_API int IIC_WriteReadBytesOfEvent(DevHandle handle, uint8_t channel, uint16_t address,
                                         const uint8_t* write_data, int32_t write_length,
                                         uint8_t* read_data, int32_t read_length,
                                         uint32_t timeout_ms, uint8_t event, uint32_t event_wait) {
  return guarded(kFailed, [&] {
    if (bad_buffer(write_data, write_length) || bad_buffer(read_data, read_length) ||
        bad_address(address))
      return kBadArgument;
    // Unlike the plain write-read, the read length comes before the time-out here.
    PayloadWriter payload;
    payload.u8(channel).u16(address).u32(uint32_t(read_length)).u32(timeout_ms).u8(event);
    payload.u32(event_wait).raw(write_data, size_t(write_length));
    return status_transaction(handle, kWriteReadOfEvent, payload.bytes(),
                              bytes(read_data, read_length));
  });
}

namespace {

bool bad_blocks(const void* data, int32_t size, int32_t count) {
  return size < 0 || count < 0 || bad_buffer(data, int64_t(size) * int64_t(count));
}

PayloadWriter block_request(uint8_t channel, uint16_t address, int32_t size, int32_t count,
                            uint32_t interval) {
  PayloadWriter payload;
  payload.u8(channel).u16(address).u32(uint32_t(size)).u32(uint32_t(count)).u32(interval);
  return payload;
}

}  // namespace

VARNEL_API int IIC_BlockWriteBytes(DevHandle handle, uint8_t channel, uint16_t address,
                                   const uint8_t* data, int32_t block_size, int32_t block_count,
                                   uint32_t interval) {
  return guarded(kFailed, [&] {
    if (bad_blocks(data, block_size, block_count) || bad_address(address)) return kBadArgument;
    auto payload = block_request(channel, address, block_size, block_count, interval);
    payload.raw(data, size_t(block_size) * size_t(block_count));
    return status_transaction(handle, kBlockWrite, payload.bytes(), {});
  });
}

VARNEL_API int IIC_BlockReadBytes(DevHandle handle, uint8_t channel, uint16_t address,
                                  uint8_t* data, int32_t block_size, int32_t block_count,
                                  uint32_t interval) {
  return guarded(kFailed, [&] {
    if (bad_blocks(data, block_size, block_count) || bad_address(address)) return kBadArgument;
    auto payload = block_request(channel, address, block_size, block_count, interval);
    return status_transaction(handle, kBlockRead, payload.bytes(),
                              bytes(data, int64_t(block_size) * block_count));
  });
}

VARNEL_API int IIC_SetStretchClock(DevHandle handle, uint8_t channel, uint8_t enable) {
  return guarded(kFailed, [&] {
    std::array<uint8_t, 2> request{channel, enable};
    return acknowledged(handle, kSetStretchClock, request);
  });
}

VARNEL_API int IIC_BusReset(DevHandle handle, uint8_t channel) {
  return guarded(kFailed, [&] {
    std::array<uint8_t, 1> request{channel};
    return acknowledged(handle, kBusReset, request);
  });
}
