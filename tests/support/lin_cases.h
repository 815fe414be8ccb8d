// LIN channels over a USB layer (see wire_fixture.h): the bytes of each request against the record
// layout written out by hand, the verdicts on what the virtual bus returns (its nodes' checksums
// computed here from the LIN definitions), lists split where the adapter's limit falls, and the
// slave table and schedules seen from another channel.
#pragma once

#include <cstring>
#include <functional>

#include "sim/families/device.h"
#include "sim/families/lin.h"
#include "support/stream_cases.h"  // eventually()
#include "support/wire_fixture.h"

namespace testing_support {

constexpr uint32_t kLinHandle = 0x11223344;
using LinBytes = std::vector<uint8_t>;

inline LIN_EX_MSG lin_record(uint8_t type, uint8_t id, LinBytes data = {}, uint8_t check = 1) {
  LIN_EX_MSG m{};
  m.MsgType = type;
  m.PID = id;
  m.CheckType = check;
  m.DataLen = uint8_t(data.size());
  if (!data.empty()) std::memcpy(m.Data, data.data(), std::min<size_t>(data.size(), 8));
  m.BreakBits = 13;
  return m;
}

template <class Layer>
class LinCases : public WireTest<Layer> {
 protected:
  Adapter open_master(uint32_t handle = kLinHandle, uint32_t baud = 19200) {
    Adapter adapter = this->plug_and_open(handle);
    EXPECT_EQ(LIN_EX_Init(handle, 0, baud, 1), 0);
    Layer::clear_transfers(handle);
    return adapter;
  }
  std::vector<LinBytes> requests(uint32_t handle = kLinHandle) {
    std::vector<LinBytes> out;
    for (auto& t : this->bulk_on(handle, 0x01)) out.push_back(t.data);
    Layer::clear_transfers(handle);
    return out;
  }
  sim::LinModel& model(Adapter& adapter) { return sim::lin_model(*adapter); }
};
TYPED_TEST_SUITE_P(LinCases);

TYPED_TEST_P(LinCases, RequestsCarryTheirLayoutAndRecordsAsTheyLie) {
  Adapter adapter = this->plug_and_open(kLinHandle);
  ASSERT_EQ(LIN_EX_Init(kLinHandle, 2, 99, 1), 0);
  ASSERT_EQ(LIN_EX_Init2(kLinHandle, 0, 19200, 1, 0xA, 0xB, 0xC), 0);
  std::vector<LinBytes> inits;  // each init also reads the device time
  for (auto& r : this->requests())
    if (r[2] == 0xF && r[3] == 6) inits.push_back(r);
  ASSERT_EQ(inits.size(), 2u);
  EXPECT_EQ(inits[0], (LinBytes{0, 0, 0xF, 6, 0, 0, 0, 6, 2, 0, 0, 0x25, 0x80, 1}))  // 9600
      << "a baud rate below 100 goes out as 9600";
  EXPECT_EQ(LinBytes(inits[1].begin() + 8, inits[1].end()),
            (LinBytes{0, 0, 0, 0x4B, 0, 1, 0, 0, 0, 0xA, 0, 0, 0, 0xC, 0, 0, 0, 0xB}));
  uint8_t data[2] = {0x01, 0x02};
  ASSERT_EQ(LIN_EX_MasterWrite(kLinHandle, 0, 0xFC, data, 2, LIN_EX_CHECK_EXT), 0);
  // time 1 (LE), write, enhanced, 2 bytes, sync, PID 3C (the top bits given go), data, the
  // checksum 3C+01+02 = 3F inverted after the data and in Check, break 13, tag 0
  EXPECT_EQ(this->requests(),
            (std::vector<LinBytes>{{0, 0,    0xF,  7, 0, 0,    0, 21, 0, 1, 0, 0,    0,  1, 1,
                                    2, 0x55, 0x3C, 1, 2, 0xC0, 0, 0,  0, 0, 0, 0xC0, 13, 0}}));
  ASSERT_EQ(LIN_EX_CtrlPowerOut(kLinHandle, 3, 5), 0);
  ASSERT_EQ(LIN_EX_CtrlPowerOut(kLinHandle, 3, 12), 0);
  ASSERT_EQ(LIN_EX_StopSlaveResp(kLinHandle, 1, 0x21), 0);
  EXPECT_EQ(this->requests(), (std::vector<LinBytes>{{0, 0, 0xF, 0xA, 0, 0, 0, 2, 2, 3},
                                                     {0, 0, 0xF, 0xA, 0, 0, 0, 2, 1, 3},
                                                     {0, 0, 0xF, 0x14, 0, 0, 0, 2, 1, 0x61}}));
  uint16_t mv = 0;
  ASSERT_EQ(LIN_EX_GetVbatValue(kLinHandle, &mv), 0);
  EXPECT_EQ(mv, sim::lin_model(*adapter).battery_mv);
}

// The default node answers 21 with 11 22 33 44 and the enhanced sum: 61 + AA = 10B -> 0C -> F3.
TYPED_TEST_P(LinCases, MasterReadsAreJudgedOnTheChecksumTheNodeSent) {
  Adapter adapter = this->open_master();
  uint8_t data[8];
  EXPECT_EQ(LIN_EX_MasterRead(kLinHandle, 0, 0x21, data), 4);
  EXPECT_EQ(LinBytes(data, data + 5), (LinBytes{0x11, 0x22, 0x33, 0x44, 0}));
  auto& nodes = this->model(adapter).nodes[0];
  struct Case {
    std::function<void()> fault;
    uint8_t verdict, check;
  } cases[] = {
      {[] {}, LIN_EX_CHECK_EXT, 0xF3},
      {[&] { nodes[0].enhanced = false; }, LIN_EX_CHECK_STD, 0x55},  // AA inverted
      {[&] { nodes[0].wrong_checksum = true; }, LIN_EX_CHECK_ERROR, 0xAA},
      // two nodes at once: the bus carries 0F & 3C = 0C and checks 8F & 62 = 02
      {[&] {
         nodes = {{0x21, {0x0F}}, {0x21, {0x3C}}};
       },
       LIN_EX_CHECK_ERROR, 0x02},
      {[&] { nodes.clear(); }, LIN_EX_CHECK_ERROR, 0},
  };
  for (auto& c : cases) {
    c.fault();
    LIN_EX_MSG ask = lin_record(LIN_EX_MSG_TYPE_MR, 0x21), got{};
    ASSERT_EQ(LIN_EX_MasterSync(kLinHandle, 0, &ask, &got, 1), 1);
    EXPECT_EQ(got.CheckType, c.verdict) << int(c.check);
    EXPECT_EQ(got.Check, c.check);
    EXPECT_EQ(got.Tag, 0x20);
  }
  std::memset(data, 0xEE, 8);
  EXPECT_EQ(LIN_EX_MasterRead(kLinHandle, 0, 0x21, data), 0) << "nobody answers";
  EXPECT_EQ(LinBytes(data, data + 8), LinBytes(8, 0));
}

// 31 records a command for adapters 0x460..., 127 for 0x41..0x45 with the next four bits clear,
// 511 for others: 520 breaks go as 16 x 31 + 24, 4 x 127 + 12, or 511 + 9.
TYPED_TEST_P(LinCases, LongListsAreSplitWhereTheAdaptersLimitFalls) {
  std::vector<size_t> kind_460(16, 31);
  kind_460.push_back(24);
  const std::vector<std::pair<uint32_t, std::vector<size_t>>> kinds = {
      {0x46012340u, kind_460},
      {0x41012340u, {127, 127, 127, 127, 12}},
      {0x41112340u, {511, 9}},  // bits 20..23 not clear
      {kLinHandle, {511, 9}}};
  for (const auto& [handle, pieces] : kinds) {
    this->fresh_adapter(handle);
    ASSERT_EQ(LIN_EX_Init(handle, 0, 19200, 1), 0);
    TypeParam::clear_transfers(handle);
    std::vector<LIN_EX_MSG> in(520, lin_record(LIN_EX_MSG_TYPE_BK, 0)), out(520);
    EXPECT_EQ(LIN_EX_MasterSync(handle, 0, in.data(), out.data(), 520), 520);
    auto sent = this->requests(handle);
    ASSERT_EQ(sent.size(), pieces.size());
    for (size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(sent[i].size(), 9 + 20 * pieces[i]) << i;
  }
}

// One record at 200 baud may take 200,000 / 200 ms + 300 ms.
TYPED_TEST_P(LinCases, ReplyTimeOutFollowsTheBaudRate) {
  Adapter adapter = this->open_master(kLinHandle, 200);
  LIN_EX_MSG ask = lin_record(LIN_EX_MSG_TYPE_BK, 0), got;
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 1100, 0xF07});
  EXPECT_EQ(LIN_EX_MasterSync(kLinHandle, 0, &ask, &got, 1), 1);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 1500, 0xF07});
  EXPECT_EQ(LIN_EX_MasterSync(kLinHandle, 0, &ask, &got, 1), -4);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the late reply goes by
}

// Channel 1, a slave on channel 0's bus, answers 31 from its table; both see the frame.
TYPED_TEST_P(LinCases, TheSlaveTableAnswersAnotherChannel) {
  Adapter adapter = this->open_master();
  this->model(adapter).join(0, 1);
  ASSERT_EQ(LIN_EX_Init(kLinHandle, 1, 19200, 0), 0);
  LIN_EX_MSG entry = lin_record(LIN_EX_MSG_TYPE_SW, 0x31, {0xAA, 0xBB});
  ASSERT_EQ(LIN_EX_SlaveSetIDMode(kLinHandle, 1, &entry, 1), 0);
  uint8_t data[8];
  EXPECT_EQ(LIN_EX_MasterRead(kLinHandle, 0, 0x31, data), 2);
  EXPECT_EQ(LinBytes(data, data + 2), (LinBytes{0xAA, 0xBB}));
  LIN_EX_MSG seen[4];
  ASSERT_EQ(LIN_EX_GetMsg(kLinHandle, 1, seen, 4), 1);
  EXPECT_EQ(seen[0].PID, 0xB1);
  EXPECT_EQ(seen[0].CheckType, LIN_EX_CHECK_EXT);  // B1 + AA + BB = 216 -> 17 -> E8

  // Ten bytes in frames of eight: two records, the second one empty.
  TypeParam::clear_transfers(kLinHandle);
  uint8_t ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  ASSERT_EQ(LIN_EX_SetSlaveRespData(kLinHandle, 1, 0x31, 8, ten, 10, 1, 0), 0);
  auto sent = this->requests();
  ASSERT_EQ(sent.size(), 2u);  // the table read first
  ASSERT_EQ(sent[1].size(), 8u + 6 + 40);
  EXPECT_EQ(LinBytes(sent[1].begin() + 8, sent[1].begin() + 14), (LinBytes{1, 0xB1, 0, 0, 0, 0}));
  EXPECT_EQ(sent[1][14 + 6], 8);
  EXPECT_EQ(sent[1][34 + 6], 0) << "the last piece goes out empty";
  uint8_t sixteen[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  ASSERT_EQ(LIN_EX_SetSlaveRespData(kLinHandle, 1, 0x31, 8, sixteen, 16, 1, 0), 0);
  sent = this->requests();
  EXPECT_EQ(sent[1][34 + 6], 8) << "a last piece that fills its frame keeps its length";
  EXPECT_EQ(sent[1][34 + 9], 9) << "and carries the bytes from 8 on";
  // Mode 0 takes the pieces' command even when the data fit one frame (one empty piece).
  ASSERT_EQ(LIN_EX_SetSlaveRespData(kLinHandle, 1, 0x31, 8, ten, 5, 1, 0), 0);
  sent = this->requests();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[1][3], 0x13);
  EXPECT_EQ(sent[1].size(), 8u + 6 + 20);
}

// Two runs of a schedule of two 10 ms slots, in the adapter's time.
TYPED_TEST_P(LinCases, SchedulesPlayInBusTime) {
  this->open_master();
  LIN_EX_MSG table[2] = {lin_record(LIN_EX_MSG_TYPE_MR, 0x21),
                         lin_record(LIN_EX_MSG_TYPE_MW, 0x22, {5})};
  table[0].TimeStamp = table[1].TimeStamp = 10;
  ASSERT_EQ(LIN_EX_MasterSetSchRunTimes(kLinHandle, 0, 2), 0);
  ASSERT_EQ(LIN_EX_MasterStartSch(kLinHandle, 0, table, 2), 0);
  LIN_EX_MSG back[128];
  ASSERT_EQ(LIN_EX_MasterGetSch(kLinHandle, 0, back), 2);
  EXPECT_EQ(back[1].Check, 0x18) << "22 is 0xE2: E2 + 05 = E7, inverted";
  std::vector<LIN_EX_MSG> got;
  eventually([&] {
    LIN_EX_MSG chunk[16];
    const int n = LIN_EX_GetMsg(kLinHandle, 0, chunk, 16);
    got.insert(got.end(), chunk, chunk + std::max(n, 0));
    return got.size() >= 4;
  });
  ASSERT_EQ(got.size(), 4u);
  for (size_t i = 2; i < 4; ++i)  // a period is two records of 10 ms
    EXPECT_EQ(got[i].TimeStamp - got[i - 2].TimeStamp, 20u) << i;
  EXPECT_EQ(got[0].PID, 0x61);
  EXPECT_EQ(got[1].Data[0], 5);
  EXPECT_EQ(LIN_EX_MasterGetSchState(kLinHandle, 0), 0) << "both runs done";
  LIN_EX_MSG once[2] = {table[0], table[0]}, out[2];
  EXPECT_EQ(LIN_EX_MasterSendMsg(kLinHandle, 0, once, out, 2), 2);
  EXPECT_EQ(out[1].Tag, 0x20);
}

TYPED_TEST_P(LinCases, BadInputAndBadRepliesGiveTheirCodes) {
  Adapter adapter = this->open_master();
  LIN_EX_MSG m = lin_record(LIN_EX_MSG_TYPE_BK, 0), out[1];
  uint8_t data[8];
  EXPECT_EQ(LIN_EX_MasterSync(kLinHandle, 8, &m, out, 1), -7);
  EXPECT_EQ(LIN_EX_MasterSync(kLinHandle, 0, &m, out, 0), -7);
  EXPECT_EQ(LIN_EX_MasterSync(kLinHandle, 0, nullptr, out, 1), -7);
  EXPECT_EQ(LIN_EX_MasterSync(kLinHandle, 5, &m, out, 1), -5);
  EXPECT_EQ(LIN_EX_MasterRead(kLinHandle, 0, 0x21, nullptr), -7);
  EXPECT_EQ(LIN_EX_MasterSync(0x0BADF00D, 0, &m, out, 1), -7);
  EXPECT_EQ(LIN_EX_GetStartTime(kLinHandle, 8), -7);
  EXPECT_EQ(LIN_EX_SetStartTime(0x0BADF00D, 0, 5), -4);
  EXPECT_EQ(LIN_EX_SetBusState(0x77000000, 0, 1), -7) << "no bus-state pin on this kind";
  for (uint8_t per_frame : {0, 9})  // a frame carries 1 to 8 bytes
    EXPECT_EQ(LIN_EX_SetSlaveRespData(kLinHandle, 0, 0x21, per_frame, data, 8, 1, 0), -7);
  EXPECT_EQ(LIN_EX_SetSlaveRespData(kLinHandle, 0, 0x21, 8, nullptr, 8, 1, 0), -7);
  ASSERT_EQ(LIN_EX_Init(kLinHandle, 1, 100, 1), 0);
  TypeParam::clear_transfers(kLinHandle);
  EXPECT_EQ(LIN_EX_MasterSync(kLinHandle, 1, &m, out, 1), -7) << "100 baud";
  EXPECT_TRUE(this->requests().empty());
  adapter->faults().next_reply({sim::ReplyFault::Kind::kAnnounceLength, 27, 0xF11});
  EXPECT_EQ(LIN_EX_MasterGetSchState(kLinHandle, 0), -4);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kAnnounceLength, 1, 0xF0D});
  EXPECT_EQ(LIN_EX_MasterStopSch(kLinHandle, 0), -4);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kShort, 10, 0xF07});
  EXPECT_EQ(LIN_EX_MasterRead(kLinHandle, 0, 0x21, data), -4) << "half a record";
  LIN_EX_MSG schedule[128];
  adapter->faults().next_reply({sim::ReplyFault::Kind::kAnnounceLength, 128 * 20, 0xF0E});
  EXPECT_EQ(LIN_EX_MasterGetSch(kLinHandle, 0, schedule), 128) << "128 records fit";
  adapter->faults().next_reply({sim::ReplyFault::Kind::kAnnounceLength, 129 * 20, 0xF0E});
  EXPECT_EQ(LIN_EX_MasterGetSch(kLinHandle, 0, schedule), 0) << "129 records do not fit";
  EXPECT_EQ(LIN_EX_Stop(kLinHandle, 0), 0);
  EXPECT_EQ(LIN_EX_MasterSync(kLinHandle, 0, &m, out, 1), -5);
}

// A master read takes its frame's time on the bus, in the host's time too: however fast the host
// polls, no more frames pass than the bus carries. The shortest frame is a header: a 13-bit break,
// its delimiter, sync and PID, 34 bit times, so a span of S seconds at 19200 baud holds at most
// S x 19200 / 34 + 1 frames.
TYPED_TEST_P(LinCases, MasterReadsTakeBusTime) {
  this->open_master();
  LIN_EX_MSG chunk[VARNEL_LIN_FETCH_SIZE];
  while (LIN_EX_GetMsg(kLinHandle, 0, chunk, VARNEL_LIN_FETCH_SIZE) > 0) {
  }
  uint8_t data[8];
  const auto start = std::chrono::steady_clock::now();
  int reads = 0;
  while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(300)) {
    ASSERT_EQ(LIN_EX_MasterRead(kLinHandle, 0, 0x22, data), 0) << "nobody answers 22";
    ++reads;
  }
  const double span_s =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  size_t frames = 0;
  for (int n; (n = LIN_EX_GetMsg(kLinHandle, 0, chunk, VARNEL_LIN_FETCH_SIZE)) > 0;)
    frames += size_t(n);
  EXPECT_EQ(frames, size_t(reads)) << "every read is one frame on the bus";
  EXPECT_LE(double(reads), span_s * 19200 / 34 + 1) << span_s;
}

// A reply whose length word is negative brings no record back: an error, never "all of them".
TYPED_TEST_P(LinCases, NegativeReplyLengthsBringNoRecords) {
  Adapter adapter = this->fresh_adapter(kLinHandle);
  adapter->state<sim::DeviceModel>().firmware_version = 0x0105001D;  // the old commands too
  LIN_CONFIG config{19200, 0, 1, 0};
  ASSERT_EQ(LIN_Init(kLinHandle, 0, &config), 0);
  ASSERT_EQ(LIN_EX_Init(kLinHandle, 1, 19200, 1), 0);
  uint8_t data[2] = {1, 2};
  LIN_EX_MSG in[3] = {lin_record(LIN_EX_MSG_TYPE_BK, 0), lin_record(LIN_EX_MSG_TYPE_MR, 0x21),
                      lin_record(LIN_EX_MSG_TYPE_MW, 0x22, {5})},
             out[3];
  LIN_MSG old[VARNEL_LIN_LEGACY_FETCH_SIZE];
  const auto with_length = [&](uint32_t length, uint32_t command) {
    adapter->faults().next_reply({sim::ReplyFault::Kind::kAnnounceLength, length, command});
  };
  for (uint32_t length : {0xFFFFFFFFu, 0xFFFFFFECu, 0x80000000u}) {  // -1, -20, INT_MIN
    with_length(length, 0xF07);
    EXPECT_EQ(LIN_EX_MasterWrite(kLinHandle, 1, 0x22, data, 2, LIN_EX_CHECK_EXT), -4) << length;
    with_length(length, 0xF07);
    EXPECT_EQ(LIN_EX_MasterSync(kLinHandle, 1, in, out, 3), -4) << length;
    with_length(length, 0xF04);
    EXPECT_EQ(LIN_SlaveGetData(kLinHandle, 0, old), -4) << length;
  }
}

// Firmware 1.5.0.30 and later: the older calls become LIN_EX_ records (writes of 3C classic,
// reads of 3C still enhanced); before it, the old commands with their 11-byte records.
TYPED_TEST_P(LinCases, OlderCallsOnBothFirmwareGenerations) {
  LIN_CONFIG config{19200, 7, 1, 9};
  LIN_MSG write{0x3C, 2, {1, 2}, 0}, read[2] = {{0x3C, 0, {}, 0}, {0x21, 0, {}, 0}};
  for (uint32_t firmware : {0x0105001Eu, 0x0105001Du}) {
    Adapter adapter = this->fresh_adapter(kLinHandle);
    adapter->state<sim::DeviceModel>().firmware_version = firmware;
    ASSERT_EQ(LIN_Init(kLinHandle, 0, &config), 0);
    ASSERT_EQ(LIN_Write(kLinHandle, 0, &write, 1), 0);
    ASSERT_EQ(LIN_Read(kLinHandle, 0, read, 2), 0);
    EXPECT_EQ(read[1].DataLen, 5) << "four bytes and the checksum";
    EXPECT_EQ(LinBytes(read[1].Data, read[1].Data + 4), (LinBytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_EQ(read[1].Check, 0xF3);
    EXPECT_EQ(read[0].DataLen, 0) << "nobody answers 3C";
    std::vector<LinBytes> sent;
    for (auto& r : this->requests())
      if (r[2] == 0xF) sent.push_back(LinBytes(r.begin() + 3, r.end()));
    if (firmware == 0x0105001E) {
      ASSERT_EQ(sent.size(), 4u);                             // init, power, write, read
      EXPECT_EQ(sent[1], (LinBytes{0xA, 0, 0, 0, 2, 1, 0}));  // 12 V on channel 0
      EXPECT_EQ(sent[2][5 + 1 + 5], LIN_EX_CHECK_STD) << "a write of 3C is classic";
      EXPECT_EQ(sent[2][5 + 1 + 17], 0xFC);
      EXPECT_EQ(sent[3][5 + 1 + 5], LIN_EX_CHECK_EXT) << "a read of 3C is enhanced";
      LIN_MSG seen[VARNEL_LIN_LEGACY_FETCH_SIZE];
      std::memset(seen, 0xEE, sizeof seen);
      ASSERT_EQ(LIN_SlaveGetData(kLinHandle, 0, seen), 3);  // 3C written, 3C and 21 read
      EXPECT_EQ(LinBytes(seen[2].Data, seen[2].Data + 4), (LinBytes{0x11, 0x22, 0x33, 0x44}))
          << "a frame with a good enhanced sum keeps its data";
      EXPECT_EQ(seen[3].ID, 0xEE) << "nothing written past the frames read";
    } else {
      ASSERT_EQ(sent.size(), 3u);
      EXPECT_EQ(sent[0], (LinBytes{0, 0, 0, 0, 8, 0, 0, 0, 0x4B, 0, 7, 1, 9}));
      EXPECT_EQ(read[1].ID, 0x61) << "the old firmware reports the protected identifier";
      EXPECT_EQ(sent[1], (LinBytes{1, 0, 0, 0, 12, 0, 0x3C, 2, 1, 2, 0, 0, 0, 0, 0, 0, 0}));
      EXPECT_EQ(sent[2], (LinBytes{2, 0, 0, 0, 3, 0, 0x3C, 0x21}));
      LIN_MSG seen[VARNEL_LIN_LEGACY_FETCH_SIZE];
      ASSERT_EQ(LIN_SlaveGetData(kLinHandle, 0, seen), 3);
      EXPECT_EQ(seen[0].DataLen, 3);
      EXPECT_EQ(seen[0].Check, 0xFC) << "the old firmware's classic sum for 3C";
      EXPECT_EQ(LIN_Write(kLinHandle, 2, &write, 1), -7) << "old firmware has two channels";
    }
  }
}

REGISTER_TYPED_TEST_SUITE_P(LinCases, RequestsCarryTheirLayoutAndRecordsAsTheyLie,
                            MasterReadsAreJudgedOnTheChecksumTheNodeSent,
                            LongListsAreSplitWhereTheAdaptersLimitFalls,
                            ReplyTimeOutFollowsTheBaudRate, TheSlaveTableAnswersAnotherChannel,
                            SchedulesPlayInBusTime, BadInputAndBadRepliesGiveTheirCodes,
                            NegativeReplyLengthsBringNoRecords, MasterReadsTakeBusTime,
                            OlderCallsOnBothFirmwareGenerations);

}  // namespace testing_support
