// GPIO against the virtual adapter: the bytes of each request, how replies are judged, and the
// firmware model seen through the library (read-back, pulls, open drain, pulse trains).
#include "periph/gpio.h"

#include <chrono>
#include <thread>

#include "sim/families/gpio.h"
#include "support/sim_fixture.h"

using testing_support::SimTest;

namespace {

constexpr uint32_t kHandle = 0x12345678;
using Bytes = std::vector<uint8_t>;

// Replaces the firmware's answer to `command` with a fixed payload.
void answer_with(sim::VirtualAdapter& adapter, uint32_t command, Bytes payload) {
  adapter.on(command, command, [payload](sim::VirtualAdapter&, const sim::Packet& request) {
    return std::optional<sim::Packet>(sim::reply_with(request.command, payload));
  });
}

}  // namespace

TEST(GpioPulses, PeriodNotAboveWidthIsRaisedToWidthPlusOne) {
  struct Case {
    uint32_t width, period, sent;
  } cases[] = {
      {100, 100, 101}, {100, 50, 101},     {100, 101, 101}, {0, 0, 1},
      {10, 20, 20},    {0xFFFFFFFF, 7, 0},  // width + 1 wraps, as the unsigned sum does on the
                                            // adapter's side
  };
  for (auto c : cases)
    EXPECT_EQ(varnel::corrected_pulse_period(c.width, c.period), c.sent)
        << c.width << "/" << c.period;
}

TEST(GpioPulses, ReadTimeoutCoversTheTrainIn32BitArithmetic) {
  struct Case {
    uint32_t period;
    int32_t count;
    int timeout_ms;
  } cases[] = {
      {20, 1000, 3020},         {0, 1000, 3000}, {999, 1, 3000},  // under a millisecond rounds down
      {1000000, 5000, 708032},                                    // 5e9 us wraps to 705,032,704 us
      {1000, -1, 4297966},       // -1 counts as 0xFFFFFFFF, times 1000 wraps
      {0x10000, 0x10000, 3000},  // exactly 2^32 wraps to 0
  };
  for (auto c : cases)
    EXPECT_EQ(varnel::pulse_read_timeout_ms(c.period, c.count), c.timeout_ms)
        << c.period << " x " << c.count;
}

class GpioWire : public SimTest {
 protected:
  // A new adapter on a clean bus, for each case of a table.
  std::shared_ptr<sim::VirtualAdapter> fresh_adapter() {
    usbsim::unplug_all();
    USB_ScanDevice(nullptr);
    return plug_and_open(kHandle);
  }
};

TEST_F(GpioWire, EachCallSendsItsBigEndianRequest) {
  uint32_t value = 0;
  struct Case {
    const char* name;
    std::function<int()> call;
    Bytes wire;
  } cases[] = {
      {"SetOutput",
       [] { return GPIO_SetOutput(kHandle, 0x00000003, 0); },
       {0, 0, 6, 1, 0, 0, 0, 5, 0, 0, 0, 3, 0}},
      {"SetInput",
       [] { return GPIO_SetInput(kHandle, 0x00008001, 1); },
       {0, 0, 6, 0, 0, 0, 0, 5, 0, 0, 0x80, 0x01, 1}},
      {"SetOpenDrain",
       [] { return GPIO_SetOpenDrain(kHandle, 0x00000100, 2); },
       {0, 0, 6, 2, 0, 0, 0, 5, 0, 0, 1, 0, 2}},
      {"Write",
       [] { return GPIO_Write(kHandle, 0x0000F00F, 0x00001234); },
       {0, 0, 6, 3, 0, 0, 0, 8, 0, 0, 0xF0, 0x0F, 0, 0, 0x12, 0x34}},
      {"Read",
       [&value] { return GPIO_Read(kHandle, 0x0000FFFF, &value); },
       {0, 0, 6, 4, 0, 0, 0, 4, 0, 0, 0xFF, 0xFF}},
      {"SendPulses",
       [] { return GPIO_SendPulses(kHandle, 0x00000002, 100, 100, 3); },
       {0, 0, 8, 6, 0, 0, 0, 0x10, 0, 0, 0, 2, 0, 0, 0, 100, 0, 0, 0, 101, 0, 0, 0, 3}},
  };
  auto adapter = plug_and_open(kHandle);
  ASSERT_EQ(GPIO_SetOutput(kHandle, 0x2, 0), 0);  // pulses need a driving pin
  for (auto& c : cases) {
    usbsim::clear_transfers(kHandle);
    EXPECT_EQ(c.call(), 0) << c.name;
    auto out = bulk_on(kHandle, 0x01);
    ASSERT_EQ(out.size(), 1u) << c.name;
    EXPECT_EQ(out[0].data, c.wire) << c.name;
  }
  EXPECT_EQ(adapter->order_violations(), 0u);
}

TEST_F(GpioWire, ReadWithAReplyOfAnotherLengthGivesMinus4AndLeavesTheOutput) {
  for (size_t length : {0u, 2u, 3u, 5u, 8u}) {
    auto adapter = fresh_adapter();
    answer_with(*adapter, 0x0604, Bytes(length, 0x11));
    uint32_t value = 0xDEADBEEF;
    EXPECT_EQ(GPIO_Read(kHandle, 0x1, &value), -4) << length << " bytes";
    EXPECT_EQ(value, 0xDEADBEEFu) << length << " bytes";
    EXPECT_FALSE(adapter->has_pending_reply());
  }
}

TEST_F(GpioWire, ReadFailuresGiveMinus4AndLeaveTheOutput) {
  using Kind = sim::ReplyFault::Kind;
  for (auto fault :
       {sim::ReplyFault{Kind::kShort, 2}, sim::ReplyFault{Kind::kOtherCommand, 0x0603}}) {
    auto adapter = fresh_adapter();
    adapter->faults().next_reply(fault);
    uint32_t value = 0xDEADBEEF;
    EXPECT_EQ(GPIO_Read(kHandle, 0x1, &value), -4);
    EXPECT_EQ(value, 0xDEADBEEFu);
  }
}

TEST_F(GpioWire, AcknowledgementWithAPayloadGivesMinus4) {
  struct Case {
    const char* name;
    uint32_t command;
    std::function<int()> call;
  } cases[] = {
      {"SetInput", 0x0600, [] { return GPIO_SetInput(kHandle, 1, 0); }},
      {"SetOutput", 0x0601, [] { return GPIO_SetOutput(kHandle, 1, 0); }},
      {"SetOpenDrain", 0x0602, [] { return GPIO_SetOpenDrain(kHandle, 1, 0); }},
      {"Write", 0x0603, [] { return GPIO_Write(kHandle, 1, 1); }},
      {"SendPulses", 0x0806, [] { return GPIO_SendPulses(kHandle, 1, 1, 2, 1); }},
  };
  for (auto& c : cases) {
    for (size_t length : {1u, 4u, 40u}) {  // 40 is larger than any GPIO request
      auto adapter = fresh_adapter();
      answer_with(*adapter, c.command, Bytes(length, 0));
      EXPECT_EQ(c.call(), -4) << c.name << " with " << length << " bytes";
      EXPECT_FALSE(adapter->has_pending_reply()) << c.name;
    }
  }
}

TEST_F(GpioWire, AdapterRefusalsShowAsMinus4) {
  plug_and_open(kHandle);
  uint32_t value = 0;
  EXPECT_EQ(GPIO_SetOutput(kHandle, 0x00010000, 0), -4);  // pin 16 does not exist
  EXPECT_EQ(GPIO_SetInput(kHandle, 0x1, 3), -4);          // no such pull mode
  EXPECT_EQ(GPIO_Read(kHandle, 0x80000000, &value), -4);
  EXPECT_EQ(GPIO_SendPulses(kHandle, 0x1, 10, 20, 5), -4);  // pin 0 is still an input
  EXPECT_EQ(GPIO_SetOutput(kHandle, 0x1, 0), 0);
  EXPECT_EQ(GPIO_SendPulses(kHandle, 0x1, 10, 20, -1), -4);
}

TEST_F(GpioWire, UnknownHandleIsAFailedWrite) {
  uint32_t value = 7;
  EXPECT_EQ(GPIO_Write(0x0BADF00D, 1, 1), -2);
  EXPECT_EQ(GPIO_Read(0x0BADF00D, 1, &value), -2);
  EXPECT_EQ(value, 7u);
}

TEST_F(GpioWire, PinLevelsFollowDirectionPullAndDrive) {
  auto adapter = plug_and_open(kHandle);
  auto& model = adapter->state<sim::GpioModel>();
  ASSERT_EQ(GPIO_SetOutput(kHandle, 0x000F, 0), 0);
  ASSERT_EQ(GPIO_SetInput(kHandle, 0x0030, VARNEL_GPIO_PULL_UP), 0);
  ASSERT_EQ(GPIO_SetInput(kHandle, 0x00C0, VARNEL_GPIO_PULL_DOWN), 0);
  ASSERT_EQ(GPIO_SetOpenDrain(kHandle, 0x0300, VARNEL_GPIO_PULL_UP), 0);
  ASSERT_EQ(GPIO_Write(kHandle, 0x030F, 0x0205), 0);
  model.drive(0x0060, 0x0040);  // pin 5 pulled low, pin 6 pulled high from outside

  uint32_t value = 0;
  ASSERT_EQ(GPIO_Read(kHandle, 0xFFFF, &value), 0);
  // outputs 0-3 read back 0101; pin 4 pull-up; 5 driven low; 6 driven high; 7 pull-down;
  // open drain 8 pulls low, 9 is released to its pull-up; the rest float low.
  EXPECT_EQ(value, 0x0255u);
  ASSERT_EQ(GPIO_Read(kHandle, 0x0003, &value), 0);
  EXPECT_EQ(value, 0x0001u);  // only the selected pins are reported

  // A write touches only the selected pins.
  ASSERT_EQ(GPIO_Write(kHandle, 0x0002, 0xFFFF), 0);
  ASSERT_EQ(GPIO_Read(kHandle, 0x000F, &value), 0);
  EXPECT_EQ(value, 0x0007u);
  EXPECT_EQ(adapter->order_violations(), 0u);
}

TEST_F(GpioWire, PulseTrainTakesItsTimeOnTheDeviceClockAndEndsLow) {
  auto adapter = plug_and_open(kHandle);
  auto& model = adapter->state<sim::GpioModel>();
  ASSERT_EQ(GPIO_SetOutput(kHandle, 0x6, 0), 0);
  ASSERT_EQ(GPIO_Write(kHandle, 0x6, 0x6), 0);
  uint64_t before = adapter->clock().now_us();
  auto host_start = std::chrono::steady_clock::now();
  ASSERT_EQ(GPIO_SendPulses(kHandle, 0x6, 10, 20, 1000), 0);
  auto host_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                     std::chrono::steady_clock::now() - host_start)
                     .count();
  EXPECT_GE(adapter->clock().now_us() - before, 20000u);  // 1000 pulses of 20 us
  EXPECT_LT(host_ms, 2000);  // the host did not sleep through the train
  EXPECT_EQ(model.pin(1).pulses, 1000u);
  EXPECT_EQ(model.pin(2).pulses, 1000u);
  EXPECT_EQ(model.pin(0).pulses, 0u);
  uint32_t value = 0xFF;
  ASSERT_EQ(GPIO_Read(kHandle, 0x6, &value), 0);
  EXPECT_EQ(value, 0u);
}

// A long train stretches the read time-out: the adapter answers 3.3 s late, which the ordinary
// 3000 ms would not wait for, and a 1 s train gives 4000 ms.
TEST_F(GpioWire, LongTrainWaitsBeyondTheOrdinaryTimeout) {
  auto adapter = plug_and_open(kHandle);
  ASSERT_EQ(GPIO_SetOutput(kHandle, 0x1, 0), 0);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 3300});
  EXPECT_EQ(GPIO_SendPulses(kHandle, 0x1, 500000, 1000000, 1), 0);
}

TEST_F(GpioWire, ThreadsOnOneAdapterDoNotInterleaveTransactions) {
  auto adapter = plug_and_open(kHandle);
  ASSERT_EQ(GPIO_SetOutput(kHandle, 0x000F, 0), 0);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int pin = 0; pin < 4; ++pin)
    threads.emplace_back([pin, &failures] {
      for (int i = 0; i < 50; ++i) {
        uint32_t bit = 1u << pin, level = (i & 1) ? bit : 0, value = 0xFFFFFFFF;
        if (GPIO_Write(kHandle, bit, level) != 0 || GPIO_Read(kHandle, bit, &value) != 0 ||
            value != level)
          ++failures;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(adapter->order_violations(), 0u);
}
