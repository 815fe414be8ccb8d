// GPIO over a USB layer (see wire_fixture.h): the big-endian bytes of each request, how replies
// are judged, and the firmware model seen through the library (read-back, pulls, pulse trains).
#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "periph/gpio.h"
#include "sim/families/gpio.h"
#include "support/wire_fixture.h"

namespace testing_support {

constexpr uint32_t kGpioHandle = 0x12345678;

// Replaces the firmware's answer to `command` with a fixed payload.
inline void answer_with(sim::VirtualAdapter& adapter, uint32_t command,
                        std::vector<uint8_t> payload) {
  adapter.on(command, command, [payload](sim::VirtualAdapter&, const sim::Packet& request) {
    return std::optional<sim::Packet>(sim::reply_with(request.command, payload));
  });
}

template <class Layer>
class GpioCases : public WireTest<Layer> {};
TYPED_TEST_SUITE_P(GpioCases);

TYPED_TEST_P(GpioCases, EachCallSendsItsBigEndianRequest) {
  constexpr uint32_t h = kGpioHandle;
  uint32_t value = 0;
  struct Case {
    std::function<int()> call;
    std::vector<uint8_t> wire;
  } cases[] = {
      {[] { return GPIO_SetOutput(h, 0x00000003, 0); }, {0, 0, 6, 1, 0, 0, 0, 5, 0, 0, 0, 3, 0}},
      {[] { return GPIO_SetInput(h, 0x00008001, 1); }, {0, 0, 6, 0, 0, 0, 0, 5, 0, 0, 0x80, 1, 1}},
      {[] { return GPIO_SetOpenDrain(h, 0x00000100, 2); }, {0, 0, 6, 2, 0, 0, 0, 5, 0, 0, 1, 0, 2}},
      {[] { return GPIO_Write(h, 0x0000F00F, 0x00001234); },
       {0, 0, 6, 3, 0, 0, 0, 8, 0, 0, 0xF0, 0x0F, 0, 0, 0x12, 0x34}},
      {[&value] { return GPIO_Read(h, 0x0000FFFF, &value); },
       {0, 0, 6, 4, 0, 0, 0, 4, 0, 0, 0xFF, 0xFF}},
      {[] { return GPIO_SendPulses(h, 0x00000002, 100, 100, 3); },
       {0, 0, 8, 6, 0, 0, 0, 0x10, 0, 0, 0, 2, 0, 0, 0, 100, 0, 0, 0, 101, 0, 0, 0, 3}},
  };
  Adapter adapter = this->plug_and_open(h);
  ASSERT_EQ(GPIO_SetOutput(h, 0x2, 0), 0);  // pulses need a driving pin
  TypeParam::clear_transfers(h);
  for (auto& c : cases) {
    EXPECT_EQ(c.call(), 0) << testing::PrintToString(c.wire);
    EXPECT_EQ(this->take_request(h), c.wire);
  }
  EXPECT_EQ(value, 0x8001u);  // inputs 0 and 15 pulled up; output 1 written low
}

// Wrong lengths and failed reads are -4; GPIO_Read then leaves its output alone.
TYPED_TEST_P(GpioCases, RepliesOfTheWrongLengthGiveMinus4) {
  constexpr uint32_t h = kGpioHandle;
  uint32_t value = 0xDEADBEEF;
  struct Case {
    uint32_t command;
    std::function<int()> call;
    std::vector<size_t> bad_lengths;
  } cases[] = {
      {0x0604, [&value] { return GPIO_Read(h, 0x1, &value); }, {0, 2, 3, 5, 8}},
      {0x0600, [] { return GPIO_SetInput(h, 1, 0); }, {1, 4, 40}},
      {0x0601, [] { return GPIO_SetOutput(h, 1, 0); }, {1}},
      {0x0602, [] { return GPIO_SetOpenDrain(h, 1, 0); }, {1}},
      {0x0603, [] { return GPIO_Write(h, 1, 1); }, {1, 40}},
      {0x0806, [] { return GPIO_SendPulses(h, 1, 1, 2, 1); }, {4}},
  };
  for (auto& c : cases)
    for (size_t length : c.bad_lengths) {
      Adapter adapter = this->fresh_adapter(h);
      answer_with(*adapter, c.command, std::vector<uint8_t>(length, 0x11));
      EXPECT_EQ(c.call(), -4) << std::hex << c.command << " with " << length << " bytes";
      EXPECT_FALSE(adapter->has_pending_reply());
    }
  using Kind = sim::ReplyFault::Kind;
  for (auto fault :
       {sim::ReplyFault{Kind::kShort, 2}, sim::ReplyFault{Kind::kOtherCommand, 0x603}}) {
    this->fresh_adapter(h)->faults().next_reply(fault);
    EXPECT_EQ(GPIO_Read(h, 0x1, &value), -4);
  }
  EXPECT_EQ(value, 0xDEADBEEFu);
  EXPECT_EQ(GPIO_Write(0x0BADF00D, 1, 1), -2);  // unknown handle: the write fails
  EXPECT_EQ(GPIO_Read(0x0BADF00D, 1, &value), -2);
  EXPECT_EQ(value, 0xDEADBEEFu);
}

TYPED_TEST_P(GpioCases, AdapterRefusalsShowAsMinus4) {
  constexpr uint32_t h = kGpioHandle;
  this->plug_and_open(h);
  uint32_t value = 0;
  EXPECT_EQ(GPIO_SetOutput(h, 0x00010000, 0), -4);  // pin 16 does not exist
  EXPECT_EQ(GPIO_SetInput(h, 0x1, 3), -4);          // no such pull mode
  EXPECT_EQ(GPIO_Read(h, 0x80000000, &value), -4);
  EXPECT_EQ(GPIO_SendPulses(h, 0x1, 10, 20, 5), -4);  // pin 0 is still an input
  EXPECT_EQ(GPIO_SetOutput(h, 0x1, 0), 0);
  EXPECT_EQ(GPIO_SendPulses(h, 0x1, 10, 20, -1), -4);
}

TYPED_TEST_P(GpioCases, PinLevelsFollowDirectionPullAndDrive) {
  constexpr uint32_t h = kGpioHandle;
  Adapter adapter = this->plug_and_open(h);
  ASSERT_EQ(GPIO_SetOutput(h, 0x000F, 0), 0);
  ASSERT_EQ(GPIO_SetInput(h, 0x0030, VARNEL_GPIO_PULL_UP), 0);
  ASSERT_EQ(GPIO_SetInput(h, 0x00C0, VARNEL_GPIO_PULL_DOWN), 0);
  ASSERT_EQ(GPIO_SetOpenDrain(h, 0x0300, VARNEL_GPIO_PULL_UP), 0);
  ASSERT_EQ(GPIO_Write(h, 0x030F, 0x0205), 0);
  adapter->state<sim::GpioModel>().drive(0x0060, 0x0040);  // pin 5 low, pin 6 high from outside
  uint32_t value = 0;
  ASSERT_EQ(GPIO_Read(h, 0xFFFF, &value), 0);
  // outputs 0-3 read back 0101; pin 4 pull-up; 5 driven low; 6 driven high; 7 pull-down;
  // open drain 8 pulls low, 9 is released to its pull-up; the rest float low.
  EXPECT_EQ(value, 0x0255u);
  ASSERT_EQ(GPIO_Read(h, 0x0003, &value), 0);
  EXPECT_EQ(value, 0x0001u);                    // only the selected pins are reported
  ASSERT_EQ(GPIO_Write(h, 0x0002, 0xFFFF), 0);  // a write touches only the selected pins
  ASSERT_EQ(GPIO_Read(h, 0x000F, &value), 0);
  EXPECT_EQ(value, 0x0007u);
}

// The train runs on the device clock; the host waits for the reply, not for the train.
TYPED_TEST_P(GpioCases, PulseTrainTakesItsTimeOnTheDeviceClockAndEndsLow) {
  constexpr uint32_t h = kGpioHandle;
  Adapter adapter = this->plug_and_open(h);
  auto& model = adapter->state<sim::GpioModel>();
  ASSERT_EQ(GPIO_SetOutput(h, 0x6, 0), 0);
  ASSERT_EQ(GPIO_Write(h, 0x6, 0x6), 0);
  uint64_t before = adapter->clock().now_us();
  ASSERT_EQ(GPIO_SendPulses(h, 0x6, 10, 20, 1000), 0);
  EXPECT_GE(adapter->clock().now_us() - before, 20000u);  // 1000 pulses of 20 us
  EXPECT_EQ(model.pin(0).pulses + model.pin(1).pulses + model.pin(2).pulses, 2000u);
  EXPECT_EQ(model.pin(1).pulses, 1000u);
  uint32_t value = 0xFF;
  ASSERT_EQ(GPIO_Read(h, 0x6, &value), 0);
  EXPECT_EQ(value, 0u);
  // a 1 s train stretches the read time-out to 4000 ms: an answer 3.3 s late is still taken
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 3300});
  EXPECT_EQ(GPIO_SendPulses(h, 0x2, 500000, 1000000, 1), 0);
}

TYPED_TEST_P(GpioCases, ThreadsOnOneAdapterDoNotInterleaveTransactions) {
  Adapter adapter = this->plug_and_open(kGpioHandle);
  ASSERT_EQ(GPIO_SetOutput(kGpioHandle, 0x000F, 0), 0);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int pin = 0; pin < 4; ++pin)
    threads.emplace_back([pin, &failures] {
      for (int i = 0; i < 50; ++i) {
        uint32_t bit = 1u << pin, level = (i & 1) ? bit : 0, value = 0xFFFFFFFF;
        if (GPIO_Write(kGpioHandle, bit, level) != 0 || GPIO_Read(kGpioHandle, bit, &value) != 0 ||
            value != level)
          ++failures;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(adapter->order_violations(), 0u);
}

REGISTER_TYPED_TEST_SUITE_P(GpioCases, EachCallSendsItsBigEndianRequest,
                            RepliesOfTheWrongLengthGiveMinus4, AdapterRefusalsShowAsMinus4,
                            PinLevelsFollowDirectionPullAndDrive,
                            PulseTrainTakesItsTimeOnTheDeviceClockAndEndsLow,
                            ThreadsOnOneAdapterDoNotInterleaveTransactions);

}  // namespace testing_support
