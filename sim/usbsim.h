// Control API of libvarnel-usbsim, the libusb-1.0 stand-in whose devices are virtual adapters.
// Tests and tools plug adapters in, pull them out, move them between ports, make transfers fail,
// and read back the transfers the host made most recently.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "sim/virtual_adapter.h"

namespace usbsim {

struct Port {
  uint8_t bus = 1;
  std::vector<uint8_t> chain{1};  // port numbers from the root hub down; the last is the port
  int speed = 3;                  // libusb_speed: 2 full, 3 high
  uint16_t vendor_id = 0x0483;
  uint16_t product_id = 31000;
};

std::shared_ptr<sim::VirtualAdapter> plug(uint32_t handle, const Port& port = {});
void plug_adapter(std::shared_ptr<sim::VirtualAdapter> adapter, const Port& port);
// The device object goes away for good, as on a real unplug; open handles fail from now on.
bool unplug(uint32_t handle);
// The adapter loses power and comes back in the same port: a new device object and a fresh
// firmware (nothing initialised, the device clock from zero) under the same handle. Open handles
// on the old device fail from now on, as after an unplug.
bool power_cycle(uint32_t handle);
// Unplug, then plug the same adapter (same firmware state) into another port.
bool move(uint32_t handle, const Port& port);
// A suspended adapter keeps its device object but fails every transfer and open until resumed.
void set_suspended(uint32_t handle, bool suspended);
void unplug_all();
std::shared_ptr<sim::VirtualAdapter> adapter(uint32_t handle);

struct Transfer {
  enum class Kind { kBulk, kControl } kind = Kind::kBulk;
  uint8_t endpoint = 0;       // bulk endpoint, or the control request code
  int requested = 0;          // bytes asked for
  std::vector<uint8_t> data;  // bytes moved
  int result = 0;             // libusb result code
};
// The most recent transfers of the adapter, oldest first: at most kTransferWindow of them and
// kTransferWindowBytes of data (the newest always), so that a long run stays in bounded memory.
constexpr size_t kTransferWindow = 16384;
constexpr size_t kTransferWindowBytes = 16u << 20;
std::vector<Transfer> transfers(uint32_t handle);
void clear_transfers(uint32_t handle);

struct Counters {
  int opens = 0;   // libusb_open attempts
  int resets = 0;  // libusb_reset_device calls
  int claims = 0;
};
Counters counters(uint32_t handle);

// The next `count` bulk transfers on `endpoint` fail with `libusb_error`.
void fail_next_transfers(uint32_t handle, uint8_t endpoint, int libusb_error, int count = 1);
// The next bulk OUT transfer on `endpoint` moves only `bytes` bytes.
void short_next_transfer(uint32_t handle, uint8_t endpoint, int bytes);

}  // namespace usbsim
