// Receive under load: the virtual bus carries 200,000 frames while the application drains with
// CAN_GetMsg from another thread. Order is kept, nothing is duplicated, and every lost frame is
// accounted for by a full queue (device FIFO or host queue).
#include <atomic>
#include <thread>

#include "can/can_internal.h"
#include "core/clock.h"
#include "wire/can_fixture.h"

using testing_support::CanTest;
using testing_support::counter_of;

namespace {

constexpr uint32_t kHandle = 0x12345670;
constexpr uint32_t kFrames = 200000;

class CanLoad : public CanTest {};

}  // namespace

TEST_F(CanLoad, PollerAndReaderKeepOrderWithoutDuplicatesAndCountEveryLoss) {
  auto controller = sim::can_controller(*open_at(kHandle, 1000000), 0);
  auto peer = this->peer(1000000);
  ASSERT_EQ(CAN_StartGetMsg(kHandle, 0), 0);

  std::thread producer([&] {
    for (uint32_t i = 0; i < kFrames; ++i) {
      peer->send(testing_support::counted_frame(0x100, i));
      if (i % 1000 == 999) varnel::sleep_for_ms(2);  // about 500,000 frames/s at most
    }
  });

  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  uint64_t received = 0, out_of_order = 0;
  int64_t last = -1;
  auto& channel = varnel::can::can_adapter(kHandle, 0)->classic[0];
  auto accounted = [&] {
    varnel::can::DataLock lock(kHandle, 0);  // the poller counts under it
    return received + controller->rx_overflows() + channel.application.dropped() +
           channel.fetches_dropped;
  };
  // drain until every frame is either received or counted as lost by a full queue
  const uint64_t start = varnel::monotonic_ns();
  while (accounted() < kFrames && varnel::elapsed_ms_since(start) < 30000.0) {
    const int n = CAN_GetMsg(kHandle, 0, in.data());
    ASSERT_GE(n, 0);
    for (int i = 0; i < n; ++i) {
      const int64_t counter = counter_of(in[size_t(i)]);
      if (counter <= last) ++out_of_order;
      last = counter;
    }
    received += uint64_t(n);
    if (n == 0) varnel::sleep_for_ms(1);
  }
  producer.join();
  EXPECT_EQ(CAN_StopGetMsg(kHandle, 0), 0);

  varnel::sleep_for_ms(50);  // nothing more may arrive: no duplicates after the last frame
  received += uint64_t(std::max(0, CAN_GetMsg(kHandle, 0, in.data())));
  const uint64_t device_lost = controller->rx_overflows();
  const uint64_t host_lost = channel.application.dropped() + channel.fetches_dropped;
  EXPECT_EQ(out_of_order, 0u);
  EXPECT_EQ(received + device_lost + host_lost, kFrames)
      << received << " received, " << device_lost << " lost in the device, " << host_lost
      << " on the host";
  EXPECT_EQ(last, int64_t(kFrames) - 1) << "the newest frame always arrives";
  RecordProperty("received", int(received));
}

TEST_F(CanLoad, PollerStartStopCyclesLeaveNoThreadBehind) {
  open_at(kHandle, 500000, 2);
  for (int i = 0; i < 30; ++i) {
    ASSERT_EQ(CAN_StartGetMsg(kHandle, uint8_t(i & 1)), 0);
    ASSERT_EQ(CAN_StartGetMsg(kHandle, uint8_t((i + 1) & 1)), 0);
    if (i % 3 == 0) varnel::sleep_for_ms(12);  // let some rounds run
    ASSERT_EQ(CAN_StopGetMsg(kHandle, 0), 0);
    ASSERT_EQ(CAN_StopGetMsg(kHandle, 1), 0);
  }
  // a failing fetch ends the thread on its own; a new start brings it back
  ASSERT_EQ(CAN_StartGetMsg(kHandle, 0), 0);
  usbsim::unplug(kHandle);
  for (int i = 0; i < 400 && varnel::can::classic_pollers().polled(kHandle, 0); ++i)
    varnel::sleep_for_ms(10);
  EXPECT_FALSE(varnel::can::classic_pollers().polled(kHandle, 0));
}
