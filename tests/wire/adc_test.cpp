// The shared ADC cases over the usbsim, and the block read's reply time-out.
#include "support/adc_cases.h"
#include "support/usbsim_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(AdcOnUsbsim, AdcCases, UsbsimLayer);

// A block waits its duration at the rate and 3 s more: at 2 samples per second, 3 samples wait
// (3000 - 1000) / 2 + 3000 = 4000 ms and outlast a reply 3.7 s late, 2 samples wait 3500 ms and
// do not. One sample per input waits 100 ms, which the USB transport's floor makes a second.
TEST(AdcReadTimeout, IsTheBlocksDurationAtTheRateAndThreeSeconds) {
  UsbsimLayer::unplug_all();
  Adapter adapter = UsbsimLayer::plug(kAdcHandle, {});
  ASSERT_TRUE(scan_until_listed(kAdcHandle) && USB_OpenDevice(kAdcHandle));
  uint16_t samples[3];
  ASSERT_EQ(ADC_Init(kAdcHandle, 0x01, 2), 0);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 3700, 0x501});
  EXPECT_EQ(ADC_Read(kAdcHandle, samples, 3), 0);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 3700, 0x501});
  EXPECT_EQ(ADC_Read(kAdcHandle, samples, 2), -4);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the late reply goes by
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 1300, 0x501});
  EXPECT_EQ(ADC_Read(kAdcHandle, samples, 1), -4);
  UsbsimLayer::unplug_all();
}
}  // namespace testing_support
