// I2C transactions shared by the exported I2C calls and the SMBus layer built on them.
#pragma once

#include <cstdint>
#include <span>

namespace varnel::i2c {

constexpr uint32_t kInit = 0x0700;
constexpr uint32_t kWrite = 0x0701;
constexpr uint32_t kRead = 0x0702;
constexpr uint32_t kWriteRead = 0x0703;
constexpr uint32_t kSlaveWrite = 0x0704;
constexpr uint32_t kSlaveRead = 0x0705;
constexpr uint32_t kSlaveWriteRemain = 0x0706;
constexpr uint32_t kSmbusBlockWrite = 0x0707;
constexpr uint32_t kSmbusBlockRead = 0x0708;
constexpr uint32_t kSmbusBlockProcessCall = 0x0709;
constexpr uint32_t kWriteOfEvent = 0x070A;
constexpr uint32_t kReadOfEvent = 0x070B;
constexpr uint32_t kWriteReadOfEvent = 0x070C;
constexpr uint32_t kBlockWrite = 0x070D;
constexpr uint32_t kBlockRead = 0x070E;
constexpr uint32_t kSetStretchClock = 0x070F;
constexpr uint32_t kBusReset = 0x0710;

// Master transfers wait this long for the adapter's answer, whatever bus time-out they carry.
constexpr int kTransferReplyTimeoutMs = 5000;

// The transfers of IIC_WriteBytes, IIC_ReadBytes and IIC_WriteReadBytes with an event byte of the
// caller's choice (the SMBus layer puts its PEC flag there). An address above 0x3FF is -7; the
// buffers are the caller's to check.
int write(uint32_t handle, uint8_t channel, uint16_t address, std::span<const uint8_t> data,
          uint32_t timeout_ms, uint8_t event);
// `delivered`, when given, tells whether data came (a status-0 reply may carry none).
int read(uint32_t handle, uint8_t channel, uint16_t address, std::span<uint8_t> out,
         uint32_t timeout_ms, uint8_t event, bool* delivered = nullptr);
int write_read(uint32_t handle, uint8_t channel, uint16_t address, std::span<const uint8_t> data,
               std::span<uint8_t> out, uint32_t timeout_ms, uint8_t event,
               bool* delivered = nullptr);

// Judges the reply of a read of `wanted` bytes: 1 or wanted + 1 bytes, the status first; the data
// go to `out` only on status 0. Returns the status, -2, or -4.
int status_and_data(int send_result, int read_result, int32_t reply_length,
                    std::span<const uint8_t> reply, std::span<uint8_t> out,
                    bool* delivered = nullptr);

}  // namespace varnel::i2c
