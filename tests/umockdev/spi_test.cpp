// The shared SPI cases through Debian's libusb on the umockdev testbed.
#include "support/spi_cases.h"
#include "support/usbfs_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(SpiOnUmockdev, SpiCases, UsbfsLayer);
}  // namespace testing_support
