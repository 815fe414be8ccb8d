// The wire fixture over the usbsim, for tests that run on that layer only.
#pragma once

#include "support/usbsim_layer.h"
#include "support/wire_fixture.h"

namespace testing_support {
using SimTest = WireTest<UsbsimLayer>;
}  // namespace testing_support
