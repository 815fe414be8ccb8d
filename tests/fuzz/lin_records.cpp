// libFuzzer target: arbitrary bytes as pairs of 20-byte frame records, a request and what the
// adapter reported for it (plus a channel byte). Every verdict, the preparation of outgoing
// records for each call and the older calls' translation run on them; what they promise is
// checked: a verdict of 0..4, at most 8 data bytes where a kind carries them, the tag of the
// request's kind and the channel, a valid protected identifier on what goes out.
#include "lin/lin_records.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

using namespace varnel::lin;

void check(bool holds) {
  if (!holds) __builtin_trap();
}

void judge(LIN_EX_MSG request, LIN_EX_MSG reply, uint8_t channel) {
  LIN_EX_MSG judged = reply;
  judge_master_reply(judged, request, channel);
  check(judged.CheckType <= LIN_EX_CHECK_ERROR);
  check(judged.Tag == uint8_t(request.MsgType << 4 | (channel & 0x0F)));
  if (reply.MsgType == 9 || (reply.MsgType == 8 && request.CheckType != LIN_EX_CHECK_NONE))
    check(judged.DataLen <= 8);
  const LIN_MSG old = received_as_legacy(judged);
  check(old.ID == judged.PID);

  LIN_EX_MSG received = reply;
  judge_received(received);
  check(received.CheckType <= LIN_EX_CHECK_ERROR);
  if (reply.MsgType == 8 || reply.MsgType == 9) check(received.DataLen <= 8);
  if (reply.MsgType == 5) check(received.DataLen == 0 && received.PID == 0xFF);

  LIN_EX_MSG entry = reply;
  judge_schedule_entry(entry);
  check(reply.MsgType != 2 || entry.CheckType <= LIN_EX_CHECK_ERROR);
}

void prepare_all(const LIN_EX_MSG& msg, uint32_t baud) {
  for (Outgoing call : {Outgoing::kSync, Outgoing::kSchedule, Outgoing::kSlaveTable}) {
    LIN_EX_MSG out = msg;
    prepare(out, call, baud);
    check(out.Sync == 0x55 && protected_id(out.PID) == out.PID);
    if (call != Outgoing::kSlaveTable) check(out.BreakBits >= 10 && out.BreakBits <= 40);
    if (call == Outgoing::kSync) check(out.DataLen <= 8 && out.TimeStamp <= 5000000);
  }
  LIN_MSG old;
  std::memcpy(&old, &msg, sizeof old);
  const LIN_EX_MSG request = translated(old, LIN_EX_MSG_TYPE_MR, read_check(old.ID));
  check(request.PID == old.ID && request.DataLen == old.DataLen);
  check(write_check(old.ID) <= LIN_EX_CHECK_EXT && read_check(old.ID) <= LIN_EX_CHECK_EXT);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kRecord = sizeof(LIN_EX_MSG);
  if (size < 1 + 2 * kRecord) return 0;
  const uint8_t channel = data[0];
  for (size_t at = 1; at + 2 * kRecord <= size; at += 2 * kRecord) {
    LIN_EX_MSG request, reply;
    std::memcpy(&request, data + at, kRecord);
    std::memcpy(&reply, data + at + kRecord, kRecord);
    judge(request, reply, channel);
    prepare_all(request, 100u + uint32_t(channel) * 1000u);
  }
  return 0;
}
