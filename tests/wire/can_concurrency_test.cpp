// Sends from the application thread while the receive poller fetches on the same adapter: the
// two kinds of transaction must not interleave on the adapter's command pipe.
#include "core/clock.h"
#include "wire/can_fixture.h"

using testing_support::CanTest;

namespace {

constexpr uint32_t kHandle = 0x12345670;
class CanConcurrency : public CanTest {};

}  // namespace

TEST_F(CanConcurrency, SendingWhileThePollerRunsKeepsTransactionsWhole) {
  auto adapter = open(kHandle);
  ASSERT_EQ(CAN_Init2(kHandle, 0, 1000000), 0);
  ASSERT_EQ(CAN_Init2(kHandle, 1, 1000000), 0);
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
