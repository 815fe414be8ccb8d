// The shared K-line cases through Debian's libusb on the umockdev testbed.
#include "support/kline_cases.h"
#include "support/usbfs_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(Umockdev, KlineCases, UsbfsLayer);
}  // namespace testing_support
