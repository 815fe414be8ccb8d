// Virtual adapters behind the real libusb: a umockdev testbed holds their sysfs entries and
// descriptors, and a usbdevfs ioctl handler moves the URBs that libusb submits to and from a
// sim::VirtualAdapter. The library's USB code then runs on Debian's libusb unchanged, so
// behaviour the usbsim only imitates (URB reaping, time-outs by URB discard, hotplug through
// udev, port numbers from sysfs names) is the real thing.
//
// The process must run with libumockdev-preload loaded; main() re-executes itself with it.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "sim/usbsim.h"  // Port and Transfer, shared with the usbsim so tests read alike
#include "sim/virtual_adapter.h"

namespace usbfs {

using Port = usbsim::Port;
using Transfer = usbsim::Transfer;

struct Counters {
  int opens = 0;     // device node opened (libusb_open)
  int claims = 0;    // CLAIMINTERFACE
  int releases = 0;  // RELEASEINTERFACE
  int resets = 0;    // RESET (libusb_reset_device)
  int discards = 0;  // DISCARDURB: libusb cancelled a transfer (time-out or cancel)
};

// Creates the testbed; must run before the library initialises libusb.
void start();
// Unplugs everything and removes the testbed's directory.
void stop();
// True when the umockdev preload library is loaded in this process.
bool preload_active();

// Adds the adapter's sysfs device (and the hubs of its port chain) and announces it to udev.
// Its host controller does scatter-gather (libusb submits one URB per bulk transfer) or not
// (libusb splits bulk transfers into 16 KiB URBs).
std::shared_ptr<sim::VirtualAdapter> plug(uint32_t handle, const Port& port = {},
                                          bool scatter_gather = true);
// Every later ioctl on the adapter's open device nodes fails with ENODEV, as after a real
// unplug, and the sysfs device goes away with a "remove" uevent.
bool unplug(uint32_t handle);
void unplug_all();
std::shared_ptr<sim::VirtualAdapter> adapter(uint32_t handle);

// Every URB that completed, in completion order: bulk transfers by endpoint, control transfers
// by request code. `result` is the URB's status: 0, or a negative errno (-ENOENT: discarded).
std::vector<Transfer> transfers(uint32_t handle);
void clear_transfers(uint32_t handle);
Counters counters(uint32_t handle);
// The next URB on `endpoint` completes with `status` (a negative errno, e.g. -EPIPE for a stall)
// and moves no data.
void fail_next_urb(uint32_t handle, uint8_t endpoint, int status);

}  // namespace usbfs
