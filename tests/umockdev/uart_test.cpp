// The shared UART cases through Debian's libusb on the umockdev testbed.
#include "support/uart_cases.h"
#include "support/usbfs_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(Umockdev, UartCases, UsbfsLayer);
}  // namespace testing_support
