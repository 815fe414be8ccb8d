// Classic CAN channel against the virtual adapter: init bytes, send chunking and record
// rewriting, pulls, queue bounds, status and start times.
#include <cstring>

#include "can/can_internal.h"
#include "core/clock.h"
#include "wire/can_fixture.h"

using testing_support::can_msg;
using testing_support::counted_frame;
using testing_support::counter_of;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint32_t kHandle = 0x12345670;  // classic adapter, 42 MHz table

class CanWire : public testing_support::CanTest {};

CAN_MSG record_at(const Bytes& payload, size_t offset) {
  CAN_MSG msg;
  std::memcpy(&msg, payload.data() + offset, sizeof msg);
  return msg;
}

}  // namespace

// channel, 0, option1, 0, options 2-4, mode, sjw-1, bs1-1, bs2-1, prescaler high, low
TEST_F(CanWire, InitSendsTableRegistersZeroQuantaAsOneAndMaskedOptions) {
  auto adapter = open(kHandle);
  ASSERT_EQ(CAN_Init2(kHandle, 1, 125000), 0);
  EXPECT_TRUE(sim::can_controller(*adapter, 1)->started());
  EXPECT_EQ(sim::can_controller(*adapter, 1)->timing().nominal_bps, 125000u);
  CAN_INIT_CONFIG config{0x1234, 0, 2, 0, 0x03, 0xFF, 0xFE, 0x01, 0xFF};
  ASSERT_EQ(CAN_Init(kHandle, 3, &config), 0);  // channel 3 reaches the device as bit 0
  auto init = packets(*adapter, 0x0C00);
  ASSERT_EQ(init.size(), 2u);
  EXPECT_EQ(init[0].payload, (Bytes{1, 0, 1, 0, 0, 0, 0, 0x80, 1, 10, 3, 0x00, 0x15}));
  EXPECT_EQ(init[1].payload, (Bytes{1, 0, 1, 0, 0, 1, 1, 0x03, 1, 1, 1, 0x12, 0x34}));
}

TEST_F(CanWire, UnknownRatesChannelTwoAndUnknownHandlesAreRefused) {
  auto adapter = open(kHandle);
  for (uint32_t rate : {110000u, 0u, 1000001u, 666666u})
    EXPECT_EQ(CAN_Init2(kHandle, 0, rate), -4) << rate;
  EXPECT_TRUE(adapter->received().empty());
  CAN_MSG msgs[1] = {};
  CAN_STATUS status{};
  EXPECT_EQ(CAN_GetStartTime(kHandle, 2), -4);
  EXPECT_EQ(CAN_SetStartTime(kHandle, 2, 1), -4);
  EXPECT_EQ(CAN_ResetStartTime(kHandle, 2), -4);
  EXPECT_EQ(CAN_SendMsg(kHandle, 2, msgs, 1), -4);
  EXPECT_EQ(CAN_GetMsgWithSize(kHandle, 3, msgs, 1), 0);  // masked to channel 1: nothing there
  EXPECT_EQ(CAN_StartGetMsg(kHandle, 2), -4);
  EXPECT_EQ(CAN_GetStatus(kHandle, 2, &status), -4);  // the firmware refuses it
  EXPECT_EQ(CAN_GetStartTime(0x0BADF00D, 0), -4);
}

TEST_F(CanWire, InitSetsStartTimeFromDeviceClock) {
  auto adapter = open(kHandle);
  const uint64_t before = varnel::wall_clock_ms();
  ASSERT_EQ(CAN_Init2(kHandle, 0, 500000), 0);
  const int64_t start = CAN_GetStartTime(kHandle, 0);
  // the adapter was plugged a moment ago: its clock is near 0 ms
  EXPECT_LE(start, int64_t(varnel::wall_clock_ms()));
  EXPECT_GT(start, int64_t(before) - 5000);
  EXPECT_EQ(packets(*adapter, 0x0015).size(), 1u);
  EXPECT_EQ(CAN_SetStartTime(kHandle, 0, 1234), 0);
  EXPECT_EQ(CAN_GetStartTime(kHandle, 0), 1234);
}

TEST_F(CanWire, SendChunksOf500AndRewritesCallerFlags) {
  auto adapter = open_at(kHandle, 500000, 2);
  std::vector<CAN_MSG> msgs(1201);
  for (size_t i = 0; i < msgs.size(); ++i) {
    msgs[i] = can_msg(uint32_t(i & 0x7FF), {uint8_t(i), 2, 3});
    msgs[i].TimeStamp = 0xDEADBEEF;
    msgs[i].Flags = (i % 2) ? 0x1F : 0x00;  // remote bit and reserved junk on odd records
  }
  msgs[7].Id = 0x800;  // does not fit 11 bits
  EXPECT_EQ(CAN_SendMsg(kHandle, 1, msgs.data(), uint32_t(msgs.size())), 1201);

  auto sends = packets(*adapter, 0x0C02);
  ASSERT_EQ(sends.size(), 3u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(sends[i].payload.size(), 1u + (i < 2 ? 500 : 201) * 20);
    EXPECT_EQ(sends[i].payload[0], 1);
  }
  EXPECT_EQ(record_at(sends[0].payload, 1).TimeStamp, 0u);
  EXPECT_EQ(record_at(sends[0].payload, 1).Flags, 0);
  EXPECT_EQ(record_at(sends[0].payload, 1 + 20).Flags, 1);  // the remote bit only
  EXPECT_EQ(record_at(sends[0].payload, 1 + 7 * 20).Extended, 1);
  EXPECT_EQ(record_at(sends[2].payload, 1 + 200 * 20).Data[0], uint8_t(1200));
  EXPECT_EQ(msgs[0].Flags, 0x80 | (1 << 5));
  EXPECT_EQ(msgs[1].Flags, 0x80 | (1 << 5) | 1);
  EXPECT_EQ(msgs[7].Extended, 0);  // the caller's identifier fields stay as they were
}

TEST_F(CanWire, SendFailuresAndZeroCount) {
  auto adapter = open(kHandle);
  CAN_MSG msg = can_msg(0x123, {1});
  EXPECT_EQ(CAN_SendMsg(kHandle, 0, &msg, 0), 0);
  EXPECT_TRUE(adapter->received().empty());
  adapter->faults().next_reply({sim::ReplyFault::Kind::kOtherCommand, 0x0C03});
  EXPECT_EQ(CAN_SendMsg(kHandle, 0, &msg, 1), -4);
  usbsim::unplug(kHandle);  // every write fails until the retry period is over
  EXPECT_EQ(CAN_SendMsg(kHandle, 0, &msg, 1), -2);
}

TEST_F(CanWire, FramesSentOnOneChannelArriveOnTheOtherWithoutPoller) {
  open_at(kHandle, 250000, 2);
  CAN_MSG out[2] = {can_msg(0x123, {0xDE, 0xAD, 0xBE, 0xEF}), can_msg(0x1ABCDEF0, {7}, 1)};
  ASSERT_EQ(CAN_SendMsg(kHandle, 0, out, 2), 2);

  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  ASSERT_EQ(CAN_GetMsg(kHandle, 1, in.data()), 2);
  EXPECT_EQ(in[0].Id, 0x123u);
  EXPECT_EQ(in[0].DataLen, 4);
  EXPECT_EQ(Bytes(in[0].Data, in[0].Data + 4), (Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
  EXPECT_EQ(in[0].Flags, 1 << 5);  // channel 1, received
  EXPECT_EQ(in[1].Id, 0x1ABCDEF0u);
  EXPECT_EQ(in[1].Extended, 1);
  EXPECT_LE(in[0].TimeStamp, in[1].TimeStamp);
  EXPECT_EQ(CAN_GetMsg(kHandle, 1, in.data()), 0);  // one fetch per call, nothing left
  EXPECT_EQ(CAN_GetMsg(kHandle, 0, in.data()), 0);  // classic firmware gives no echo
}

TEST_F(CanWire, FetchOfMoreThan5000FramesIsDroppedWhole) {
  auto adapter = open_at(kHandle, 500000);
  sim::can_model(*adapter).fetch_limit[0] = 6000;
  auto peer = this->peer();
  for (uint32_t i = 0; i < 5001; ++i) peer->send(counted_frame(0x100, i));
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  EXPECT_EQ(CAN_GetMsg(kHandle, 0, in.data()), 0);
  EXPECT_EQ(sim::can_controller(*adapter, 0)->pending(), 0u);
  EXPECT_EQ(varnel::can::can_adapter(kHandle, 0)->classic[0].application.size(), 0u);

  for (uint32_t i = 0; i < 5000; ++i) peer->send(counted_frame(0x100, i));  // exactly the bound
  EXPECT_EQ(CAN_GetMsg(kHandle, 0, in.data()), 5000);
}

TEST_F(CanWire, GetMsgWithSizeStopsAtCapacityAndReportsFetchErrors) {
  auto adapter = open_at(kHandle, 500000);
  auto peer = this->peer();
  for (uint32_t i = 0; i < 10; ++i) peer->send(counted_frame(0x300, i));
  CAN_MSG in[10];
  ASSERT_EQ(CAN_GetMsgWithSize(kHandle, 0, in, 4), 4);
  EXPECT_EQ(counter_of(in[3]), 3u);
  ASSERT_EQ(CAN_GetMsgWithSize(kHandle, 0, in, 10), 6);
  EXPECT_EQ(counter_of(in[0]), 4u);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kOtherCommand, 0x0C04});
  EXPECT_EQ(CAN_GetMsgWithSize(kHandle, 0, in, 10), -4);
}

// Clear drops the host queue and what waits in the device; Stop sends its command and empties
// the queue too.
TEST_F(CanWire, ClearAndStopDropQueuedFrames) {
  auto adapter = open_at(kHandle, 500000);
  auto peer = this->peer();
  auto& channel = varnel::can::can_adapter(kHandle, 0)->classic[0];
  CAN_MSG none[1];
  peer->send(counted_frame(0x10, 1));
  ASSERT_EQ(CAN_GetMsgWithSize(kHandle, 0, none, 0), 0);  // one frame queued on the host
  peer->send(counted_frame(0x10, 2));                     // one waiting in the device
  EXPECT_EQ(CAN_ClearMsg(kHandle, 0), 0);
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  EXPECT_EQ(CAN_GetMsg(kHandle, 0, in.data()), 0);
  EXPECT_EQ(channel.diagnostic.size(), 2u);  // left alone

  peer->send(counted_frame(0x10, 3));
  ASSERT_EQ(CAN_GetMsgWithSize(kHandle, 0, none, 0), 0);
  ASSERT_EQ(CAN_Stop(kHandle, 0), 0);
  EXPECT_EQ(packets(*adapter, 0x0C09).size(), 1u);
  EXPECT_FALSE(sim::can_controller(*adapter, 0)->started());
  EXPECT_EQ(channel.application.size(), 0u);
}

TEST_F(CanWire, StatusReportsErrorCountersOfAnUnacknowledgedSender) {
  auto adapter = open_at(kHandle, 500000);  // nobody else on the bus
  CAN_MSG msgs[3] = {can_msg(1, {}), can_msg(2, {}), can_msg(3, {})};
  ASSERT_EQ(CAN_SendMsg(kHandle, 0, msgs, 3), 3);  // accepted, then unacknowledged
  CAN_STATUS status{};
  ASSERT_EQ(CAN_GetStatus(kHandle, 0, &status), 0);
  EXPECT_EQ(status.TxErrorCounter, 24);
  EXPECT_EQ(status.RxErrorCounter, 0);
  EXPECT_EQ(status.LastErrorCode, 3);
  EXPECT_EQ(status.ErrorFlags, 0);
  EXPECT_EQ(status.ErrorStatus, (24u << 16) | (3u << 4));
  EXPECT_EQ(packets(*adapter, 0x0C04)[0].payload, Bytes{0});

  std::vector<CAN_MSG> many(14, can_msg(4, {}));
  CAN_SendMsg(kHandle, 0, many.data(), uint32_t(many.size()));  // 17 x 8: error passive
  ASSERT_EQ(CAN_GetStatus(kHandle, 0, &status), 0);
  EXPECT_EQ(status.TxErrorCounter, 128);
  EXPECT_EQ(status.ErrorFlags, 3);
}

TEST_F(CanWire, SynchronousSendUsesSecondEndpointAndPollsForCompletion) {
  auto adapter = open_at(kHandle, 500000);
  auto peer = this->peer();
  std::vector<CAN_MSG> msgs(300, can_msg(0x55, {1, 2}));
  usbsim::clear_transfers(kHandle);
  EXPECT_EQ(CAN_SendMsgSynch(kHandle, 0, msgs.data(), 300), 300);
  EXPECT_EQ(peer->received_count(), 300u);
  auto chunks = packets(*adapter, 0x0C0A);
  ASSERT_EQ(chunks.size(), 2u);
  EXPECT_EQ(chunks[0].payload.size(), 12u + 250 * 20);
  EXPECT_EQ(Bytes(chunks[1].payload.begin(), chunks[1].payload.begin() + 12),
            (Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 50}));
  EXPECT_EQ(bulk_on(kHandle, 0x02).size(), 2u);
  EXPECT_GE(packets(*adapter, 0x0C0B).size(), 2u);
  EXPECT_EQ(msgs[299].Flags, 0x80);
  peer.reset();  // no acknowledging node: the device gives up and nothing went out
  EXPECT_EQ(CAN_SendMsgSynch(kHandle, 0, msgs.data(), 5), 0);
}

TEST_F(CanWire, TimedSendKeepsGapsAndLeavesCallerRecords) {
  auto adapter = open_at(kHandle, 500000);
  auto peer = this->peer();
  CAN_MSG msgs[2] = {can_msg(0x900, {1, 2, 3}), can_msg(0x10, {4})};
  msgs[0].TimeStamp = 1500;
  msgs[0].Flags = 0x61;
  msgs[1].DataLen = 12;
  const CAN_MSG before0 = msgs[0];
  EXPECT_EQ(CAN_SendMsgWithTime(kHandle, 0, msgs, 2), 2);
  EXPECT_EQ(std::memcmp(&before0, &msgs[0], sizeof before0), 0);
  auto sends = packets(*adapter, 0x0C0C);
  ASSERT_EQ(sends.size(), 1u);
  const CAN_MSG copy0 = record_at(sends[0].payload, 1), copy1 = record_at(sends[0].payload, 21);
  EXPECT_EQ(copy0.TimeStamp, 1500u);
  EXPECT_EQ(copy0.Flags, 1);
  EXPECT_EQ(copy0.Extended, 1);
  EXPECT_EQ(copy1.DataLen, 8);
}

TEST_F(CanWire, PollerDeliversPeriodicPeerFramesAndStops) {
  auto adapter = open_at(kHandle, 500000);
  sim::CanFrame frame;
  frame.id = 0x321;
  frame.len = 8;
  auto peer = this->peer();
  peer->add_periodic(frame, 1000, 50, true);  // every millisecond of bus time
  bus_->advance_us(60000);                    // bus and device clock move on together
  adapter->clock().advance_us(60000);
  ASSERT_EQ(CAN_StartGetMsg(kHandle, 0), 0);
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  int got = 0;
  for (int tries = 0; tries < 300 && got < 50; ++tries) {
    got += CAN_GetMsg(kHandle, 0, in.data() + got);
    if (got < 50) varnel::sleep_for_ms(5);
  }
  ASSERT_EQ(got, 50);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(counter_of(in[size_t(i)]), uint32_t(i));
  // time stamps (10 us units) follow the 1 ms period
  EXPECT_NEAR(double(in[49].TimeStamp - in[0].TimeStamp), 49 * 100.0, 49 * 5.0);
  EXPECT_EQ(CAN_StopGetMsg(kHandle, 0), 0);
  EXPECT_FALSE(varnel::can::classic_pollers().polled(kHandle, 0));
}

TEST_F(CanWire, DifferentBitRatesDoNotTalkAndCountReceiveErrors) {
  open_at(kHandle, 500000);
  ASSERT_EQ(CAN_Init2(kHandle, 1, 250000), 0);
  CAN_MSG msg = can_msg(0x1, {1});
  ASSERT_EQ(CAN_SendMsg(kHandle, 0, &msg, 1), 1);
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  EXPECT_EQ(CAN_GetMsg(kHandle, 1, in.data()), 0);
  CAN_STATUS status{};
  ASSERT_EQ(CAN_GetStatus(kHandle, 1, &status), 0);
  EXPECT_EQ(status.RxErrorCounter, 1);
}
