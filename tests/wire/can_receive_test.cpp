// The receive path on classic and CAN FD adapters alike, through the classic calls: pollers that
// follow their handle through rescans, and the losses the receive statistics report.
#include <thread>

#include "core/clock.h"
#include "wire/can_fixture.h"

using testing_support::CanTest;

namespace {

struct Classic {
  static constexpr uint32_t kA = 0x12345670, kB = 0x12345680, kFetch = 0x0C03;
};
struct Fd {
  static constexpr uint32_t kA = 0x53000010, kB = 0x53000020, kFetch = 0x4003;
};

template <typename Kind>
class CanReceive : public CanTest {
 protected:
  static sim::CanFrame frame(uint32_t id) { return testing_support::counted_frame(id, 0); }
  // The identifiers read from the handle's channel 0 until `last` came (or 3 s passed).
  static std::vector<uint32_t> ids_until(uint32_t handle, uint32_t last) {
    std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
    std::vector<uint32_t> ids;
    for (int tries = 0; tries < 300 && (ids.empty() || ids.back() != last);
         ++tries, varnel::sleep_for_ms(10))
      for (int i = 0, n = CAN_GetMsg(handle, 0, in.data()); i < n; ++i) ids.push_back(in[i].Id);
    return ids;
  }
  static VARNEL_RECEIVE_STATS stats(uint32_t handle) {
    VARNEL_RECEIVE_STATS s{};
    EXPECT_EQ(VARNEL_CAN_GetReceiveStats(handle, 0, &s), 0);
    return s;
  }
};
using Kinds = ::testing::Types<Classic, Fd>;
TYPED_TEST_SUITE(CanReceive, Kinds);

}  // namespace

TYPED_TEST(CanReceive, PollerFollowsItsHandleThroughUnplugRescanAndReplug) {
  constexpr uint32_t A = TypeParam::kA, B = TypeParam::kB;
  this->open(A);
  auto b = this->plug_and_open(B, {1, {2}});
  this->opened_.push_back(B);
  ASSERT_EQ(CAN_Init2(B, 0, 500000), 0);
  auto peer = this->peer();
  ASSERT_EQ(CAN_StartGetMsg(B, 0), 0);
  peer->send(this->frame(0x100));  // fetched into B's queue, left unread
  for (int i = 0; i < 300 && sim::can_controller(*b, 0)->pending() > 0; ++i)
    varnel::sleep_for_ms(10);

  usbsim::unplug(A);
  USB_ScanDevice(nullptr);  // B takes A's device index, and keeps its unread frame
  peer->send(this->frame(0x101));
  EXPECT_EQ(this->ids_until(B, 0x101), (std::vector<uint32_t>{0x100, 0x101}));
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  EXPECT_EQ(CAN_GetMsg(A, 0, in.data()), -4);

  usbsim::plug(A);
  USB_ScanDevice(nullptr);  // A comes back at B's old index
  ASSERT_TRUE(USB_OpenDevice(A));
  peer->send(this->frame(0x102));
  EXPECT_EQ(this->ids_until(B, 0x102), std::vector<uint32_t>{0x102});
  EXPECT_EQ(CAN_GetMsg(A, 0, in.data()), 0);  // nothing of B's, old or new
  EXPECT_EQ(this->stats(B).PollerRunning, 1);
}

TYPED_TEST(CanReceive, PollerStopsWhenItsHandleIsGone) {
  constexpr uint32_t A = TypeParam::kA;
  this->open_at(A, 500000);
  ASSERT_EQ(CAN_StartGetMsg(A, 0), 0);
  usbsim::unplug(A);
  USB_ScanDevice(nullptr);
  ASSERT_EQ(CAN_StopGetMsg(A, 0), 0);  // the thread ended: stopping it still works
}

TYPED_TEST(CanReceive, FullQueuesDropTheOldestAndStatsCountEveryOne) {
  constexpr uint32_t A = TypeParam::kA;
  auto adapter = this->open_at(A, 500000);
  auto peer = this->peer();
  for (uint32_t i = 0; i < VARNEL_CAN_QUEUE_SIZE + 3; ++i) peer->send(this->frame(i & 0x7FF));
  CAN_MSG none[1];
  while (sim::can_controller(*adapter, 0)->pending() > 0)
    ASSERT_EQ(CAN_GetMsgWithSize(A, 0, none, 0), 0);  // pulls into the queues, takes none
  const VARNEL_RECEIVE_STATS s = this->stats(A);
  EXPECT_EQ(s.ApplicationDropped, 3u);
  EXPECT_EQ(s.DiagnosticDropped, 3u);
  EXPECT_EQ(s.FetchesDropped, 0u);
  EXPECT_EQ(s.PollerRunning, 0);
  EXPECT_EQ(s.StatusResult, 0);
  ASSERT_EQ(CAN_GetMsgWithSize(A, 0, none, 1), 1);
  EXPECT_EQ(none[0].Id, 3u);  // the three oldest went
}

TYPED_TEST(CanReceive, StatsReportTheFetchFailureThatStoppedThePoller) {
  constexpr uint32_t A = TypeParam::kA;
  auto adapter = this->open_at(A, 500000);
  // the poller's next fetch (and only a fetch) gets the reply of another command
  adapter->faults().next_reply({sim::ReplyFault::Kind::kOtherCommand, 0x0015, TypeParam::kFetch});
  ASSERT_EQ(CAN_StartGetMsg(A, 0), 0);
  VARNEL_RECEIVE_STATS s{};
  for (int i = 0; i < 300 && (s = this->stats(A)).PollerRunning; ++i) varnel::sleep_for_ms(10);
  EXPECT_EQ(s.PollerRunning, 0);
  EXPECT_EQ(s.PollerStopResult, -4);
  ASSERT_EQ(CAN_StartGetMsg(A, 0), 0);  // a new start forgets the old reason
  EXPECT_EQ(this->stats(A).PollerStopResult, 0);
}

TYPED_TEST(CanReceive, StatsRefuseBadArguments) {
  this->open(TypeParam::kA);
  VARNEL_RECEIVE_STATS s{};
  EXPECT_EQ(VARNEL_CAN_GetReceiveStats(TypeParam::kA, 0, nullptr), -7);
  EXPECT_EQ(VARNEL_CAN_GetReceiveStats(TypeParam::kA, 2, &s), -4);
  EXPECT_EQ(VARNEL_CAN_GetReceiveStats(0x0BADF00D, 0, &s), -4);
  CAN_MSG msg[1];
  EXPECT_EQ(CAN_GetMsgWithSize(TypeParam::kA, 0, nullptr, 1), -7);
  EXPECT_EQ(CAN_GetMsgWithSize(TypeParam::kA, 0, msg, -1), -7);
}

// A wait fetches from the adapter itself, poller or not, and leaves what came in the queue.
TYPED_TEST(CanReceive, WaitFetchesOnDemandAndLeavesTheFrameQueued) {
  constexpr uint32_t A = TypeParam::kA;
  auto adapter = this->open_at(A, 500000);
  auto peer = this->peer();
  adapter->clear_received();
  EXPECT_EQ(VARNEL_CAN_WaitMsg(A, 0, 0), 0);
  EXPECT_EQ(this->packets(*adapter, TypeParam::kFetch).size(), 1u);  // one look, then time-out
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  for (bool polled : {false, true}) {
    if (polled) {
      ASSERT_EQ(CAN_StartGetMsg(A, 0), 0);
    }
    peer->send(this->frame(0x120 + polled));
    EXPECT_EQ(VARNEL_CAN_WaitMsg(A, 0, 2000), 1) << polled;
    ASSERT_EQ(CAN_GetMsgWithSize(A, 0, in.data(), int32_t(in.size())), 1) << polled;
    EXPECT_EQ(in[0].Id, 0x120u + polled);
  }
  EXPECT_EQ(VARNEL_CAN_WaitMsg(A, 2, 10), -4);
  EXPECT_EQ(VARNEL_CAN_WaitMsg(A, 0, -1), -7);
  EXPECT_EQ(VARNEL_CAN_WaitMsg(0x0BADF00D, 0, 10), -4);
}
