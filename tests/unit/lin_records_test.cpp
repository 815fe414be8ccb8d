// LIN records before and after the wire: the protected identifier against the published table,
// the two checksums worked out by hand, and the host's verdicts on what comes back.
#include "lin/lin_records.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace varnel::lin;

namespace {

LIN_EX_MSG record(uint8_t type, uint8_t check_type, std::vector<uint8_t> data, uint8_t pid = 0x3C) {
  LIN_EX_MSG msg{};
  msg.MsgType = type;
  msg.CheckType = check_type;
  msg.PID = pid;
  msg.DataLen = uint8_t(data.size());
  if (!data.empty()) std::memcpy(msg.Data, data.data(), std::min<size_t>(data.size(), 8));
  return msg;
}

}  // namespace

TEST(LinRecords, ProtectedIdentifiersOfAllSixtyFourIds) {
  // The table of protected identifiers for identifiers 0x00..0x3F.
  const uint8_t table[64] = {0x80, 0xC1, 0x42, 0x03, 0xC4, 0x85, 0x06, 0x47, 0x08, 0x49, 0xCA,
                             0x8B, 0x4C, 0x0D, 0x8E, 0xCF, 0x50, 0x11, 0x92, 0xD3, 0x14, 0x55,
                             0xD6, 0x97, 0xD8, 0x99, 0x1A, 0x5B, 0x9C, 0xDD, 0x5E, 0x1F, 0x20,
                             0x61, 0xE2, 0xA3, 0x64, 0x25, 0xA6, 0xE7, 0xA8, 0xE9, 0x6A, 0x2B,
                             0xEC, 0xAD, 0x2E, 0x6F, 0xF0, 0xB1, 0x32, 0x73, 0xB4, 0xF5, 0x76,
                             0x37, 0x78, 0x39, 0xBA, 0xFB, 0x3C, 0x7D, 0xFE, 0xBF};
  for (int id = 0; id < 64; ++id) {
    EXPECT_EQ(protected_id(uint8_t(id)), table[id]) << id;
    EXPECT_EQ(protected_id(uint8_t(id | 0xC0)), table[id]) << "the caller's top bits go";
  }
}

TEST(LinRecords, ChecksumsAddWithCarryAndInvert) {
  const uint8_t data[] = {0x01, 0x02}, ff[] = {0xFF, 0xFF}, eight[] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(checksum(0x3C, data, 2, true), 0xC0);   // 3C + 01 + 02 = 3F, inverted
  EXPECT_EQ(checksum(0x3C, data, 2, false), 0xFC);  // 03, inverted
  EXPECT_EQ(checksum(0x00, ff, 2, false), 0x00);    // 1FE - FF = FF, inverted
  EXPECT_EQ(checksum(0xC1, eight, 8, true), 0x1A);  // C1 + 24 = E5, inverted
  EXPECT_EQ(checksum(0xC1, eight, 0, true), 0x3E);  // the PID alone
  const uint8_t half[] = {0x80, 0x80};
  EXPECT_EQ(checksum(0x00, half, 2, false), 0xFE);  // exactly 100: the carry goes round to 01
}

// Each call clamps its own way: times 5,000,000 (sync) or 600,000 (schedule), breaks outside
// 10..40 to 13, eight data bytes at most; the checksum goes to Check and after the data.
TEST(LinRecords, OutgoingRecordsAreClampedAndChecksummed) {
  LIN_EX_MSG sync = record(LIN_EX_MSG_TYPE_MW, LIN_EX_CHECK_EXT, {0x01, 0x02});
  sync.TimeStamp = 6000000;
  sync.BreakBits = 9;
  prepare(sync, Outgoing::kSync, 19200);
  EXPECT_EQ(sync.TimeStamp, 5000000u);
  EXPECT_EQ(sync.BreakBits, 13);
  EXPECT_EQ(sync.Sync, 0x55);
  EXPECT_EQ(sync.Check, 0xC0);
  EXPECT_EQ(sync.Data[2], 0xC0);

  LIN_EX_MSG read = record(LIN_EX_MSG_TYPE_MR, LIN_EX_CHECK_STD, {9, 9, 9}, 0x21);
  read.TimeStamp = 6000000;
  read.BreakBits = 41;
  prepare(read, Outgoing::kSchedule, 19200);
  EXPECT_EQ(read.TimeStamp, 600000u);
  EXPECT_EQ(read.PID, 0x61);
  EXPECT_EQ(read.DataLen, 0) << "a header carries no data";
  EXPECT_EQ(read.Tag, 1) << "repeat count 0 counts as 1";
  EXPECT_EQ(read.Check, 0) << "nothing to checksum";
  read = record(LIN_EX_MSG_TYPE_MR, 0, {}, 0x21);
  read.BreakBits = 13;
  prepare(read, Outgoing::kSchedule, 19200);
  EXPECT_EQ(read.TimeStamp, 4u) << "(13 + 47) bits at 19200 baud: 3.1 ms, rounded up";
  read.TimeStamp = 0;
  read.BreakBits = 40;  // the longest break kept
  prepare(read, Outgoing::kSchedule, 20000);
  EXPECT_EQ(read.BreakBits, 40);
  EXPECT_EQ(read.TimeStamp, 5u) << "87 bits at 20000 baud: 4.35 ms";
  read.TimeStamp = 0;
  read.BreakBits = 10;
  prepare(read, Outgoing::kSchedule, 19000);
  EXPECT_EQ(read.TimeStamp, 3u) << "57 bits at 19000 baud: exactly 3 ms";

  LIN_EX_MSG user = record(0x83, LIN_EX_CHECK_USER, {7});
  user.Check = 0xAB;
  user.BreakBits = 0;
  prepare(user, Outgoing::kSlaveTable, 0);
  EXPECT_EQ(user.Data[1], 0xAB) << "the caller's check after the data";
  EXPECT_EQ(user.BreakBits, 0) << "the slave table keeps its break field";
  LIN_EX_MSG full = record(LIN_EX_MSG_TYPE_MW, LIN_EX_CHECK_STD, {1, 2, 3, 4, 5, 6, 7, 8});
  full.DataLen = 9;
  prepare(full, Outgoing::kSync, 19200);
  EXPECT_EQ(full.DataLen, 8);
  EXPECT_EQ(full.Check, 0xDB);  // 24 inverted
}

// What the bus returned, judged against the request: the checksum moves out of a frame read back
// with it (kind 8), the verdict names the sum that matched, and the data after the frame is zeroed.
TEST(LinRecords, RepliesAreJudgedAgainstTheirRequest) {
  const LIN_EX_MSG ask = record(LIN_EX_MSG_TYPE_MR, LIN_EX_CHECK_STD, {});
  struct Case {
    LIN_EX_MSG reply;
    uint8_t request_check;
    uint8_t verdict, length, check;
  } cases[] = {
      {record(LIN_EX_MSG_TYPE_SR, 0, {0x01, 0x02, 0xC0, 0x77}), 0, 4, 3, 0x77},  // 77 is not a sum
      {record(LIN_EX_MSG_TYPE_SR, 0, {0x01, 0x02, 0xC0}), 0, 1, 2, 0xC0},
      {record(LIN_EX_MSG_TYPE_SR, 0, {0x01, 0x02, 0xFC}), 0, 0, 2, 0xFC},
      {record(LIN_EX_MSG_TYPE_SR, 0, {0x01, 0x02, 0x00}), 2, 2, 2, 0x00},
      {record(LIN_EX_MSG_TYPE_SR, 0, {0x01, 0x02, 0x00}), 3, 3, 3, 0x00},
      {record(LIN_EX_MSG_TYPE_SR, 0, {}), 0, 4, 0, 0x00},  // nobody answered
      {record(LIN_EX_MSG_TYPE_BK, 0, {5}), 0, 3, 1, 0x00},
  };
  for (auto& c : cases) {
    LIN_EX_MSG request = ask;
    request.CheckType = c.request_check;
    judge_master_reply(c.reply, request, 0x13);
    EXPECT_EQ(c.reply.CheckType, c.verdict) << int(c.reply.Data[0]);
    EXPECT_EQ(c.reply.DataLen, c.length);
    EXPECT_EQ(c.reply.Check, c.check);
    EXPECT_EQ(c.reply.Tag, 0x23) << "request kind 2, channel 3";
    for (int i = c.verdict == 3 && c.request_check != 3 ? 0 : c.reply.DataLen; i < 8; ++i)
      EXPECT_EQ(c.reply.Data[i], 0) << i;
  }
  LIN_EX_MSG nine = record(LIN_EX_MSG_TYPE_DA, 0, {1, 2, 3, 4, 5, 6, 7, 8}, 0xC1);
  nine.Check = 0x1A;
  judge_received(nine);
  EXPECT_EQ(nine.CheckType, LIN_EX_CHECK_EXT);
  LIN_EX_MSG long_eight = record(LIN_EX_MSG_TYPE_SR, 0, {1, 2, 3, 4, 5, 6, 7, 0xE3});
  long_eight.DataLen = 9;  // the adapter cannot send more than 8 and a checksum: take byte 7
  judge_received(long_eight);
  EXPECT_EQ(long_eight.DataLen, 7);
  EXPECT_EQ(long_eight.CheckType, LIN_EX_CHECK_STD);  // 1C inverted
  LIN_EX_MSG brk = record(LIN_EX_MSG_TYPE_BK, 0, {1});
  judge_received(brk);
  EXPECT_EQ(brk.PID, 0xFF);
  EXPECT_EQ(brk.CheckType, LIN_EX_CHECK_NONE);
}
