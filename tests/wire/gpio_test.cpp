// GPIO's pulse-train arithmetic, and the shared GPIO cases over the usbsim.
#include "support/gpio_cases.h"
#include "support/usbsim_layer.h"

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

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(GpioOnUsbsim, GpioCases, UsbsimLayer);
}  // namespace testing_support
