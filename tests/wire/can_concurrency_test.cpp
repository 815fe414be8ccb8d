// Sends from the application thread while the receive poller fetches on the same adapter: the
// two kinds of transaction must not interleave on the adapter's command pipe.
#include <atomic>
#include <thread>
#include <vector>

#include "core/clock.h"
#include "wire/can_fixture.h"

using testing_support::CanTest;

namespace {

constexpr uint32_t kHandle = 0x12345670;
class CanConcurrency : public CanTest {};

}  // namespace

TEST_F(CanConcurrency, SendingWhileThePollerRunsKeepsTransactionsWhole) {
  auto adapter = open_at(kHandle, 1000000, 2);
  ASSERT_EQ(CAN_StartGetMsg(kHandle, 1), 0);
  std::vector<CAN_MSG> msgs(50);
  for (size_t i = 0; i < msgs.size(); ++i) msgs[i].Id = uint32_t(i);
  int failed = 0;
  for (int round = 0; round < 400; ++round)
    if (CAN_SendMsg(kHandle, 0, msgs.data(), uint32_t(msgs.size())) != 50) ++failed;
  EXPECT_EQ(failed, 0);
  EXPECT_EQ(adapter->order_violations(), 0u);
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  int got = 0;
  for (int tries = 0; tries < 200 && got < 20000; ++tries) {
    got += CAN_GetMsg(kHandle, 1, in.data());
    if (got < 20000) varnel::sleep_for_ms(5);
  }
  EXPECT_EQ(got, 20000);
}

// Several application threads on one adapter at once: one sends, two start and stop the receive
// poller of each channel, one drains and clears. Classic and CAN FD adapters (the classic calls
// go through the CAN FD path on the latter). Under ThreadSanitizer this checks the poller's
// start/stop hand-over and the queues' data lock; in any build, that no transaction breaks.
class CanThreads : public CanTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(CanThreads, StartStopReadAndSendFromSeveralThreadsKeepEveryCallWhole) {
  const uint32_t handle = GetParam();
  auto adapter = open_at(handle, 1000000, 2);
  std::atomic<bool> sending{true};
  std::atomic<int> bad_sends{0}, bad_calls{0};
  std::thread sender([&] {
    std::vector<CAN_MSG> msgs(20);
    for (int round = 0; round < 100; ++round)
      if (CAN_SendMsg(handle, 0, msgs.data(), uint32_t(msgs.size())) != 20) ++bad_sends;
    sending = false;
  });
  auto start_stop = [&](uint8_t channel) {
    while (sending) {
      if (CAN_StartGetMsg(handle, channel) != 0) ++bad_calls;
      varnel::sleep_for_ms(12);  // long enough for the poller to fetch
      if (CAN_StopGetMsg(handle, channel) != 0) ++bad_calls;
    }
  };
  std::thread poller0(start_stop, uint8_t(0)), poller1(start_stop, uint8_t(1));
  std::thread reader([&] {
    std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
    for (int i = 0; sending; ++i) {
      if (CAN_GetMsg(handle, 1, in.data()) < 0) ++bad_calls;
      if (i % 16 == 0 && CAN_ClearMsg(handle, 1) != 0) ++bad_calls;
      varnel::sleep_for_ms(1);
    }
  });
  for (auto* t : {&sender, &poller0, &poller1, &reader}) t->join();
  EXPECT_EQ(bad_sends, 0);
  EXPECT_EQ(bad_calls, 0);
  EXPECT_EQ(adapter->order_violations(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Adapters, CanThreads, ::testing::Values(kHandle, 0x53000010u),
                         [](const auto& info) { return info.param == kHandle ? "Classic" : "Fd"; });
