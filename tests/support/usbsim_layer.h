// The usbsim as a wire-test layer (see wire_fixture.h). A failed write moves 3 bytes of the
// packet: the short transfer the library must take as a failure like any error.
#pragma once

#include <libusb.h>

#include "sim/usbsim.h"

namespace testing_support {

struct UsbsimLayer {
  static auto plug(uint32_t handle, const usbsim::Port& port) { return usbsim::plug(handle, port); }
  static bool unplug(uint32_t handle) { return usbsim::unplug(handle); }
  static void unplug_all() { usbsim::unplug_all(); }
  static auto transfers(uint32_t handle) { return usbsim::transfers(handle); }
  static void clear_transfers(uint32_t handle) { usbsim::clear_transfers(handle); }
  static auto counters(uint32_t handle) { return usbsim::counters(handle); }
  static void fail_next_write(uint32_t handle) { usbsim::short_next_transfer(handle, 0x01, 3); }
  static void fail_next_read(uint32_t handle) {
    usbsim::fail_next_transfers(handle, 0x81, LIBUSB_ERROR_IO);
  }
};

}  // namespace testing_support
