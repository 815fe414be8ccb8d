// The shared UART cases over the usbsim, and how long each call waits for the adapter's answer.
#include <thread>

#include "support/uart_cases.h"
#include "support/usbsim_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(UartOnUsbsim, UartCases, UsbsimLayer);

static int write_read(DevHandle h, int32_t timeout_ms) {
  return UART_WriteReadBytesWithBreak(h, 0, 0, nullptr, 0, nullptr, 0, timeout_ms);
}
static int read_once(DevHandle h) {
  uint8_t in[VARNEL_UART_READ_SIZE];
  return UART_ReadBytes(h, 0, in, 0);
}

// Each row: a call whose answer comes late, and whether the call still takes it. Writes wait
// 5000 ms (4 s late is in time), a read's poll 3000 ms (3.3 s is too late); for 5.6 s late: the
// paced writes wait interval x length (ms) or interval x length / 1000 (us) more; a
// write-read its time-out and 3000 ms. Worked out by hand: 10 ms x 100 = 6000 (in time),
// 5 ms x 100 = 5500 (late), 250 us x 4000 = 6000, 250 us x 2000 = 5500, 3000 + 3000 = 6000,
// 2500 + 3000 = 5500. The rows run side by side, each on an adapter of its own.
TEST(UartReplyTimeout, GrowsWithThePacedBytesAndTheWriteReadsTimeOut) {
  static const std::vector<uint8_t> data(4000, 0x55);
  static const uint8_t* d = data.data();
  struct Row {
    uint32_t command, late_ms;
    int (*call)(DevHandle);
    int expected;
  } rows[] = {
      // clang-format off
      {0xA01, 4000, [](DevHandle h) { return UART_WriteBytes(h, 0, d, 1); }, 0},
      {0xA05, 5600, [](DevHandle h) { return UART_WriteBytesInterval(h, 0, d, 100, 10); }, 0},
      {0xA05, 5600, [](DevHandle h) { return UART_WriteBytesInterval(h, 0, d, 100, 5); }, -4},
      {0xA06, 5600, [](DevHandle h) { return UART_WriteBytesIntervalUs(h, 0, d, 4000, 250); }, 0},
      {0xA06, 5600, [](DevHandle h) { return UART_WriteBytesIntervalUs(h, 0, d, 2000, 250); }, -4},
      {0xA09, 5600, [](DevHandle h) { return write_read(h, 3000); }, 0},
      {0xA09, 5600, [](DevHandle h) { return write_read(h, 2500); }, -4},
      {0xA03, 3300, [](DevHandle h) { return read_once(h); }, -4},  // a poll waits 3000 ms
      // clang-format on
  };
  UsbsimLayer::unplug_all();
  std::vector<Adapter> adapters;
  for (uint8_t i = 0; i < std::size(rows); ++i) {
    const DevHandle h = 0x12345600 + i;
    // ports 2 and up: port 1 is where the cases' adapter was open until just now
    adapters.push_back(UsbsimLayer::plug(h, {1, {uint8_t(i + 2)}}));
  }
  ASSERT_TRUE(scan_until_listed(0x12345600 + uint32_t(std::size(rows)) - 1));
  for (size_t i = 0; i < std::size(rows); ++i) {
    const DevHandle h = 0x12345600 + uint32_t(i);
    ASSERT_TRUE(USB_OpenDevice(h)) << i;
    UART_CONFIG config = uart_config(1000000);
    ASSERT_EQ(UART_Init(h, 0, &config), 0) << i;
    adapters[i]->faults().next_reply(
        {sim::ReplyFault::Kind::kLate, rows[i].late_ms, rows[i].command});
  }
  std::vector<int> results(std::size(rows));
  std::vector<std::thread> threads;
  for (size_t i = 0; i < std::size(rows); ++i)
    threads.emplace_back([&, i] { results[i] = rows[i].call(0x12345600 + uint32_t(i)); });
  for (auto& t : threads) t.join();
  for (size_t i = 0; i < std::size(rows); ++i) EXPECT_EQ(results[i], rows[i].expected) << i;
  UsbsimLayer::unplug_all();
}

}  // namespace testing_support
