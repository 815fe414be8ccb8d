// UART: configure a channel, send bytes (plain, asynchronous, after a break, paced), read what the
// adapter received, clear and stop. Each call is one transaction under the device lock; the read
// polls, releasing the lock between polls. The library keeps no UART state.
#include <array>
#include <cstdint>
#include <span>

#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/delay.h"
#include "core/result_codes.h"
#include "core/transaction.h"
#include "varnel.h"

namespace varnel::uart {
namespace {

constexpr uint32_t kInit = 0x0A00;
constexpr uint32_t kWrite = 0x0A01;
constexpr uint32_t kWriteAsync = 0x0A02;
constexpr uint32_t kRead = 0x0A03;
constexpr uint32_t kClear = 0x0A04;
constexpr uint32_t kWriteInterval = 0x0A05;
constexpr uint32_t kWriteIntervalUs = 0x0A06;
constexpr uint32_t kWriteWithBreak = 0x0A07;
constexpr uint32_t kWriteAsyncWithBreak = 0x0A08;
constexpr uint32_t kWriteReadWithBreak = 0x0A09;
constexpr uint32_t kStop = 0x0A0A;

// Sending calls wait this long for the adapter's answer; the paced ones longer (see below).
constexpr int kWriteReplyTimeoutMs = 5000;
// A write-read waits its own time-out and this much more.
constexpr int kWriteReadMarginMs = 3000;

bool bad_channel(uint8_t channel) {
  return channel >= VARNEL_UART_MAX_CHANNELS;
}
bool bad_data(const uint8_t* data, int32_t length) {
  return length < 0 || length > VARNEL_UART_MAX_LENGTH || (length > 0 && data == nullptr);
}

// The channel byte, the call's one-byte field when it has one, then the bytes to send.
PayloadWriter request(uint8_t channel, const uint8_t* field = nullptr, const void* data = nullptr,
                      size_t length = 0) {
  PayloadWriter payload;
  payload.u8(channel);
  if (field) payload.u8(*field);
  payload.raw(data, length);
  return payload;
}

int acknowledged(uint32_t handle, uint32_t command, const PayloadWriter& payload,
                 int reply_timeout_ms = kDefaultTimeoutMs) {
  TransactionOptions options;
  options.read_timeout_ms = reply_timeout_ms;
  return transact_ack(handle, command, payload.bytes(), options).acknowledged();
}

int send(uint32_t handle, uint8_t channel, uint32_t command, const uint8_t* data, int32_t length,
         const uint8_t* field = nullptr, int reply_timeout_ms = kWriteReplyTimeoutMs) {
  if (bad_channel(channel) || bad_data(data, length)) return result::kBadArgument;
  return acknowledged(handle, command, request(channel, field, data, size_t(length)),
                      reply_timeout_ms);
}

// One poll: the number of bytes the reply put into `out`, -2 or -4.
int poll_once(uint32_t handle, uint8_t channel, std::span<uint8_t> out) {
  const std::array<uint8_t, 1> payload{channel};
  auto r = transact(handle, kRead, payload, out);
  if (r.send_result != 0) return result::kWriteFailed;
  if (r.read_result != 0 || r.reply_length < 0 || r.reply_length > int32_t(out.size()))
    return result::kReplyFailed;
  return r.reply_length;
}

// The reply time-outs of the paced writes grow with the bytes so that the adapter can finish
// sending before it answers.
int interval_reply_timeout_ms(uint8_t interval_ms, int32_t length) {
  return int(interval_ms) * length + kWriteReplyTimeoutMs;
}
int interval_us_reply_timeout_ms(uint8_t interval_us, int32_t length) {
  return int(interval_us) * length / 1000 + kWriteReplyTimeoutMs;
}

int read(uint32_t handle, uint8_t channel, uint8_t* out, int32_t timeout_ms) {
  const uint64_t start = monotonic_ns();
  const std::span<uint8_t> buffer(out, VARNEL_UART_READ_SIZE);
  for (;;) {
    int got = poll_once(handle, channel, buffer);
    if (got != 0) return got;
    // Ends on the millisecond, as a spin would (a plain sleep would overshoot it).
    wait_for_us(1000);
    if (!(double(timeout_ms) > elapsed_ms_since(start))) return 0;
  }
}

}  // namespace

}  // namespace varnel::uart

using namespace varnel::uart;
using varnel::guarded;
using varnel::result::kBadArgument;
using varnel::result::kFailed;

VARNEL_API int UART_Init(DevHandle handle, uint8_t channel, const UART_CONFIG* config) {
  return guarded(kFailed, [&] {
    if (bad_channel(channel) || !config) return kBadArgument;
    // the record travels as it lies in memory: the firmware reads it
    return acknowledged(handle, kInit, request(channel, nullptr, config, sizeof *config));
  });
}

VARNEL_API int UART_WriteBytes(DevHandle handle, uint8_t channel, const uint8_t* data,
                               int32_t length) {
  return guarded(kFailed, [&] { return send(handle, channel, kWrite, data, length); });
}

VARNEL_API int UART_WriteBytesAsync(DevHandle handle, uint8_t channel, const uint8_t* data,
                                    int32_t length) {
  return guarded(kFailed, [&] { return send(handle, channel, kWriteAsync, data, length); });
}

VARNEL_API int UART_ReadBytes(DevHandle handle, uint8_t channel, uint8_t* data,
                              int32_t timeout_ms) {
  return guarded(kFailed, [&] {
    if (bad_channel(channel) || !data) return kBadArgument;
    return read(handle, channel, data, timeout_ms);
  });
}

VARNEL_API int UART_ClearData(DevHandle handle, uint8_t channel) {
  return guarded(kFailed, [&] {
    if (bad_channel(channel)) return kBadArgument;
    return acknowledged(handle, kClear, request(channel));
  });
}

VARNEL_API int UART_WriteBytesInterval(DevHandle handle, uint8_t channel, const uint8_t* data,
                                       int32_t length, uint8_t interval_ms) {
  return guarded(kFailed, [&] {
    return send(handle, channel, kWriteInterval, data, length, &interval_ms,
                interval_reply_timeout_ms(interval_ms, length));
  });
}

VARNEL_API int UART_WriteBytesIntervalUs(DevHandle handle, uint8_t channel, const uint8_t* data,
                                         int32_t length, uint8_t interval_us) {
  return guarded(kFailed, [&] {
    return send(handle, channel, kWriteIntervalUs, data, length, &interval_us,
                interval_us_reply_timeout_ms(interval_us, length));
  });
}

VARNEL_API int UART_WriteBytesWithBreak(DevHandle handle, uint8_t channel, uint8_t break_bits,
                                        const uint8_t* data, int32_t length) {
  return guarded(kFailed,
                 [&] { return send(handle, channel, kWriteWithBreak, data, length, &break_bits); });
}

VARNEL_API int UART_WriteBytesAsyncWithBreak(DevHandle handle, uint8_t channel, uint8_t break_bits,
                                             const uint8_t* data, int32_t length) {
  return guarded(kFailed, [&] {
    return send(handle, channel, kWriteAsyncWithBreak, data, length, &break_bits);
  });
}

VARNEL_API int UART_WriteReadBytesWithBreak(DevHandle handle, uint8_t channel, uint8_t break_bits,
                                            const uint8_t* write_data, int32_t write_length,
                                            uint8_t* read_data, uint16_t read_length,
                                            uint16_t timeout_ms) {
  return guarded(kFailed, [&] {
    if (bad_channel(channel) || bad_data(write_data, write_length) ||
        (read_length > 0 && !read_data))
      return kBadArgument;
    varnel::PayloadWriter payload;
    payload.u8(channel).u8(break_bits).u16(read_length).u16(timeout_ms);
    payload.raw(write_data, size_t(write_length));  // nothing for a length of 0
    varnel::TransactionOptions options;
    options.read_timeout_ms = int(timeout_ms) + kWriteReadMarginMs;
    auto r = varnel::transact(handle, kWriteReadWithBreak, payload.bytes(),
                              std::span<uint8_t>(read_data, read_length), options);
    if (r.send_result != 0) return varnel::result::kWriteFailed;
    if (r.read_result != 0 || r.reply_length > int32_t(read_length))
      return varnel::result::kReplyFailed;
    return int(r.reply_length);
  });
}

VARNEL_API int UART_Stop(DevHandle handle, uint8_t channel) {
  return guarded(kFailed, [&] {
    if (bad_channel(channel)) return kBadArgument;
    return acknowledged(handle, kStop, request(channel));
  });
}
