// The asynchronous bulk-in stream over a USB layer (see wire_fixture.h): transfers resubmitted
// from the completion callback, cancelled on stop, ended by an unplug.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>

#include "core/usb_stream.h"
#include "support/wire_fixture.h"

namespace testing_support {

constexpr uint32_t kStreamHandle = 0x11111110;
constexpr varnel::BulkInStream::Options kSmallStream{.buffer_size = 64, .pump_timeout_ms = 20};

// Waits up to two seconds for `done`.
template <class Done>
bool eventually(Done done) {
  for (int wait = 0; wait < 400 && !done(); ++wait)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return done();
}

template <class Layer>
class StreamCases : public WireTest<Layer> {};
TYPED_TEST_SUITE_P(StreamCases);

TYPED_TEST_P(StreamCases, DeliversDataInOrderUntilStopped) {
  Adapter adapter = this->plug_and_open(kStreamHandle);
  std::mutex mutex;
  std::vector<uint8_t> got;
  varnel::BulkInStream stream(kStreamHandle, kSmallStream, [&](const uint8_t* data, int size) {
    std::lock_guard guard(mutex);
    got.insert(got.end(), data, data + size);
  });
  ASSERT_TRUE(stream.start());
  for (int i = 0; i < 10; ++i) adapter->push_stream_data(std::vector<uint8_t>(100, uint8_t(i)));
  eventually([&] {
    std::lock_guard guard(mutex);
    return got.size() == 1000;
  });
  stream.stop();
  EXPECT_TRUE(stream.ended());
  std::lock_guard guard(mutex);
  ASSERT_EQ(got.size(), 1000u);
  for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], i / 100) << i;
}

TYPED_TEST_P(StreamCases, EndsWhenTheAdapterGoesAwayAndNeverStartsOnAClosedOne) {
  this->plug_and_open(kStreamHandle);
  varnel::BulkInStream stream(kStreamHandle, kSmallStream, nullptr);
  ASSERT_TRUE(stream.start());
  TypeParam::unplug(kStreamHandle);
  EXPECT_TRUE(eventually([&] { return stream.ended(); }));
  EXPECT_TRUE(stream.stopped());

  TypeParam::plug(0x22222220, {1, {2}});  // another port: the first entry is still open
  ASSERT_TRUE(scan_until_listed(0x22222220));
  varnel::BulkInStream closed(0x22222220, {}, nullptr);
  EXPECT_FALSE(closed.start());
  EXPECT_TRUE(closed.ended());
}

// Two streams share the one libusb context, so either worker may complete the other's transfer
// and run its callback. Stopping one while data flows on both must lose nothing the other
// delivers and leave no transfer behind.
TYPED_TEST_P(StreamCases, TwoStreamsStartAndStopWhileTheOtherRuns) {
  constexpr uint32_t kSecond = 0x22222220;
  Adapter first = this->plug_and_open(kStreamHandle, {1, {1}});
  Adapter second = this->plug_and_open(kSecond, {1, {2}});
  std::atomic<int> first_bytes{0}, second_bytes{0};
  varnel::BulkInStream steady(kSecond, kSmallStream,
                              [&](const uint8_t*, int size) { second_bytes += size; });
  ASSERT_TRUE(steady.start());
  for (int round = 0; round < 20; ++round) {
    varnel::BulkInStream cycling(kStreamHandle, kSmallStream,
                                 [&](const uint8_t*, int size) { first_bytes += size; });
    ASSERT_TRUE(cycling.start());
    first->push_stream_data(std::vector<uint8_t>(64, 1));
    second->push_stream_data(std::vector<uint8_t>(64, 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(round % 3));
    cycling.stop();
  }
  eventually([&] { return second_bytes == 20 * 64; });
  steady.stop();
  EXPECT_EQ(second_bytes, 20 * 64);
  EXPECT_LE(first_bytes, 20 * 64);
}

REGISTER_TYPED_TEST_SUITE_P(StreamCases, DeliversDataInOrderUntilStopped,
                            EndsWhenTheAdapterGoesAwayAndNeverStartsOnAClosedOne,
                            TwoStreamsStartAndStopWhileTheOtherRuns);

}  // namespace testing_support
