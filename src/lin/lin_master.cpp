// LIN master calls: the exchange of a record list with the bus (LIN_EX_MasterSync) and the calls
// built on it, the schedule calls, and LIN_EX_MasterSendMsg, which plays a list once as a schedule.
#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>
#include <vector>

#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/result_codes.h"
#include "core/transaction.h"
#include "lin/lin_calls.h"
#include "lin/lin_records.h"
#include "lin/lin_state.h"

using namespace varnel;
using namespace varnel::lin;

namespace {

constexpr uint32_t kScheduleLimit = 128;
constexpr int kScheduleStateSize = 28;
constexpr int kScheduleStateByte = 24;
constexpr int kSendMsgPollMs = 10;

// How many records one command may carry: the adapter kind is in the top bits of the handle.
uint32_t piece_limit(uint32_t handle) {
  if (handle >> 20 == 0x460) return 31;
  const uint32_t top = handle >> 24;
  if (top == 0x53 || top == 0x54) return 63;
  if (top >= 0x41 && top <= 0x45 && (handle >> 20 & 0xF) == 0) return 127;
  return 511;
}

// The bus needs 200,000 / baud ms a record at most, plus what the records ask it to wait.
int sync_timeout_ms(uint32_t baud, const LIN_EX_MSG* records, uint32_t n) {
  uint64_t ms = uint64_t(200000 / baud) * n + 300;
  for (uint32_t i = 0; i < n; ++i) ms += records[i].TimeStamp;
  return int(std::min<uint64_t>(ms, INT_MAX));
}

int sync_piece(uint32_t handle, uint8_t ch, const LIN_EX_MSG* in, LIN_EX_MSG* out, uint32_t n) {
  if (n == 0 || !in || !out) return result::kBadArgument;
  const ChannelRef channel = channel_of(handle, ch);
  if (!channel) return result::kBadArgument;
  if (!channel->initialised) return result::kNotInitialised;
  const uint32_t baud = channel->baud;
  if (baud < kMinBaud) return result::kBadArgument;
  std::vector<LIN_EX_MSG> requests(in, in + n);
  for (auto& msg : requests) prepare(msg, Outgoing::kSync, baud);
  std::vector<LIN_EX_MSG> replies(n);
  const auto r =
      transact(handle, kMasterSync, with_records(ch, requests), as_bytes(replies.data(), n),
               within(sync_timeout_ms(baud, requests.data(), n)));
  if (r.send_result != 0) return result::kWriteFailed;
  // a negative length is no record at all, never "every record"
  if (r.read_result != 0 || r.reply_length < 0) return result::kReplyFailed;
  const uint32_t got = std::min<uint32_t>(uint32_t(r.reply_length) / sizeof(LIN_EX_MSG), n);
  for (uint32_t i = 0; i < got; ++i) {
    judge_master_reply(replies[i], requests[i], ch);
    record_diagnostic(handle, ch, replies[i]);
    out[i] = replies[i];
  }
  return int(got);
}

// One record through MasterSync: 0 when exactly one came back.
int exchange_one(uint32_t handle, uint8_t ch, LIN_EX_MSG request, LIN_EX_MSG& reply) {
  const int r = LIN_EX_MasterSync(handle, ch, &request, &reply, 1);
  if (r == 1) return 0;
  return r < 0 ? r : result::kReplyFailed;
}

LIN_EX_MSG header_record(uint8_t type, uint8_t id, uint32_t time_stamp) {
  LIN_EX_MSG msg{};
  msg.TimeStamp = time_stamp;
  msg.MsgType = type;
  msg.PID = id;
  msg.BreakBits = 13;
  return msg;
}

// The shortest time a record of a list takes on the bus: a write with its data, else a header
// with room for a full answer.
uint32_t frame_floor_ms(const LIN_EX_MSG& msg, uint32_t baud) {
  const uint32_t bits = msg.MsgType == LIN_EX_MSG_TYPE_MW ? msg.DataLen * 11u + msg.BreakBits + 36u
                                                          : msg.BreakBits + 124u;
  return (bits * 1000 + baud - 1) / baud;
}

}  // namespace

VARNEL_API int LIN_EX_MasterSync(DevHandle handle, uint8_t ch, LIN_EX_MSG* in, LIN_EX_MSG* out,
                                 uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (!adapter_listed(handle)) return result::kBadArgument;
    if (count == 0 || !in || !out) return result::kBadArgument;
    const uint32_t limit = piece_limit(handle);
    int total = 0;
    for (uint32_t at = 0; at < count; at += limit) {
      const uint32_t n = std::min(limit, count - at);
      const int r = sync_piece(handle, ch, in + at, out + at, n);
      if (r < 0) return r;
      total += r;
      if (uint32_t(r) < n) break;
    }
    return total;
  });
}

VARNEL_API int LIN_EX_MasterBreak(DevHandle handle, uint8_t ch) {
  return guarded(result::kFailed, [&] {
    LIN_EX_MSG reply;
    return exchange_one(handle, ch, header_record(LIN_EX_MSG_TYPE_BK, 0, 10), reply);
  });
}

VARNEL_API int LIN_EX_MasterWrite(DevHandle handle, uint8_t ch, uint8_t id, uint8_t* data,
                                  uint8_t length, uint8_t check_type) {
  return guarded(result::kFailed, [&] {
    if (!data && length > 0) return result::kBadArgument;
    LIN_EX_MSG request = header_record(LIN_EX_MSG_TYPE_MW, id, 1);
    request.DataLen = std::min<uint8_t>(length, 8);
    request.CheckType = length == 0 ? LIN_EX_CHECK_NONE : check_type;
    if (request.DataLen) std::memcpy(request.Data, data, request.DataLen);
    LIN_EX_MSG reply;
    return exchange_one(handle, ch, request, reply);
  });
}

VARNEL_API int LIN_EX_MasterRead(DevHandle handle, uint8_t ch, uint8_t id, uint8_t* data) {
  return guarded(result::kFailed, [&] {
    if (!data) return result::kBadArgument;
    std::memset(data, 0, 8);
    LIN_EX_MSG reply;
    if (int r = exchange_one(handle, ch, header_record(LIN_EX_MSG_TYPE_MR, id, 1), reply); r != 0)
      return r;
    if (reply.CheckType >= LIN_EX_CHECK_USER) return 0;
    const uint8_t n = std::min<uint8_t>(reply.DataLen, 8);
    std::memcpy(data, reply.Data, n);
    return int(n);
  });
}

VARNEL_API int LIN_EX_MasterStartSch(DevHandle handle, uint8_t ch, LIN_EX_MSG* records,
                                     uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (!records || count == 0) return result::kBadArgument;
    const ChannelRef channel = channel_of(handle, ch);
    if (!channel) return result::kBadArgument;
    if (!channel->initialised) return result::kNotInitialised;
    const uint32_t baud = channel->baud;
    if (baud < kMinBaud) return result::kBadArgument;
    std::vector<LIN_EX_MSG> schedule(records, records + std::min(count, kScheduleLimit));
    for (auto& msg : schedule) prepare(msg, Outgoing::kSchedule, baud);
    return acknowledged(handle, kScheduleStart, with_records(ch, schedule));
  });
}

VARNEL_API int LIN_EX_MasterStopSch(DevHandle handle, uint8_t ch) {
  return guarded(result::kFailed, [&] { return acknowledged(handle, kScheduleStop, {&ch, 1}); });
}

VARNEL_API int LIN_EX_MasterGetSch(DevHandle handle, uint8_t ch, LIN_EX_MSG* records) {
  return guarded(result::kFailed, [&] {
    if (!records) return result::kBadArgument;
    const int n = read_records(handle, kScheduleGet, ch, records, kScheduleLimit);
    for (int i = 0; i < n; ++i) judge_schedule_entry(records[i]);
    return n;
  });
}

VARNEL_API int LIN_EX_MasterGetSchState(DevHandle handle, uint8_t ch) {
  return guarded(result::kFailed, [&] {
    uint8_t state[kScheduleStateSize];
    const int r =
        transact(handle, kScheduleState, {&ch, 1}, state).expect_length(kScheduleStateSize);
    return r != 0 ? r : int(state[kScheduleStateByte]);
  });
}

VARNEL_API int LIN_EX_MasterSetSchRunTimes(DevHandle handle, uint8_t ch, uint32_t times) {
  return guarded(result::kFailed, [&] {
    PayloadWriter request;
    request.u8(ch).u32(times);
    return acknowledged(handle, kScheduleRunTimes, request.bytes());
  });
}

VARNEL_API int LIN_EX_MasterSendMsg(DevHandle handle, uint8_t ch, LIN_EX_MSG* in, LIN_EX_MSG* out,
                                    uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (!in || !out || count == 0) return result::kBadArgument;
    const ChannelRef channel = channel_of(handle, ch);
    if (!channel) return result::kBadArgument;
    const uint32_t baud = std::max<uint32_t>(channel->baud, 1);
    if (LIN_EX_MasterSetSchRunTimes(handle, ch, 1) != 0) return result::kReplyFailed;
    uint64_t budget_ms = 50;
    for (uint32_t i = 0; i < count; ++i) {
      in[i].Tag = 1;
      budget_ms += std::max(in[i].TimeStamp, frame_floor_ms(in[i], baud)) * uint64_t(in[i].Tag);
    }
    std::vector<LIN_EX_MSG> received(size_t(count) + VARNEL_LIN_FETCH_SIZE);
    LIN_EX_SlaveGetData(handle, ch, received.data());  // what came before is not the answer
    if (LIN_EX_MasterStartSch(handle, ch, in, count) != 0) return result::kReplyFailed;
    const auto start = std::chrono::steady_clock::now();
    size_t got = 0;
    while (got < count) {
      std::this_thread::sleep_for(std::chrono::milliseconds(kSendMsgPollMs));
      if (received.size() - got < VARNEL_LIN_FETCH_SIZE)
        received.resize(got + VARNEL_LIN_FETCH_SIZE);
      const int n = LIN_EX_SlaveGetData(handle, ch, received.data() + got);
      if (n > 0) got += size_t(n);
      if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(budget_ms)) break;
    }
    const size_t copied = std::min<size_t>(count, got);
    for (size_t i = 0; i < copied; ++i) {
      out[i] = received[i];
      out[i].Tag = uint8_t(in[i].MsgType << 4 | ch);
    }
    return int(got);
  });
}
