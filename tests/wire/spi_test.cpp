// The shared SPI cases over the usbsim.
#include "support/spi_cases.h"
#include "support/usbsim_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(SpiOnUsbsim, SpiCases, UsbsimLayer);
}  // namespace testing_support
