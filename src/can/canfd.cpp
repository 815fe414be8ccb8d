// The CAN FD channel of adapters whose handle has the top nibble 0x5: init, the chunked send
// with completion polls, the receive poller over the device record format, stop and start times.
#include <algorithm>
#include <cstring>
#include <vector>

#include "can/can_bitrate.h"
#include "can/can_internal.h"
#include "core/bytes.h"
#include "core/clock.h"
#include "core/delay.h"
#include "core/result_codes.h"
#include "core/transaction.h"

using namespace varnel;
using namespace varnel::can;

namespace varnel::can {

FdRates fd_rates(uint32_t handle, FdChannel& state) {
  std::lock_guard guard(state.init_mutex);
  FdRates rates;
  if (!state.initialised) return rates;
  const uint32_t clock = fd_controller_clock(handle);
  const CANFD_INIT_CONFIG& c = state.init;
  if (c.NomPrescaler)
    rates.nominal = clock / (uint32_t(c.NomSeg2 + 1 + c.NomSeg1) * c.NomPrescaler);
  if (c.DataPrescaler)
    rates.data = clock / (uint32_t(c.DataSeg2 + 1 + c.DataSeg1) * c.DataPrescaler);
  return rates;
}

int fd_poller_step(uint32_t handle, uint8_t channel) {
  const CanState adapter = can_adapter(handle, channel);
  if (!adapter) return result::kUnknownHandle;
  thread_local std::vector<uint8_t> area(kFdFetchBytes);
  thread_local std::vector<CANFD_MSG> records(kFdFetchLimit);
  FdChannel& state = adapter->fd[channel];
  DeviceLockGuard fetching(handle);  // as the classic step: fetches queue in the order they ran
  const auto r = transact(handle, kFdFetch, {&channel, 1}, area);
  if (r.send_result != 0 || r.read_result != 0) {
    fd_pollers().clear(handle, channel);
    return r.send_result != 0 ? result::kWriteFailed : result::kReplyFailed;
  }
  const size_t stored = std::min<size_t>(size_t(std::max(0, r.reply_length)), area.size());
  const size_t n =
      decode_fd_records({area.data(), stored}, channel, records.data(), records.size());
  DataLock lock(handle, channel);
  state.application.append(records.data(), n);
  state.diagnostic.append(records.data(), n);
  return 0;
}

Pollers& fd_pollers() {
  static Pollers pollers(kChannels, fd_poller_step);
  return pollers;
}

}  // namespace varnel::can

namespace {

// Waits for the device to put the chunk on the bus. Returns the frames of the chunk that went
// out, or -2/-4; `expired` tells that the time-out ran out (the frames then are those the
// abort command confirms).
int await_chunk(uint32_t handle, uint8_t channel, uint64_t start_ns, double limit_ms,
                bool& expired) {
  uint8_t state[4] = {};
  for (;;) {
    const auto r = transact(handle, kFdSendPoll, {&channel, 1}, state);
    if (r.send_result != 0) return result::kWriteFailed;
    if (r.read_result != 0 || r.reply_length != 4) return result::kReplyFailed;
    if (state[3] != 0 || state[2] >= state[0]) return state[2];
    if (elapsed_ms_since(start_ns) >= limit_ms) break;
  }
  expired = true;
  thread_local std::vector<uint8_t> confirmed(kFdChunk * 12);
  const auto r = transact(handle, kFdSendAbort, {&channel, 1}, confirmed);
  if (r.send_result != 0) return result::kWriteFailed;
  if (r.read_result != 0) return result::kReplyFailed;
  return r.reply_length / 12;
}

}  // namespace

VARNEL_API int CANFD_GetCANSpeedArg(DevHandle handle, CANFD_INIT_CONFIG* config, uint32_t nominal,
                                    uint32_t data) {
  if (!config) return result::kBadArgument;
  return fd_speed_arg(handle, nominal, data, *config);
}

VARNEL_API int CANFD_Init(DevHandle handle, uint8_t channel, CANFD_INIT_CONFIG* config) {
  return guarded(result::kFailed, [&] {
    if (!config) return result::kBadArgument;
    const uint8_t ch = channel & 1;
    uint8_t payload[1 + sizeof(CANFD_INIT_CONFIG)];
    payload[0] = ch;
    std::memcpy(payload + 1, config, sizeof(CANFD_INIT_CONFIG));
    const int r = transact(handle, kFdInit, payload, {}).acknowledged();
    if (r != 0) return r;
    if (const CanState adapter = can_adapter(handle, ch)) {
      FdChannel& state = adapter->fd[ch];
      {
        std::lock_guard guard(state.init_mutex);
        state.init = *config;
        state.initialised = true;
      }
      if (state.start_time == 0) state.start_time = read_start_time(handle);
      fd_pollers().clear(handle, ch);
    }
    return 0;
  });
}

VARNEL_API int CANFD_Init2(DevHandle handle, uint8_t channel, uint32_t nominal, uint32_t data,
                           uint8_t device_option, uint8_t option) {
  CANFD_INIT_CONFIG config{};
  const int r = CANFD_GetCANSpeedArg(handle, &config, nominal, data);
  if (r != 0) return r;
  config.DeviceOption = device_option;
  config.Option = option;
  return CANFD_Init(handle, channel, &config);
}

namespace {

// One chunk's payload: the channel byte, then each record in the device's form with its index
// in the chunk. A record with more than 8 data bytes can only go as a CAN FD frame, so its
// format flag is set on the record itself. `on_record` sees each record as it went.
template <typename OnRecord>
size_t pack_fd_chunk(uint8_t channel, CANFD_MSG* records, size_t n, std::vector<uint8_t>& payload,
                     OnRecord on_record) {
  payload[0] = channel;
  size_t size = 1;
  for (size_t i = 0; i < n; ++i) {
    if (records[i].DataLen > 8) records[i].Flags |= 0x04;
    size += encode_fd_record(records[i], uint8_t(i), payload.data() + size);
    on_record(records[i]);
  }
  return size;
}

}  // namespace

VARNEL_API int CANFD_SendMsgTimeout(DevHandle handle, uint8_t channel, CANFD_MSG* msgs,
                                    uint32_t count, uint32_t timeout_ms) {
  return guarded(result::kFailed, [&] {
    const CanState adapter = can_adapter(handle, channel);
    if (!adapter) return result::kFailed;
    const FdRates rates = fd_rates(handle, adapter->fd[channel]);
    if (count == 0) return 0;
    if (!msgs) return result::kBadArgument;
    thread_local std::vector<uint8_t> payload(1 + kFdChunk * sizeof(CANFD_MSG));
    int sent = 0;
    for (uint32_t at = 0; at < count;) {
      const size_t n = std::min<size_t>(kFdChunk, count - at);
      uint64_t us = 0;
      const size_t size = pack_fd_chunk(channel, msgs + at, n, payload, [&](const CANFD_MSG& msg) {
        us += fd_frame_time_us(msg, rates.nominal, rates.data);
      });
      TransactionOptions options;
      options.lock = {TransactionLock::Kind::kCanChannel, channel};
      options.endpoint_flag = 0;
      uint8_t accepted[4] = {};
      const uint64_t start = monotonic_ns();
      const auto r = send_transaction(handle, kFdSend, {payload.data(), size}, accepted, options);
      if (r.send_result != 0) return result::kWriteFailed;
      if (r.read_result != 0) return result::kReplyFailed;
      if (us > 1000) wait_for_us(us);
      bool expired = false;
      const int done = await_chunk(handle, channel, start,
                                   std::max<double>(timeout_ms, double(us) / 1000.0), expired);
      if (done < 0) return done;
      sent += done;
      if (expired) return sent;
      at += uint32_t(n);
    }
    return sent;
  });
}

VARNEL_API int CANFD_SendMsg(DevHandle handle, uint8_t channel, CANFD_MSG* msgs, uint32_t count) {
  uint64_t timeout = 1000;
  if (msgs)
    for (uint32_t i = 0; i < count; ++i) timeout += msgs[i].TimeStamp;
  return CANFD_SendMsgTimeout(handle, channel, msgs, count,
                              uint32_t(std::min<uint64_t>(timeout, UINT32_MAX)));
}

VARNEL_API int CANFD_SendMsgWithTime(DevHandle handle, uint8_t channel, CANFD_MSG* msgs,
                                     uint32_t count) {
  return guarded(result::kReplyFailed, [&] {
    if (count == 0) return 0;
    if (!msgs) return result::kBadArgument;
    if (!can_adapter(handle, channel)) return result::kReplyFailed;
    thread_local std::vector<uint8_t> payload(1 + kFdChunk * sizeof(CANFD_MSG));
    int total = 0;
    for (uint32_t at = 0; at < count;) {
      const size_t n = std::min<size_t>(kFdChunk, count - at);
      // the caller's records stay as they are; word 2 of each device record carries its gap
      thread_local std::vector<CANFD_MSG> copies(kFdChunk);
      std::copy_n(msgs + at, n, copies.begin());
      uint64_t gaps_us = 0;
      const size_t size = pack_fd_chunk(channel, copies.data(), n, payload,
                                        [&](const CANFD_MSG& msg) { gaps_us += msg.TimeStamp; });
      TransactionOptions options;
      options.lock = {TransactionLock::Kind::kCanChannel, channel};
      options.endpoint_flag = 0;
      options.read_timeout_ms = int(kDefaultTimeoutMs + gaps_us / 1000);
      uint8_t accepted[4] = {};
      const auto r =
          send_transaction(handle, kFdSendTimed, {payload.data(), size}, accepted, options);
      if (r.send_result != 0) return result::kWriteFailed;
      if (r.read_result != 0 || r.reply_length != 4) return result::kReplyFailed;
      total += int(get_be32(accepted));
      at += uint32_t(n);
    }
    return total;
  });
}

VARNEL_API int CANFD_GetMsg(DevHandle handle, uint8_t channel, CANFD_MSG* out, int32_t capacity) {
  return guarded(result::kFailed, [&] {
    if (!out || capacity < 0) return result::kBadArgument;
    const CanState adapter = can_adapter(handle, channel);
    if (!adapter) return result::kReplyFailed;
    FdChannel& state = adapter->fd[channel];
    if (!fd_pollers().polled(handle, channel)) {
      const int r = fd_poller_step(handle, channel);
      if (r < 0) return r;
    }
    DataLock lock(handle, channel);
    return int(state.application.take(out, size_t(capacity)));
  });
}

VARNEL_API int CANFD_ClearMsg(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    const CanState adapter = can_adapter(handle, channel);
    if (!adapter) return result::kFailed;
    FdChannel& state = adapter->fd[channel];
    // pull first, so frames waiting in the device are dropped with the queue
    if (!fd_pollers().polled(handle, channel)) fd_poller_step(handle, channel);
    DataLock lock(handle, channel);
    state.application.clear();
    return 0;
  });
}

VARNEL_API int CANFD_StartGetMsg(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    if (!can_adapter(handle, channel)) return result::kReplyFailed;
    DataLock lock(handle, channel);
    return fd_pollers().start(handle, channel);
  });
}

VARNEL_API int CANFD_StopGetMsg(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    // a handle that is gone may still have a poller to stop
    if (channel >= kChannels) return result::kReplyFailed;
    return fd_pollers().stop(handle, channel) ? result::kOk : result::kReplyFailed;
  });
}

VARNEL_API int CANFD_Stop(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    if (channel < kChannels) fd_pollers().stop(handle, channel);
    const int r = transact(handle, kFdStop, {&channel, 1}, {}).acknowledged();
    if (r != 0) return r;
    CANFD_ClearMsg(handle, channel);
    return 0;
  });
}

VARNEL_API int64_t CANFD_GetStartTime(DevHandle handle, uint8_t channel) {
  const CanState adapter = can_adapter(handle, channel);
  if (!adapter) return result::kFailed;
  return int64_t(adapter->fd[channel].start_time.load());
}

VARNEL_API int CANFD_ResetStartTime(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    const CanState adapter = can_adapter(handle, channel);
    if (!adapter) return result::kFailed;
    adapter->fd[channel].start_time = read_start_time(handle);
    return 0;
  });
}

VARNEL_API int CANFD_SetStartTime(DevHandle handle, uint8_t channel, uint64_t start_time) {
  const CanState adapter = can_adapter(handle, channel);
  if (!adapter) return result::kFailed;
  adapter->fd[channel].start_time = start_time;
  return 0;
}
