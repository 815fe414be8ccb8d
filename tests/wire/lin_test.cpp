// The shared LIN cases over the usbsim.
#include "support/lin_cases.h"
#include "support/lin_uds_cases.h"
#include "support/usbsim_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(LinOnUsbsim, LinCases, UsbsimLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(LinUdsOnUsbsim, LinUdsCases, UsbsimLayer);
}  // namespace testing_support
