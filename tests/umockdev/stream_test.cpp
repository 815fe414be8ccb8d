// The asynchronous bulk-in stream on the real libusb event loop: URBs resubmitted from the
// completion callback, cancelled on stop, ended by an unplug.
#include <mutex>

#include "core/usb_stream.h"
#include "usbfs_fixture.h"

using testing_support::UsbfsTest;

namespace {
constexpr uint32_t kHandle = 0x11111110;
}  // namespace

class UsbfsStream : public UsbfsTest {};

TEST_F(UsbfsStream, DeliversDataUntilStopped) {
  auto adapter = plug_and_open(kHandle);
  std::mutex mutex;
  std::vector<uint8_t> got;
  varnel::BulkInStream stream(kHandle, {.buffer_size = 64, .pump_timeout_ms = 50},
                              [&](const uint8_t* data, int size) {
                                std::lock_guard guard(mutex);
                                got.insert(got.end(), data, data + size);
                              });
  ASSERT_TRUE(stream.start());
  for (int i = 0; i < 10; ++i) adapter->push_stream_data(std::vector<uint8_t>(100, uint8_t(i)));
  for (int wait = 0; wait < 400; ++wait) {
    {
      std::lock_guard guard(mutex);
      if (got.size() == 1000) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  stream.stop();
  EXPECT_TRUE(stream.ended());
  ASSERT_EQ(got.size(), 1000u);
  for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], i / 100) << i;
  // the URB still in flight at the stop was taken back
  EXPECT_EQ(usbfs::counters(kHandle).discards, 1);
}

TEST_F(UsbfsStream, EndsWhenTheAdapterGoesAway) {
  plug_and_open(kHandle);
  varnel::BulkInStream stream(kHandle, {.buffer_size = 64, .pump_timeout_ms = 50}, nullptr);
  ASSERT_TRUE(stream.start());
  usbfs::unplug(kHandle);
  for (int wait = 0; wait < 400 && !stream.ended(); ++wait)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_TRUE(stream.ended());
  EXPECT_TRUE(stream.stopped());
}

TEST_F(UsbfsStream, DoesNotStartOnClosedAdapter) {
  usbfs::plug(kHandle);
  ASSERT_TRUE(testing_support::scan_until_listed(kHandle));
  varnel::BulkInStream stream(kHandle, {}, nullptr);
  EXPECT_FALSE(stream.start());
  EXPECT_TRUE(stream.ended());
}
