// The shared K-line cases through Debian's libusb on the umockdev testbed; the 5-baud ones run on
// the usbsim only (their pin commands are the same on every layer).
#include "support/kline_cases.h"
#include "support/usbfs_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(KlineOnUmockdev, KlineCases, UsbfsLayer);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(KlineFiveBaudCases);
}  // namespace testing_support
