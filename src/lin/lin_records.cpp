#include "lin/lin_records.h"

#include <algorithm>
#include <cstring>

namespace varnel::lin {
namespace {

constexpr uint8_t kSync = 0x55;
constexpr uint8_t kDefaultBreakBits = 13;
constexpr uint32_t kSyncTimeStampLimit = 5000000;
constexpr uint32_t kScheduleTimeStampLimit = 600000;

constexpr uint8_t bit(uint8_t value, int n) {
  return (value >> n) & 1;
}

// 0 classic, 1 enhanced, 4 neither: the verdict on msg.Check over msg.DataLen bytes.
uint8_t compare_checksum(const LIN_EX_MSG& msg) {
  const int length = std::min<int>(msg.DataLen, 8);
  if (checksum(msg.PID, msg.Data, length, false) == msg.Check) return LIN_EX_CHECK_STD;
  if (checksum(msg.PID, msg.Data, length, true) == msg.Check) return LIN_EX_CHECK_EXT;
  return LIN_EX_CHECK_ERROR;
}

// A frame read back with its checksum as the last data byte: the byte moves to Check.
void take_check_from_data(LIN_EX_MSG& msg) {
  if (msg.DataLen == 0) return;
  msg.DataLen = std::min<uint8_t>(msg.DataLen, 8);
  msg.Check = msg.Data[msg.DataLen - 1];
  --msg.DataLen;
}

void zero_data_from(LIN_EX_MSG& msg, int from) {
  for (int i = std::clamp(from, 0, 8); i < 8; ++i) msg.Data[i] = 0;
}

bool carries_data(const LIN_EX_MSG& msg, Outgoing call) {
  switch (call) {
    case Outgoing::kSync:
      return msg.MsgType == LIN_EX_MSG_TYPE_MW || msg.MsgType == LIN_EX_MSG_TYPE_SW;
    case Outgoing::kSchedule:
      return msg.MsgType == LIN_EX_MSG_TYPE_MW;
    case Outgoing::kSlaveTable:
      return (msg.MsgType & 0x7F) == LIN_EX_MSG_TYPE_SW || msg.MsgType == LIN_EX_MSG_TYPE_SC;
  }
  return false;
}

void write_checksum(LIN_EX_MSG& msg) {
  const int length = std::min<int>(msg.DataLen, 8);
  if (msg.CheckType == LIN_EX_CHECK_STD || msg.CheckType == LIN_EX_CHECK_EXT)
    msg.Check = checksum(msg.PID, msg.Data, length, msg.CheckType == LIN_EX_CHECK_EXT);
  else if (msg.CheckType != LIN_EX_CHECK_USER)
    return;
  if (length < 8) msg.Data[length] = msg.Check;
}

}  // namespace

uint8_t protected_id(uint8_t id) {
  id &= 0x3F;
  const uint8_t p0 = bit(id, 0) ^ bit(id, 1) ^ bit(id, 2) ^ bit(id, 4);
  const uint8_t p1 = !(bit(id, 1) ^ bit(id, 3) ^ bit(id, 4) ^ bit(id, 5));
  return uint8_t(id | p0 << 6 | p1 << 7);
}

uint8_t checksum(uint8_t pid, const uint8_t* data, int length, bool enhanced) {
  unsigned sum = enhanced ? pid : 0;
  for (int i = 0; i < length; ++i) {
    sum += data[i];
    if (sum >= 256) sum -= 255;
  }
  return uint8_t(~sum);
}

void prepare(LIN_EX_MSG& msg, Outgoing call, uint32_t baud) {
  msg.Sync = kSync;
  msg.PID = protected_id(msg.PID);
  if (call == Outgoing::kSync) {
    msg.TimeStamp = std::min(msg.TimeStamp, kSyncTimeStampLimit);
    msg.DataLen = std::min<uint8_t>(msg.DataLen, 8);
  } else if (call == Outgoing::kSchedule) {
    msg.TimeStamp = std::min(msg.TimeStamp, kScheduleTimeStampLimit);
    if (msg.Tag == 0) msg.Tag = 1;
  }
  if (call != Outgoing::kSlaveTable && (msg.BreakBits < 10 || msg.BreakBits > 40))
    msg.BreakBits = kDefaultBreakBits;
  if (carries_data(msg, call)) {
    write_checksum(msg);
  } else if (call == Outgoing::kSchedule && baud > 0) {
    // a header the adapter must leave time for: break, delimiter, sync, PID and a response
    msg.DataLen = 0;
    const uint32_t header_ms = ((msg.BreakBits + 47u) * 1000 + baud - 1) / baud;
    msg.TimeStamp = std::max(msg.TimeStamp, header_ms);
  }
}

void judge_master_reply(LIN_EX_MSG& reply, const LIN_EX_MSG& request, uint8_t channel) {
  if (reply.MsgType == LIN_EX_MSG_TYPE_DA) {
    reply.DataLen = std::min<uint8_t>(reply.DataLen, 8);
    reply.CheckType = request.CheckType == LIN_EX_CHECK_NONE   ? LIN_EX_CHECK_NONE
                      : request.CheckType == LIN_EX_CHECK_USER ? LIN_EX_CHECK_USER
                                                               : compare_checksum(reply);
  } else if (reply.MsgType == LIN_EX_MSG_TYPE_SR) {
    if (request.CheckType == LIN_EX_CHECK_NONE) {
      reply.CheckType = LIN_EX_CHECK_NONE;
    } else {
      take_check_from_data(reply);
      reply.CheckType =
          request.CheckType == LIN_EX_CHECK_USER ? LIN_EX_CHECK_USER : compare_checksum(reply);
    }
    zero_data_from(reply, reply.DataLen);
  } else {
    reply.CheckType = LIN_EX_CHECK_NONE;
    zero_data_from(reply, 0);
  }
  reply.Tag = uint8_t(request.MsgType << 4 | (channel & 0x0F));
}

void judge_received(LIN_EX_MSG& msg) {
  if (msg.MsgType == LIN_EX_MSG_TYPE_SR) {
    if (msg.DataLen > 8) {
      msg.DataLen = 7;
      msg.Check = msg.Data[7];
    } else {
      take_check_from_data(msg);
    }
    msg.CheckType = compare_checksum(msg);
  } else if (msg.MsgType == LIN_EX_MSG_TYPE_DA) {
    msg.DataLen = 8;
    msg.CheckType = compare_checksum(msg);
  } else if (msg.MsgType == LIN_EX_MSG_TYPE_BK) {
    msg.CheckType = LIN_EX_CHECK_NONE;
    msg.DataLen = 0;
    msg.PID = 0xFF;
  } else {
    msg.CheckType = LIN_EX_CHECK_NONE;
  }
}

void judge_schedule_entry(LIN_EX_MSG& msg) {
  if (msg.MsgType != LIN_EX_MSG_TYPE_MR) return;
  if (msg.DataLen >= 1 && msg.DataLen <= 7) take_check_from_data(msg);
  msg.CheckType = compare_checksum(msg);
}

LIN_EX_MSG translated(const LIN_MSG& in, uint8_t type, uint8_t check_type) {
  LIN_EX_MSG msg{};
  msg.TimeStamp = 1;
  msg.MsgType = type;
  msg.PID = in.ID;
  msg.CheckType = check_type;
  msg.DataLen = in.DataLen;
  std::memcpy(msg.Data, in.Data, 8);
  return msg;
}

uint8_t write_check(uint8_t id) {
  return (id & 0x3F) < 0x3C ? LIN_EX_CHECK_EXT : LIN_EX_CHECK_STD;
}

uint8_t read_check(uint8_t id) {
  return (id & 0x3F) < 0x3D ? LIN_EX_CHECK_EXT : LIN_EX_CHECK_STD;
}

void copy_back(LIN_MSG& to, const LIN_EX_MSG& from) {
  std::memcpy(to.Data, from.Data, 8);
  to.Check = from.Check;
  to.DataLen = from.DataLen ? uint8_t(from.DataLen + 1) : 0;
}

LIN_MSG received_as_legacy(const LIN_EX_MSG& from) {
  LIN_MSG out{};
  out.ID = from.PID;
  if (from.CheckType <= LIN_EX_CHECK_EXT) copy_back(out, from);
  return out;
}

}  // namespace varnel::lin
