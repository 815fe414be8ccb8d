// The shared I2C and SMBus cases over the usbsim.
#include "support/i2c_cases.h"
#include "support/usbsim_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(I2cOnUsbsim, I2cCases, UsbsimLayer);
}  // namespace testing_support
