// The ADC over a USB layer (see wire_fixture.h): the request layouts, the block read's reply going
// straight to the caller, and the continuous read's packets arriving through asynchronous
// transfers, in order, whole, with every dropped packet counted.
#pragma once

#include <atomic>
#include <cmath>
#include <numbers>

#include "sim/families/adc.h"
#include "support/stream_cases.h"  // eventually()
#include "support/wire_fixture.h"

namespace testing_support {

constexpr uint32_t kAdcHandle = 0x51525354;
constexpr uint8_t kStopRequest = 0x40;

// Input 0 of the virtual adapter is a ramp from 0 rising one count a sample, modulo 4096; input 1
// a 50 Hz sine between 1 and 4095.
inline uint16_t ramp_at(uint64_t sample) {
  return uint16_t(sample % 4096);
}
inline uint16_t sine_at(uint64_t sample, double rate) {
  return uint16_t(std::lround(2048 + 2047 * std::sin(2 * std::numbers::pi * 50 * sample / rate)));
}

inline std::atomic<int> callback_samples{0};
inline std::atomic<bool> callback_in_order{true};
inline void count_samples(DevHandle, uint16_t* data, int32_t n) {
  const int before = callback_samples.fetch_add(n);
  for (int i = 0; i < n; ++i)
    if (data[i] != ramp_at(uint64_t(before + i))) callback_in_order = false;
}

template <class Layer>
class AdcCases : public WireTest<Layer> {
 protected:
  std::vector<uint8_t> last_request() {
    auto out = this->bulk_on(kAdcHandle, 0x01);
    return out.empty() ? std::vector<uint8_t>{} : out.back().data;
  }
  int stop_requests() {
    int n = 0;
    for (auto& t : Layer::transfers(kAdcHandle))
      n += t.kind == usbsim::Transfer::Kind::kControl && t.endpoint == kStopRequest;
    return n;
  }
  uint64_t pushed_samples(Adapter& adapter) {
    sim::AdcModel& model = sim::adc_model(*adapter);
    std::lock_guard guard(model.mutex);
    return model.stream.samples;
  }
  // Takes queued samples until `count` came (or two seconds passed).
  std::vector<uint16_t> collect(size_t count, int32_t capacity = 4096) {
    std::vector<uint16_t> got;
    std::vector<uint16_t> chunk(static_cast<size_t>(capacity));
    eventually([&] {
      const int n = ADC_GetData(kAdcHandle, chunk.data(), capacity);
      if (n > 0) got.insert(got.end(), chunk.begin(), chunk.begin() + n);
      return got.size() >= count;
    });
    return got;
  }
};
TYPED_TEST_SUITE_P(AdcCases);

TYPED_TEST_P(AdcCases, BlockReadSendsItsFieldsAndFillsTheCallersBufferExactly) {
  this->plug_and_open(kAdcHandle);
  ASSERT_EQ(ADC_Init(kAdcHandle, 0x03, 10000), 0);
  EXPECT_EQ(this->last_request(), (std::vector<uint8_t>{0, 0, 5, 0, 0, 0, 0, 5,  // 0x500, 5 bytes
                                                        0x03, 0x00, 0x00, 0x27, 0x10}));
  std::vector<uint16_t> samples(201, 0xBEEF);  // one past the block: must stay untouched
  ASSERT_EQ(ADC_Read(kAdcHandle, samples.data(), 100), 0);
  EXPECT_EQ(this->last_request(), (std::vector<uint8_t>{0, 0, 5, 1, 0, 0, 0, 4, 0, 0, 0, 100}));
  for (int k = 0; k < 100; ++k) {  // the two inputs of one instant side by side
    ASSERT_EQ(samples[size_t(2 * k)], ramp_at(uint64_t(k))) << k;
    ASSERT_EQ(samples[size_t(2 * k + 1)], sine_at(uint64_t(k), 10000)) << k;
  }
  EXPECT_EQ(samples[200], 0xBEEF);
}

// A reply of another length than samples x inputs x 2, a refusal, arguments out of range.
TYPED_TEST_P(AdcCases, BadRepliesAndBadArgumentsGiveTheirCodes) {
  Adapter adapter = this->plug_and_open(kAdcHandle);
  ASSERT_EQ(ADC_Init(kAdcHandle, 0x05, 1000), 0);
  uint16_t samples[8];
  adapter->faults().next_reply({sim::ReplyFault::Kind::kShort, 6, 0x501});
  EXPECT_EQ(ADC_Read(kAdcHandle, samples, 4), -4);
  ASSERT_EQ(ADC_Init(kAdcHandle, 0x01, 1000), 0);  // the stored mask now asks for 8 bytes
  adapter->faults().next_reply({sim::ReplyFault::Kind::kAnnounceLength, 16, 0x501});
  EXPECT_EQ(ADC_Read(kAdcHandle, samples, 4), -4);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kAnnounceLength, 1, 0x500});
  EXPECT_EQ(ADC_Init(kAdcHandle, 0x01, 1000), -4);  // a reply with data is a refusal
  EXPECT_EQ(ADC_Read(kAdcHandle, nullptr, 4), -7);
  EXPECT_EQ(ADC_Read(kAdcHandle, nullptr, 0), 0) << "an empty block needs no buffer";
  EXPECT_EQ(ADC_GetData(kAdcHandle, nullptr, 4), -7);
  EXPECT_EQ(ADC_GetData(kAdcHandle, samples, 0), 0);
  EXPECT_EQ(ADC_StartContinueRead(kAdcHandle, 1, 1000, 0, nullptr), -7);
  EXPECT_EQ(ADC_GetData(0x0BADF00D, samples, 8), -1);
}

TYPED_TEST_P(AdcCases, StreamQueuesEverySampleInOrderAndStopsOnce) {
  Adapter adapter = this->plug_and_open(kAdcHandle);
  ASSERT_EQ(ADC_StartContinueRead(kAdcHandle, 0x01, 1000000, 256, nullptr), 0);
  EXPECT_EQ(this->last_request(), (std::vector<uint8_t>{0, 0, 5, 2, 0, 0, 0, 9, 0x01, 0x00, 0x0F,
                                                        0x42, 0x40, 0, 0, 1, 0}));
  std::vector<uint16_t> got = this->collect(64 * 256);
  ASSERT_GE(got.size(), 64u * 256);
  EXPECT_EQ(got.size() % 256, 0u) << "packets are never split";
  for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], ramp_at(i)) << i;
  EXPECT_EQ(ADC_StopContinueRead(kAdcHandle), 0);
  EXPECT_EQ(this->stop_requests(), 1);
  EXPECT_EQ(ADC_StopContinueRead(kAdcHandle), 0);
  EXPECT_EQ(this->stop_requests(), 1) << "a second stop sends nothing";
  EXPECT_EQ(VARNEL_ADC_Dropped(kAdcHandle), 0);
  const uint64_t pushed = this->pushed_samples(adapter);
  std::vector<uint16_t> rest = this->collect(pushed - got.size());
  EXPECT_EQ(got.size() + rest.size(), pushed) << "what the adapter sent before the stop arrives";
}

// Capacity counts whole packets: one sample short of a packet takes nothing and keeps it queued.
TYPED_TEST_P(AdcCases, GetDataTakesOnlyWholePackets) {
  Adapter adapter = this->plug_and_open(kAdcHandle);
  ASSERT_EQ(ADC_StartContinueRead(kAdcHandle, 0x01, 1000000, 100, nullptr), 0);
  ASSERT_TRUE(eventually([&] { return this->pushed_samples(adapter) >= 300; }));
  ADC_StopContinueRead(kAdcHandle);  // every packet the adapter sent is queued now
  std::vector<uint16_t> out(251, 0xBEEF);
  EXPECT_EQ(ADC_GetData(kAdcHandle, out.data(), 99), 0);
  EXPECT_EQ(out[0], 0xBEEF);
  ASSERT_EQ(ADC_GetData(kAdcHandle, out.data(), 250), 200);
  for (size_t i = 0; i < 200; ++i) ASSERT_EQ(out[i], ramp_at(i)) << i;
  EXPECT_EQ(out[200], 0xBEEF);
  int64_t rest = int64_t(this->pushed_samples(adapter)) - 200;
  while (rest > 0) {
    ASSERT_EQ(ADC_GetData(kAdcHandle, out.data(), 100), 100);
    rest -= 100;
  }
  EXPECT_EQ(ADC_GetData(kAdcHandle, out.data(), 100), 0);
}

// A queue of four packets that nobody reads: the oldest go, and the count says how many, so the
// first sample kept is the one after every dropped packet.
TYPED_TEST_P(AdcCases, FullQueueDropsTheOldestPacketsAndCountsEach) {
  this->plug_and_open(kAdcHandle);
  ASSERT_EQ(VARNEL_ADC_SetQueueLimit(kAdcHandle, 4 * 64 * 2), 0);
  ASSERT_EQ(ADC_StartContinueRead(kAdcHandle, 0x01, 1000000, 64, nullptr), 0);
  ASSERT_TRUE(eventually([] { return VARNEL_ADC_Dropped(kAdcHandle) >= 10; }));
  ADC_StopContinueRead(kAdcHandle);
  std::vector<uint16_t> kept(1000);
  ASSERT_EQ(ADC_GetData(kAdcHandle, kept.data(), 1000), 4 * 64);
  const uint64_t first = uint64_t(VARNEL_ADC_Dropped(kAdcHandle)) * 64;
  for (size_t i = 0; i < 4 * 64; ++i) ASSERT_EQ(kept[i], ramp_at(first + i)) << i;
  ASSERT_EQ(VARNEL_ADC_SetQueueLimit(kAdcHandle, 0), 0);
}

TYPED_TEST_P(AdcCases, CallbackRunsUntilStopReturnsAndRestartsCleanly) {
  this->plug_and_open(kAdcHandle);
  for (int cycle = 0; cycle < 5; ++cycle) {
    callback_samples = 0;
    callback_in_order = true;
    ASSERT_EQ(ADC_StartContinueRead(kAdcHandle, 0x01, 1000000, 128, count_samples), 0);
    ASSERT_TRUE(eventually([] { return callback_samples >= 4096; }));
    ASSERT_EQ(ADC_StopContinueRead(kAdcHandle), 0);
    const int at_stop = callback_samples;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(callback_samples, at_stop) << "no callback after the stop";
    EXPECT_TRUE(callback_in_order) << "each stream starts at the adapter's first sample";
    uint16_t none[128];
    EXPECT_EQ(ADC_GetData(kAdcHandle, none, 128), 0) << "a callback stream queues nothing";
  }
}

// The adapter goes away mid-stream: the thread ends on its own and the stop has nothing to do.
TYPED_TEST_P(AdcCases, UnplugMidStreamEndsTheStream) {
  this->plug_and_open(kAdcHandle);
  ASSERT_EQ(ADC_StartContinueRead(kAdcHandle, 0x01, 1000000, 256, nullptr), 0);
  ASSERT_FALSE(this->collect(256).empty());
  TypeParam::unplug(kAdcHandle);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(ADC_StopContinueRead(kAdcHandle), 0);
  EXPECT_EQ(this->stop_requests(), 0);
}

REGISTER_TYPED_TEST_SUITE_P(AdcCases, BlockReadSendsItsFieldsAndFillsTheCallersBufferExactly,
                            BadRepliesAndBadArgumentsGiveTheirCodes,
                            StreamQueuesEverySampleInOrderAndStopsOnce,
                            GetDataTakesOnlyWholePackets,
                            FullQueueDropsTheOldestPacketsAndCountsEach,
                            CallbackRunsUntilStopReturnsAndRestartsCleanly,
                            UnplugMidStreamEndsTheStream);

}  // namespace testing_support
