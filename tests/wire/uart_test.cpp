// The shared UART cases over the usbsim.
#include "support/uart_cases.h"
#include "support/usbsim_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(Usbsim, UartCases, UsbsimLayer);
}  // namespace testing_support
