// The shared wire cases of every family through Debian's libusb on the umockdev testbed; the
// 5-baud K-line cases run on the usbsim only (their pin commands are the same on every layer).
#include "support/adc_cases.h"
#include "support/gpio_cases.h"
#include "support/i2c_cases.h"
#include "support/kline_cases.h"
#include "support/lin_cases.h"
#include "support/lin_uds_cases.h"
#include "support/spi_cases.h"
#include "support/stream_cases.h"
#include "support/transport_cases.h"
#include "support/uart_cases.h"
#include "support/usbfs_layer.h"

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(AdcOnUmockdev, AdcCases, UsbfsLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(GpioOnUmockdev, GpioCases, UsbfsLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(I2cOnUmockdev, I2cCases, UsbfsLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(KlineOnUmockdev, KlineCases, UsbfsLayer);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(KlineFiveBaudCases);
INSTANTIATE_TYPED_TEST_SUITE_P(LinOnUmockdev, LinCases, UsbfsLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(LinUdsOnUmockdev, LinUdsCases, UsbfsLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(SpiOnUmockdev, SpiCases, UsbfsLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(StreamOnUmockdev, StreamCases, UsbfsLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(TransportOnUmockdev, TransportCases, UsbfsLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(UartOnUmockdev, UartCases, UsbfsLayer);
}  // namespace testing_support
