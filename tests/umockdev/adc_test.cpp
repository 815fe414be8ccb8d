// The shared ADC cases through Debian's libusb on the umockdev testbed.
#include "support/adc_cases.h"
#include "support/usbfs_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(AdcOnUmockdev, AdcCases, UsbfsLayer);
}  // namespace testing_support
