// The shared LIN cases through Debian's libusb on the umockdev testbed.
#include "support/lin_cases.h"
#include "support/lin_uds_cases.h"
#include "support/usbfs_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(LinOnUmockdev, LinCases, UsbfsLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(LinUdsOnUmockdev, LinUdsCases, UsbfsLayer);
}  // namespace testing_support
