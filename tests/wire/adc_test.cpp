// The shared ADC cases over the usbsim.
#include "support/adc_cases.h"
#include "support/usbsim_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(Usbsim, AdcCases, UsbsimLayer);
}  // namespace testing_support
