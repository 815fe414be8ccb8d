// The transport's handle rules, and the shared transport and stream cases over the usbsim.
#include "core/transport.h"

#include "support/stream_cases.h"
#include "support/transport_cases.h"
#include "support/usbsim_layer.h"

using testing_support::UsbsimLayer;

TEST(TransportHandles, NetworkHandlesNeedBitZeroClear) {
  struct Case {
    uint32_t handle;
    bool network;
  } cases[] = {{0x55000000, true},  {0x55ABCDE0, true},  {0x56000002, true},  {0x55000001, false},
               {0x56FFFFFF, false}, {0x57000000, false}, {0x53000000, false}, {0x12345678, false}};
  for (auto c : cases)
    EXPECT_EQ(varnel::is_network_handle(c.handle), c.network) << std::hex << c.handle;
}

TEST(TransportHandles, TopByteFFIndexesByLowByte) {
  EXPECT_EQ(varnel::device_index(0xFF000007), 7);
  EXPECT_EQ(varnel::device_index(0xFFABCD3B), 0x3B);
  EXPECT_EQ(varnel::device_index(0x0BADF00D), -1);  // known nowhere
}

namespace testing_support {
INSTANTIATE_TYPED_TEST_SUITE_P(TransportOnUsbsim, TransportCases, UsbsimLayer);
INSTANTIATE_TYPED_TEST_SUITE_P(StreamOnUsbsim, StreamCases, UsbsimLayer);
}  // namespace testing_support
