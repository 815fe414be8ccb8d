// The shared I2C and SMBus cases through Debian's libusb on the umockdev testbed.
#include "support/i2c_cases.h"
#include "support/usbfs_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(I2cOnUmockdev, I2cCases, UsbfsLayer);
}  // namespace testing_support
