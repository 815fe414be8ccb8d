// The classic CAN channel: init, send paths, status, stop and start times. On adapters with a
// CAN FD controller every call is carried out by the CAN FD calls with the records converted.
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

namespace {

TransactionOptions send_lock(uint8_t channel, int read_timeout_ms) {
  TransactionOptions options;
  options.read_timeout_ms = read_timeout_ms;
  options.lock = {TransactionLock::Kind::kCanChannel, channel};
  return options;
}

// The copy that goes out: time stamp 0, remote bit only, 29-bit identifier forced when the
// identifier does not fit 11 bits.
CAN_MSG outgoing_copy(const CAN_MSG& msg, uint8_t remote) {
  CAN_MSG copy = msg;
  copy.TimeStamp = 0;
  copy.Flags = remote;
  copy.Extended = needs_extended(msg) ? 1 : 0;
  return copy;
}

// Prepares one chunk as CAN_SendMsg does: the caller's Flags get the direction bit and the
// channel, the copies go to `out`. Returns the chunk's bus time in microseconds.
uint64_t prepare_chunk(CAN_MSG* msgs, size_t n, uint8_t channel, uint32_t bitrate, uint8_t* out) {
  uint64_t us = 0;
  for (size_t i = 0; i < n; ++i) {
    CAN_MSG& msg = msgs[i];
    us += frame_time_us(msg, bitrate);
    const uint8_t remote = msg.Flags & 1;
    msg.Flags = uint8_t(remote | ((channel & 3) << 5) | 0x80);
    const CAN_MSG copy = outgoing_copy(msg, remote);
    std::memcpy(out + i * sizeof(CAN_MSG), &copy, sizeof(CAN_MSG));
  }
  return us;
}

std::vector<CANFD_MSG>& fd_scratch(size_t n) {
  thread_local std::vector<CANFD_MSG> scratch;
  if (scratch.size() < n) scratch.resize(n);
  return scratch;
}

// CAN FD adapters: converts, sends through CANFD_SendMsg and marks the records that went out.
int send_through_fd(uint32_t handle, uint8_t channel, CAN_MSG* msgs, uint32_t count) {
  auto& fd = fd_scratch(count);
  for (uint32_t i = 0; i < count; ++i) {
    fd[i] = to_canfd(msgs[i]);
    fd[i].Flags = 0;
    fd[i].TimeStamp = 0;
    fd[i].TimeStampHigh = 0;
  }
  const int sent = CANFD_SendMsg(handle, channel, fd.data(), count);
  for (int i = 0; i < sent && uint32_t(i) < count; ++i)
    msgs[i].Flags = uint8_t((msgs[i].Flags & 1) | ((channel & 3) << 5) | 0x80);
  return sent;
}

// CAN FD adapters: the timed CAN FD send. The gaps stay microseconds: they are no time stamps,
// so the tenfold scaling of the conversion does not apply to them.
int send_timed_through_fd(uint32_t handle, uint8_t channel, const CAN_MSG* msgs, uint32_t count) {
  auto& fd = fd_scratch(count);
  for (uint32_t i = 0; i < count; ++i) {
    fd[i] = to_canfd(msgs[i]);
    fd[i].Flags = 0;
    fd[i].DataLen = std::min<uint8_t>(msgs[i].DataLen, 8);
    fd[i].TimeStamp = msgs[i].TimeStamp;
    fd[i].TimeStampHigh = 0;
  }
  return CANFD_SendMsgWithTime(handle, channel, fd.data(), count);
}

// Sends `count` records as chunks of 500 behind a channel byte; the device answers each chunk with
// the number it accepted. fill(at, n, out) writes records at..at+n-1 and returns the time they
// keep the bus busy in microseconds, which stretches the reply time-out.
template <typename FillChunk>
int send_in_chunks(uint32_t handle, uint8_t channel, uint32_t command, uint32_t count,
                   FillChunk fill) {
  thread_local std::vector<uint8_t> payload(1 + kClassicChunk * sizeof(CAN_MSG));
  int total = 0;
  for (uint32_t at = 0; at < count;) {
    const size_t n = std::min<size_t>(kClassicChunk, count - at);
    payload[0] = channel;
    const uint64_t busy_us = fill(at, n, payload.data() + 1);
    uint8_t reply[4] = {};
    const auto r =
        send_transaction(handle, command, {payload.data(), 1 + n * sizeof(CAN_MSG)}, reply,
                         send_lock(channel, int(kDefaultTimeoutMs + busy_us / 1000)));
    if (r.send_result != 0) return result::kWriteFailed;
    if (r.read_result != 0 || r.reply_length != 4) return result::kReplyFailed;
    total += int(get_be32(reply));
    at += uint32_t(n);
  }
  return total;
}

int send_classic(uint32_t handle, uint8_t channel, CAN_MSG* msgs, uint32_t count) {
  const CanState adapter = can_adapter(handle, channel);
  if (!adapter) return result::kFailed;
  const uint32_t bitrate = adapter->classic[channel].bitrate;
  return send_in_chunks(handle, channel, kCanSend, count, [&](uint32_t at, size_t n, uint8_t* out) {
    return prepare_chunk(msgs + at, n, channel, bitrate, out);
  });
}

int send_timed_classic(uint32_t handle, uint8_t channel, const CAN_MSG* msgs, uint32_t count) {
  if (!can_adapter(handle, channel)) return result::kFailed;
  return send_in_chunks(handle, channel, kCanSendTimed, count,
                        [&](uint32_t at, size_t n, uint8_t* out) {
                          uint64_t gaps_us = 0;
                          for (size_t i = 0; i < n; ++i) {
                            const CAN_MSG& msg = msgs[at + i];
                            CAN_MSG copy = outgoing_copy(msg, msg.Flags & 1);
                            copy.TimeStamp = msg.TimeStamp;  // the gap kept after it, in us
                            copy.DataLen = std::min<uint8_t>(msg.DataLen, 8);
                            gaps_us += msg.TimeStamp;
                            std::memcpy(out + i * sizeof(CAN_MSG), &copy, sizeof(CAN_MSG));
                          }
                          return gaps_us;
                        });
}

int send_synch_classic(uint32_t handle, uint8_t channel, CAN_MSG* msgs, uint32_t count) {
  const CanState adapter = can_adapter(handle, channel);
  if (!adapter) return result::kFailed;
  const uint32_t bitrate = adapter->classic[channel].bitrate;
  thread_local std::vector<uint8_t> payload(12 + kSynchChunk * sizeof(CAN_MSG));
  int total = 0;
  for (uint32_t at = 0; at < count;) {
    const size_t n = std::min<size_t>(kSynchChunk, count - at);
    std::fill(payload.begin(), payload.begin() + 12, 0);
    payload[10] = channel;
    payload[11] = uint8_t(n);
    const uint64_t us = prepare_chunk(msgs + at, n, channel, bitrate, payload.data() + 12);
    // the frames ride on the second OUT endpoint
    auto options = send_lock(channel, kDefaultTimeoutMs);
    options.endpoint_flag = 1;
    uint8_t accepted[4] = {};
    const auto r = send_transaction(handle, kCanSendSynch,
                                    {payload.data(), 12 + n * sizeof(CAN_MSG)}, accepted, options);
    if (r.send_result != 0) return result::kWriteFailed;
    if (r.read_result != 0) return result::kReplyFailed;
    const uint64_t start = monotonic_ns();
    if (us > 5000) wait_for_us(us);
    uint8_t state[4] = {};
    for (;;) {
      const auto poll = transact(handle, kCanSynchPoll, {&channel, 1}, state);
      if (poll.send_result != 0) return result::kWriteFailed;
      if (poll.read_result != 0 || poll.reply_length != 4) return result::kReplyFailed;
      if (state[3] != 0) return state[2];  // the device gave up on this chunk
      if (state[2] >= state[0] || elapsed_ms_since(start) >= kDefaultTimeoutMs + us / 1000.0) break;
    }
    total += state[2];
    at += uint32_t(n);
  }
  return total;
}

void store_bitrate(ClassicChannel& state, uint32_t clock, const CAN_INIT_CONFIG& config) {
  const uint64_t quanta = uint64_t(config.Bs2 + 1 + config.Bs1) * config.Prescaler;
  state.bitrate = quanta ? uint32_t(clock / quanta) : 0;
}

int init_through_fd(uint32_t handle, uint8_t channel, const CAN_INIT_CONFIG& config) {
  CANFD_INIT_CONFIG fd{};
  fd.Mode = config.Mode & 3;
  fd.Option = 0;
  fd.FrameFormat = 3;
  fd.DeviceOption = (config.Mode >> 7) & 1;
  fd.NomPrescaler = fd.DataPrescaler = uint8_t(config.Prescaler);
  fd.NomSeg1 = fd.DataSeg1 = config.Bs1;
  fd.NomSeg2 = fd.DataSeg2 = config.Bs2;
  fd.NomSjw = fd.DataSjw = config.Sjw;
  const int r = CANFD_Init(handle, channel, &fd);
  if (r != 0) return r;
  CANFD_ResetStartTime(handle, channel);
  if (const CanState adapter = can_adapter(handle, channel & 1)) {
    const uint8_t top = uint8_t(handle >> 24);
    store_bitrate(adapter->classic[channel & 1],
                  (top == 0x53 || top == 0x54) ? 40000000u : 160000000u, config);
  }
  return 0;
}

uint8_t quanta_register(uint8_t quanta) {
  return quanta == 0 ? 1 : uint8_t(quanta - 1);  // 0 quanta count as 1, they do not wrap
}

}  // namespace

VARNEL_API int CAN_GetCANSpeedArg(DevHandle handle, CAN_INIT_CONFIG* config, uint32_t bitrate) {
  if (!config) return result::kBadArgument;
  return classic_speed_arg(handle, bitrate, *config);
}

VARNEL_API int CAN_Init(DevHandle handle, uint8_t channel, CAN_INIT_CONFIG* config) {
  return guarded(result::kFailed, [&] {
    if (!config) return result::kBadArgument;
    if (is_fd_adapter(handle)) return init_through_fd(handle, channel, *config);
    const uint8_t ch = channel & 1;
    const CanState adapter = can_adapter(handle, ch);
    classic_pollers().clear(handle, ch);
    const uint8_t payload[13] = {ch,
                                 0,
                                 uint8_t(config->ControllerOption1 & 1),
                                 0,
                                 uint8_t(config->ControllerOption2 & 1),
                                 uint8_t(config->ControllerOption3 & 1),
                                 uint8_t(config->ControllerOption4 & 1),
                                 config->Mode,
                                 quanta_register(config->Sjw),
                                 quanta_register(config->Bs1),
                                 quanta_register(config->Bs2),
                                 uint8_t(config->Prescaler >> 8),
                                 uint8_t(config->Prescaler)};
    const int r = transact(handle, kCanInit, payload, {}).acknowledged();
    if (r != 0) return r;
    if (adapter) {
      adapter->classic[ch].start_time = read_start_time(handle);
      // every classic adapter reports its rate against 42 MHz, whatever its table assumes
      store_bitrate(adapter->classic[ch], 42000000u, *config);
    }
    return 0;
  });
}

VARNEL_API int CAN_Init2(DevHandle handle, uint8_t channel, uint32_t bitrate) {
  CAN_INIT_CONFIG config{};
  const int r = CAN_GetCANSpeedArg(handle, &config, bitrate);
  if (r != 0) return r;
  return CAN_Init(handle, channel, &config);
}

VARNEL_API int CAN_SendMsg(DevHandle handle, uint8_t channel, CAN_MSG* msgs, uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (count == 0) return 0;
    if (!msgs) return result::kBadArgument;
    if (is_fd_adapter(handle)) return send_through_fd(handle, channel, msgs, count);
    return send_classic(handle, channel, msgs, count);
  });
}

VARNEL_API int CAN_SendMsgWithTime(DevHandle handle, uint8_t channel, CAN_MSG* msgs,
                                   uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (count == 0) return 0;
    if (!msgs) return result::kBadArgument;
    if (is_fd_adapter(handle)) return send_timed_through_fd(handle, channel, msgs, count);
    return send_timed_classic(handle, channel, msgs, count);
  });
}

VARNEL_API int CAN_SendMsgSynch(DevHandle handle, uint8_t channel, CAN_MSG* msgs, uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (count == 0) return 0;
    if (!msgs) return result::kBadArgument;
    if (is_fd_adapter(handle)) return send_through_fd(handle, channel, msgs, count);
    return send_synch_classic(handle, channel, msgs, count);
  });
}

VARNEL_API int CAN_GetStatus(DevHandle handle, uint8_t channel, CAN_STATUS* status) {
  return guarded(result::kFailed, [&] {
    if (!status) return result::kBadArgument;
    if (is_fd_adapter(handle)) {
      uint8_t reply[4] = {};
      const auto r = transact(handle, kFdStatus, {&channel, 1}, reply);
      if (r.send_result != 0) return result::kWriteFailed;
      if (r.read_result != 0 || r.reply_length != 4) return result::kReplyFailed;
      status->RxErrorCounter = reply[1];
      status->TxErrorCounter = reply[0];
      return 0;
    }
    uint8_t reply[8] = {};
    const int r = transact(handle, kCanStatus, {&channel, 1}, reply).expect_length(8);
    if (r != 0) return r;
    const uint32_t error = get_be32(reply + 4);
    status->ControllerStatus = get_be32(reply);
    status->ErrorStatus = error;
    status->RxErrorCounter = uint8_t(error >> 24);
    status->TxErrorCounter = uint8_t(error >> 16);
    status->LastErrorCode = uint8_t((error >> 4) & 7);
    status->ErrorFlags = uint8_t(error & 7);
    return 0;
  });
}

VARNEL_API int CAN_Stop(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    if (is_fd_adapter(handle)) return CANFD_Stop(handle, channel);
    if (channel < kChannels) classic_pollers().stop(handle, channel);
    const int r = transact(handle, kCanStop, {&channel, 1}, {}).acknowledged();
    if (r != 0) return r;
    CAN_ClearMsg(handle, channel);
    return 0;
  });
}

VARNEL_API int64_t CAN_GetStartTime(DevHandle handle, uint8_t channel) {
  if (is_fd_adapter(handle)) return CANFD_GetStartTime(handle, channel);
  const CanState adapter = can_adapter(handle, channel);
  if (!adapter) return result::kFailed;
  return int64_t(adapter->classic[channel].start_time.load());
}

VARNEL_API int CAN_ResetStartTime(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    if (is_fd_adapter(handle)) return CANFD_ResetStartTime(handle, channel);
    const CanState adapter = can_adapter(handle, channel);
    if (!adapter) return result::kFailed;
    adapter->classic[channel].start_time = read_start_time(handle);
    return 0;
  });
}

VARNEL_API int CAN_SetStartTime(DevHandle handle, uint8_t channel, uint64_t start_time) {
  if (is_fd_adapter(handle)) return CANFD_SetStartTime(handle, channel, start_time);
  const CanState adapter = can_adapter(handle, channel);
  if (!adapter) return result::kFailed;
  adapter->classic[channel].start_time = start_time;
  return 0;
}

VARNEL_API int CAN_GetMsgSendTimeUs(const CAN_MSG* msg, int32_t bitrate) {
  if (!msg || bitrate <= 0) return 0;
  return int(frame_time_us(*msg, uint32_t(bitrate)));
}
