// CAN FD channel and the classic calls on CAN FD adapters, against the virtual adapter.
#include <cstring>

#include "core/bytes.h"
#include "core/clock.h"
#include "wire/can_fixture.h"

using testing_support::can_msg;
using testing_support::CanTest;

namespace {

constexpr uint32_t kFd40 = 0x53000010;   // USB, 40 MHz tables
constexpr uint32_t kFd160 = 0x55000011;  // bit 0 set: a USB handle with the 160 MHz tables

class CanFdWire : public CanTest {};

CANFD_MSG fd_msg(uint32_t id, uint8_t len) {
  CANFD_MSG msg{};
  msg.Id = id;
  msg.DataLen = len;
  for (int i = 0; i < len; ++i) msg.Data[i] = uint8_t(0xA0 + i);
  return msg;
}

}  // namespace

TEST_F(CanFdWire, Init2SendsChannelAndTheTwentyByteRecord) {
  auto adapter = open(kFd160);
  ASSERT_EQ(CANFD_Init2(kFd160, 1, 500000, 2000000, 0, 1), 0);
  auto init = packets(*adapter, 0x4000);
  ASSERT_EQ(init.size(), 1u);
  std::vector<uint8_t> want = {1, 0, 1, 3, 0, 20, 11, 4, 2, 4, 15, 4, 2, 0};
  want.resize(21, 0);
  EXPECT_EQ(init[0].payload, want);
  auto timing = sim::can_controller(*adapter, 1)->timing();
  EXPECT_EQ(timing.nominal_bps, 500000u);
  EXPECT_EQ(timing.data_bps, 2000000u);
  EXPECT_GT(CANFD_GetStartTime(kFd160, 1), 0);
  EXPECT_EQ(CANFD_Init2(kFd160, 0, 500000, 7000000, 1, 1), -4);
  EXPECT_EQ(packets(*adapter, 0x4000).size(), 1u);
}

TEST_F(CanFdWire, SendUsesLengthCodesAndMarksFdFormatInCallerRecords) {
  auto adapter = open(kFd40);
  ASSERT_EQ(CANFD_Init2(kFd40, 0, 1000000, 5000000, 1, 1), 0);
  ASSERT_EQ(CANFD_Init2(kFd40, 1, 1000000, 5000000, 1, 1), 0);
  CANFD_MSG msgs[2] = {fd_msg(0x80000000u | 0x1ABCDEF0, 20), fd_msg(0x123, 8)};
  ASSERT_EQ(CANFD_SendMsg(kFd40, 0, msgs, 2), 2);
  EXPECT_EQ(msgs[0].Flags & 0x04, 0x04);
  EXPECT_EQ(msgs[1].Flags & 0x04, 0);
  auto sends = packets(*adapter, 0x4002);
  ASSERT_EQ(sends.size(), 1u);
  const auto& p = sends[0].payload;
  ASSERT_EQ(p.size(), 1u + 12 + 20 + 12 + 8);
  EXPECT_EQ(varnel::get_be32(p.data() + 5) & 15, 11u);        // length code for 20 bytes
  EXPECT_EQ(varnel::get_be32(p.data() + 5) >> 9 & 0x7F, 0u);  // index in the chunk
  EXPECT_EQ(varnel::get_be32(p.data() + 1 + 32 + 4) >> 9 & 0x7F, 1u);
  EXPECT_GE(packets(*adapter, 0x400A).size(), 1u);

  std::vector<CANFD_MSG> in(100);
  ASSERT_EQ(CANFD_GetMsg(kFd40, 1, in.data(), 100), 2);
  EXPECT_EQ(in[0].Id, 0x80000000u | 0x1ABCDEF0);
  EXPECT_EQ(in[0].DataLen, 20);
  EXPECT_EQ(in[0].Data[19], 0xA0 + 19);
  EXPECT_EQ(in[0].Flags, 0x04 | 0x20);
  // the sending channel gets echoes marked with bit 7
  ASSERT_EQ(CANFD_GetMsg(kFd40, 0, in.data(), 100), 2);
  EXPECT_EQ(in[1].Flags & 0x80, 0x80);
  EXPECT_EQ(in[1].Id, 0x123u);
  std::vector<CANFD_MSG> many(300, fd_msg(0x10, 4));  // in chunks of 128
  ASSERT_EQ(CANFD_SendMsg(kFd40, 0, many.data(), 300), 300);
  ASSERT_EQ(packets(*adapter, 0x4002).size(), 1u + 3);
  EXPECT_EQ(packets(*adapter, 0x4002)[3].payload.size(), 1u + 44 * 16);
  in.resize(400);
  EXPECT_EQ(CANFD_GetMsg(kFd40, 1, in.data(), 400), 300);  // all of them went on the bus
}

TEST_F(CanFdWire, UnconfirmedChunkTimesOutWithAbort) {
  auto adapter = open(kFd40);
  ASSERT_EQ(CANFD_Init2(kFd40, 0, 1000000, 5000000, 1, 1), 0);
  sim::can_model(*adapter).stall_sends = true;
  CANFD_MSG msgs[3] = {fd_msg(1, 1), fd_msg(2, 2), fd_msg(3, 3)};
  EXPECT_EQ(CANFD_SendMsgTimeout(kFd40, 0, msgs, 3, 30), 0);
  EXPECT_EQ(packets(*adapter, 0x4009).size(), 1u);
}

TEST_F(CanFdWire, UnacknowledgedSendGivesUpAndRaisesEvent) {
  auto adapter = open(kFd40);
  ASSERT_EQ(CANFD_Init2(kFd40, 0, 1000000, 5000000, 1, 1), 0);  // alone on the bus
  std::vector<CANFD_MSG> msgs(20, fd_msg(1, 1));
  EXPECT_EQ(CANFD_SendMsg(kFd40, 0, msgs.data(), 20), 0);
  CAN_STATUS status{};
  ASSERT_EQ(CAN_GetStatus(kFd40, 0, &status), 0);
  EXPECT_EQ(status.TxErrorCounter, 8);
  EXPECT_EQ(packets(*adapter, 0x4005)[0].payload, std::vector<uint8_t>{0});
  for (int i = 0; i < 15; ++i) CANFD_SendMsg(kFd40, 0, msgs.data(), 1);  // to error passive
  std::vector<CANFD_MSG> in(10);
  const int n = CANFD_GetMsg(kFd40, 0, in.data(), 10);
  ASSERT_GE(n, 1);
  EXPECT_EQ(in[size_t(n) - 1].Id, VARNEL_CANFD_EVENT_ID);
  EXPECT_EQ(in[size_t(n) - 1].Data[3], 3);  // warning and passive
}

TEST_F(CanFdWire, ClassicCallsRideOnCanFd) {
  auto adapter = open_at(kFd40, 500000, 2);
  EXPECT_TRUE(packets(*adapter, 0x0C00).empty());
  auto init = packets(*adapter, 0x4000);
  ASSERT_EQ(init.size(), 2u);
  std::vector<uint8_t> want = {0, 0, 0, 3, 1, 5, 11, 4, 2, 5, 11, 4, 2};
  want.resize(21, 0);
  EXPECT_EQ(init[0].payload, want);

  CAN_MSG out[2] = {can_msg(0x321, {1, 2, 3}), can_msg(0x900, {4})};
  ASSERT_EQ(CAN_SendMsg(kFd40, 0, out, 2), 2);
  EXPECT_EQ(out[1].Flags, 0x80);
  auto sends = packets(*adapter, 0x4002);
  ASSERT_EQ(sends.size(), 1u);
  EXPECT_EQ(varnel::get_be32(sends[0].payload.data() + 1 + 15 + 4) & (1u << 4), 1u << 4);

  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  ASSERT_EQ(CAN_GetMsg(kFd40, 1, in.data()), 2);
  EXPECT_EQ(in[0].Id, 0x321u);
  EXPECT_EQ(in[0].Flags, 0x20);
  EXPECT_EQ(in[1].Id, 0x900u);
  EXPECT_EQ(in[1].Extended, 1);

  // time stamps: the classic value is the CAN FD one divided by 10
  auto peer = this->peer();
  const sim::CanFrame frame = testing_support::counted_frame(0x42, 0);
  peer->send(frame);
  std::vector<CANFD_MSG> raw(10);
  ASSERT_EQ(CANFD_GetMsg(kFd40, 1, raw.data(), 10), 1);
  peer->send(frame);
  ASSERT_EQ(CAN_GetMsg(kFd40, 1, in.data()), 1);
  const uint64_t fd_stamp = raw[0].TimeStamp | uint64_t(raw[0].TimeStampHigh) << 32;
  const uint64_t classic_stamp = in[0].TimeStamp | uint64_t(in[0].TimeStampHigh) << 32;
  EXPECT_NEAR(double(classic_stamp), double(fd_stamp) / 10, 100000);  // within a second
  EXPECT_GE(classic_stamp, fd_stamp / 10);

  EXPECT_EQ(CAN_Stop(kFd40, 1), 0);
  EXPECT_EQ(packets(*adapter, 0x400C).size(), 1u);
  EXPECT_TRUE(packets(*adapter, 0x0C09).empty());
}

TEST_F(CanFdWire, PollerFillsTheCanFdQueue) {
  auto adapter = open(kFd160);
  ASSERT_EQ(CANFD_Init2(kFd160, 0, 500000, 2000000, 1, 1), 0);
  auto peer = sim::CanPeer::create(bus_, {500000, 2000000});
  ASSERT_EQ(CAN_StartGetMsg(kFd160, 0), 0);  // the classic call starts the CAN FD poller
  sim::CanFrame frame;
  frame.fd = frame.brs = true;
  frame.len = 64;
  for (int i = 0; i < 100; ++i) {
    frame.id = uint32_t(i);
    peer->send(frame);
  }
  std::vector<CANFD_MSG> in(200);
  int got = 0;
  for (int tries = 0; tries < 200 && got < 100; ++tries) {
    got += CANFD_GetMsg(kFd160, 0, in.data() + got, 200 - got);
    if (got < 100) varnel::sleep_for_ms(5);
  }
  ASSERT_EQ(got, 100);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(in[size_t(i)].Id, uint32_t(i));
  EXPECT_EQ(in[0].DataLen, 64);
  EXPECT_EQ(in[0].Flags, 0x04 | 0x01);
  EXPECT_EQ(CANFD_StopGetMsg(kFd160, 0), 0);
}

// The device keeps each record's gap (us) after the frame: the receiving channel's device time
// stamps (classic units of 10 us) lie at least that far apart, on both adapter kinds.
TEST_F(CanFdWire, TimedSendKeepsTheGapsInBusTime) {
  struct Case {
    uint32_t handle;
    bool fd_call;
    uint8_t port;
  };
  for (const Case c :
       {Case{0x12345670, false, 1}, Case{kFd40, false, 2}, Case{0x53000030, true, 3}}) {
    SCOPED_TRACE(testing::Message() << std::hex << c.handle);
    opened_.push_back(c.handle);
    auto adapter = plug_and_open(c.handle, {1, {c.port}});
    ASSERT_EQ(CAN_Init2(c.handle, 0, 500000), 0);
    ASSERT_EQ(CAN_Init2(c.handle, 1, 500000), 0);
    const uint32_t gaps[3] = {20000, 5000, 0};
    CAN_MSG msgs[3];
    CANFD_MSG fd[3];
    for (int i = 0; i < 3; ++i) {
      msgs[i] = can_msg(0x100 + uint32_t(i), {uint8_t(i)});
      msgs[i].TimeStamp = gaps[i];
      fd[i] = fd_msg(0x100 + uint32_t(i), 1);
      fd[i].TimeStamp = gaps[i];
    }
    const CANFD_MSG fd_before = fd[0];
    EXPECT_EQ(c.fd_call ? CANFD_SendMsgWithTime(c.handle, 0, fd, 3)
                        : CAN_SendMsgWithTime(c.handle, 0, msgs, 3),
              3);
    EXPECT_EQ(std::memcmp(&fd_before, &fd[0], sizeof fd_before), 0);
    if (c.handle != 0x12345670) {  // word 2 of the first device record carries the gap, big-endian
      auto sends = packets(*adapter, 0x400B);
      ASSERT_EQ(sends.size(), 1u);
      EXPECT_EQ(varnel::get_be32(sends[0].payload.data() + 1 + 8), 20000u);
    }
    std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
    ASSERT_EQ(CAN_GetMsg(c.handle, 1, in.data()), 3);
    EXPECT_GE(in[1].TimeStamp - in[0].TimeStamp, 2000u);
    EXPECT_GE(in[2].TimeStamp - in[1].TimeStamp, 500u);
  }
}
