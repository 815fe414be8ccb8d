// The umockdev testbed as a wire-test layer (see wire_fixture.h): a failed write is a stalled
// URB (-EPIPE), a failed read a protocol error (-EPROTO), as a real host controller reports them.
#pragma once

#include <errno.h>

#include "sim/umockdev/usbfs_testbed.h"

namespace testing_support {

struct UsbfsLayer {
  static auto plug(uint32_t handle, const usbsim::Port& port) { return usbfs::plug(handle, port); }
  static bool unplug(uint32_t handle) { return usbfs::unplug(handle); }
  static void unplug_all() { usbfs::unplug_all(); }
  static auto transfers(uint32_t handle) { return usbfs::transfers(handle); }
  static void clear_transfers(uint32_t handle) { usbfs::clear_transfers(handle); }
  static auto counters(uint32_t handle) { return usbfs::counters(handle); }
  static void fail_next_write(uint32_t handle) { usbfs::fail_next_urb(handle, 0x01, -EPIPE); }
  static void fail_next_read(uint32_t handle) { usbfs::fail_next_urb(handle, 0x81, -EPROTO); }
};

}  // namespace testing_support
