// The shared K-line cases over the usbsim, with the 5-baud ones.
#include "support/kline_cases.h"
#include "support/usbsim_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(KlineOnUsbsim, KlineCases, UsbsimLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(KlineFiveBaudOnUsbsim, KlineFiveBaudCases, UsbsimLayer);
}  // namespace testing_support
