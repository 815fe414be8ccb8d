// LIN channel set-up and housekeeping: init and stop, the slave table and what a slave received,
// the host message buffer, power output, battery voltage, bus-state pin and start time.
#include <algorithm>
#include <cstring>
#include <vector>

#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/device.h"
#include "core/result_codes.h"
#include "lin/lin_calls.h"
#include "lin/lin_records.h"
#include "lin/lin_state.h"

using namespace varnel;
using namespace varnel::lin;

namespace varnel::lin {

std::vector<uint8_t> with_records(uint8_t channel, std::span<const LIN_EX_MSG> records) {
  std::vector<uint8_t> payload(1 + records.size_bytes());
  payload[0] = channel;
  if (!records.empty()) std::memcpy(&payload[1], records.data(), records.size_bytes());
  return payload;
}

std::span<uint8_t> as_bytes(LIN_EX_MSG* records, size_t count) {
  return {reinterpret_cast<uint8_t*>(records), count * sizeof(LIN_EX_MSG)};
}

TransactionOptions within(int read_timeout_ms) {
  TransactionOptions options;
  options.read_timeout_ms = read_timeout_ms;
  return options;
}

int acknowledged(uint32_t handle, uint32_t command, std::span<const uint8_t> request) {
  return transact_ack(handle, command, request).acknowledged();
}

int read_records(uint32_t handle, uint32_t command, uint8_t channel, LIN_EX_MSG* out,
                 uint32_t max) {
  // Read aside, so that a failed or overlong reply leaves the caller's records alone; every
  // caller asks for at most one fetch's worth, so the stack holds it.
  LIN_EX_MSG records[VARNEL_LIN_FETCH_SIZE];
  max = std::min<uint32_t>(max, VARNEL_LIN_FETCH_SIZE);
  const auto r = transact(handle, command, {&channel, 1}, as_bytes(records, max));
  if (r.send_result != 0) return result::kWriteFailed;
  if (r.read_result != 0 || r.reply_length < 0) return result::kReplyFailed;
  const uint32_t n = uint32_t(r.reply_length) / sizeof(LIN_EX_MSG);
  if (n > max) return 0;
  std::copy_n(records, n, out);
  return int(n);
}

}  // namespace varnel::lin

namespace {

constexpr uint32_t kBaudFloor = 100;  // below it the adapter is given 9600
constexpr uint32_t kDefaultBaud = 9600;
constexpr int kSlaveTableScratch = VARNEL_LIN_SLAVE_TABLE_SIZE;

int init(uint32_t handle, uint8_t ch, uint32_t baud, const PayloadWriter& request) {
  const ChannelRef channel = channel_of(handle, ch);
  if (!channel) return result::kBadArgument;
  if (int r = acknowledged(handle, kInit, request.bytes()); r != 0) return r;
  channel->baud = baud;
  channel->initialised = true;
  LIN_EX_ResetStartTime(handle, ch);
  return 0;
}

uint32_t substituted(uint32_t baud) {
  return baud < kBaudFloor ? kDefaultBaud : baud;
}

// The slave table entry or entries for a response, with their checksums.
LIN_EX_MSG slave_record(uint8_t type, uint8_t id, const uint8_t* data, uint8_t length,
                        uint8_t check_type) {
  LIN_EX_MSG msg{};
  msg.MsgType = type;
  msg.CheckType = check_type;
  msg.DataLen = length;
  msg.PID = id;
  if (length) std::memcpy(msg.Data, data, length);
  prepare(msg, Outgoing::kSlaveTable, 0);
  return msg;
}

// The adapter's kind decides which GPIO pin carries a channel's bus state.
int bus_state_pin(uint32_t handle, uint8_t ch) {
  const uint32_t top = handle >> 24;
  uint32_t mask;
  if (top == 0x11 || top == 0x21 || top == 0x31 || top == 0x46 || top == 0x54 || top == 0x55)
    mask = 1u << ch;
  else if (top >= 0x41 && top <= 0x45)
    mask = 1u << (ch + 6);
  else if (top == 0x53)
    mask = 1u << (ch + 1);
  else
    return 0;
  return mask & 0xFF;  // the pin mask is 8 bits wide
}

}  // namespace

VARNEL_API int LIN_EX_Init(DevHandle handle, uint8_t ch, uint32_t baud, uint8_t master) {
  return guarded(result::kFailed, [&] {
    baud = substituted(baud);
    PayloadWriter request;
    request.u8(ch).u32(baud).u8(master);
    return init(handle, ch, baud, request);
  });
}

VARNEL_API int LIN_EX_Init2(DevHandle handle, uint8_t ch, uint32_t baud, uint8_t master, uint32_t a,
                            uint32_t b, uint32_t c) {
  return guarded(result::kFailed, [&] {
    baud = substituted(baud);
    PayloadWriter request;
    request.u8(ch).u32(baud).u8(master).u32(a).u32(c).u32(b);  // the adapter takes C before B
    return init(handle, ch, baud, request);
  });
}

VARNEL_API int LIN_EX_Stop(DevHandle handle, uint8_t ch) {
  return guarded(result::kFailed, [&] {
    const ChannelRef channel = channel_of(handle, ch);
    if (!channel) return result::kBadArgument;
    const int r = acknowledged(handle, kStop, {&ch, 1});
    if (r == 0) channel->initialised = false;
    return r;
  });
}

VARNEL_API int LIN_EX_SlaveSetIDMode(DevHandle handle, uint8_t ch, LIN_EX_MSG* records,
                                     uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (!records || count == 0) return result::kBadArgument;
    std::vector<LIN_EX_MSG> table(records, records + count);
    for (auto& msg : table) prepare(msg, Outgoing::kSlaveTable, 0);
    return acknowledged(handle, kSlaveSetTable, with_records(ch, table));
  });
}

VARNEL_API int LIN_EX_SlaveGetIDMode(DevHandle handle, uint8_t ch, LIN_EX_MSG* records) {
  return guarded(result::kFailed, [&] {
    if (!records) return result::kBadArgument;
    return read_records(handle, kSlaveGetTable, ch, records, VARNEL_LIN_SLAVE_TABLE_SIZE);
  });
}

VARNEL_API int LIN_EX_SetSlaveRespData(DevHandle handle, uint8_t ch, uint8_t id, uint8_t per_frame,
                                       uint8_t* data, uint32_t length, uint8_t check_type,
                                       int32_t mode) {
  return guarded(result::kFailed, [&] {
    const ChannelRef channel = channel_of(handle, ch);
    if (!channel) return result::kBadArgument;
    if (!channel->initialised) return result::kNotInitialised;
    if ((!data && length > 0) || per_frame == 0 || per_frame > 8) return result::kBadArgument;
    LIN_EX_MSG table[kSlaveTableScratch];
    const int entries = LIN_EX_SlaveGetIDMode(handle, ch, table);
    if (entries < 0) return entries;
    if (entries == 0) return result::kReplyFailed;
    if (length <= per_frame && (mode == 1 || mode == -1)) {
      LIN_EX_MSG one = slave_record(mode == 1 ? 0x83 : LIN_EX_MSG_TYPE_SW, id, data,
                                    uint8_t(length), check_type);
      return LIN_EX_SlaveSetIDMode(handle, ch, &one, 1);
    }
    std::vector<LIN_EX_MSG> records;
    for (uint32_t at = 0; at < length; at += per_frame) {
      // A last piece that does not fill a frame gets the length at % per_frame, which is 0:
      // the adapter's own tools send it that way, and so does this call.
      const uint8_t n = at + per_frame <= length ? per_frame : uint8_t(at % per_frame);
      records.push_back(slave_record(LIN_EX_MSG_TYPE_SW, id, data + at, n, check_type));
    }
    PayloadWriter request;
    request.u8(ch).u8(protected_id(id)).u32(uint32_t(mode));
    request.raw(records.data(), records.size() * sizeof(LIN_EX_MSG));
    return acknowledged(handle, kSlaveResponseData, request.bytes());
  });
}

VARNEL_API int LIN_EX_StopSlaveResp(DevHandle handle, uint8_t ch, uint8_t id) {
  return guarded(result::kFailed, [&] {
    const uint8_t request[2] = {ch, protected_id(id)};
    return acknowledged(handle, kSlaveResponseStop, request);
  });
}

VARNEL_API int LIN_EX_SlaveGetData(DevHandle handle, uint8_t ch, LIN_EX_MSG* records) {
  return guarded(result::kFailed, [&] {
    if (!records) return result::kBadArgument;
    const int n = read_records(handle, kSlaveFetch, ch, records, VARNEL_LIN_FETCH_SIZE);
    for (int i = 0; i < n; ++i) judge_received(records[i]);
    return n;
  });
}

VARNEL_API int LIN_EX_GetMsg(DevHandle handle, uint8_t ch, LIN_EX_MSG* records, int32_t max) {
  return guarded(result::kFailed, [&] {
    const ChannelRef channel = channel_of(handle, ch);
    if (!channel || !records || max < 0) return result::kBadArgument;
    LIN_EX_MSG fetched[VARNEL_LIN_FETCH_SIZE];  // one fetch's worth, left unset: no allocation
    const int n = LIN_EX_SlaveGetData(handle, ch, fetched);
    std::lock_guard guard(channel->buffer_mutex);
    if (n > 0) channel->buffer.append(fetched, size_t(n));
    return int(channel->buffer.take(records, size_t(max)));
  });
}

VARNEL_API int LIN_EX_CtrlPowerOut(DevHandle handle, uint8_t ch, uint8_t level) {
  return guarded(result::kFailed, [&] {
    const ChannelRef channel = channel_of(handle, ch);
    if (!channel) return result::kBadArgument;
    // the adapter's codes: 1 for 12 V (and anything above), 2 for 5 V, 0 off
    const uint8_t code = level == 5 ? 2 : level >= 12 ? 1 : level;
    const uint8_t request[2] = {code, ch};
    const int r = acknowledged(handle, kPowerOut, request);
    if (r == 0) channel->power = level;
    return r;
  });
}

VARNEL_API int LIN_EX_GetVbatValue(DevHandle handle, uint16_t* value) {
  return guarded(result::kFailed, [&] {
    if (!value) return result::kBadArgument;
    uint8_t reply[2];
    const int r = transact(handle, kBatteryVoltage, {}, reply).expect_length(2);
    if (r == 0) *value = uint16_t(reply[0] << 8 | reply[1]);
    return r;
  });
}

VARNEL_API int LIN_EX_SetBusState(DevHandle handle, uint8_t ch, uint8_t state) {
  return guarded(result::kFailed, [&] {
    const int pin = ch < kChannels ? bus_state_pin(handle, ch) : 0;
    if (pin == 0) return result::kBadArgument;
    return GPIO_Write(handle, uint32_t(pin), state ? 0xFFFF : 0);
  });
}

VARNEL_API int LIN_EX_ResetStartTime(DevHandle handle, uint8_t ch) {
  return guarded(result::kFailed, [&] {
    if (ch >= kChannels) return result::kBadArgument;
    const ChannelRef channel = channel_of(handle, ch);
    if (!channel) return result::kReplyFailed;
    channel->start_time = read_start_time(handle);
    return 0;
  });
}

VARNEL_API int LIN_EX_SetStartTime(DevHandle handle, uint8_t ch, uint64_t start_time) {
  return guarded(result::kFailed, [&] {
    if (ch >= kChannels) return result::kBadArgument;
    const ChannelRef channel = channel_of(handle, ch);
    if (!channel) return result::kReplyFailed;
    channel->start_time = start_time;
    return 0;
  });
}

VARNEL_API int64_t LIN_EX_GetStartTime(DevHandle handle, uint8_t ch) {
  return guarded(int64_t(result::kFailed), [&]() -> int64_t {
    const ChannelRef channel = channel_of(handle, ch);
    return channel ? int64_t(channel->start_time.load()) : result::kBadArgument;
  });
}
