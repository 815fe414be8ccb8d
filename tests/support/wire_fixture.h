// One fixture for the wire cases over either USB layer: the usbsim (our libusb stand-in) or the
// umockdev testbed (Debian's libusb over emulated usbdevfs). A family writes its cases once, as
// typed tests over WireTest<Layer> in a *_cases.h header here (TYPED_TEST_SUITE_P, then
// REGISTER_TYPED_TEST_SUITE_P), and each program instantiates them with its own layer:
//   INSTANTIATE_TYPED_TEST_SUITE_P(GpioOnUsbsim, GpioCases, UsbsimLayer);    in tests/wire
//   INSTANTIATE_TYPED_TEST_SUITE_P(GpioOnUmockdev, GpioCases, UsbfsLayer);   in tests/umockdev
// The prefix names family and layer: CTest lists a typed case as prefix.Case<Layer>, without the
// suite's name, so a bare layer name would give two families' cases the same name.
// A layer is a struct of static calls: plug(handle, port), unplug(handle), unplug_all(),
// transfers(handle) and clear_transfers(handle) (every transfer, as usbsim::Transfer),
// counters(handle) (.opens .resets .claims), fail_next_write(handle) and fail_next_read(handle)
// (the next bulk OUT / IN transfer fails the way that layer's hardware fails).
// Cases that only make sense on one layer stay in that program's own files.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "sim/usbsim.h"  // Port and Transfer: both layers use these forms
#include "varnel.h"

namespace testing_support {

using Adapter = std::shared_ptr<sim::VirtualAdapter>;

inline std::vector<DevHandle> scan() {
  DevHandle handles[VARNEL_MAX_DEVICES];
  int n = USB_ScanDevice(handles);
  return n < 0 ? std::vector<DevHandle>{} : std::vector<DevHandle>(handles, handles + n);
}

// Scans until the adapter is listed (or not), for at most five seconds: udev reports plugs to
// the real libusb asynchronously, the usbsim at once.
inline bool scan_until_listed(DevHandle handle, bool listed = true) {
  for (int attempt = 0; attempt < 500; ++attempt) {
    auto found = scan();
    if ((std::find(found.begin(), found.end(), handle) != found.end()) == listed) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

template <class Layer>
class WireTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Layer::unplug_all();
    for (int attempt = 0; attempt < 500 && !scan().empty(); ++attempt)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(scan().empty()) << "adapters of an earlier test are still listed";
  }
  void TearDown() override { Layer::unplug_all(); }

  // Plugs an adapter, waits until a scan lists it, opens it; the transfer log starts empty.
  std::shared_ptr<sim::VirtualAdapter> plug_and_open(uint32_t handle, usbsim::Port port = {}) {
    auto adapter = Layer::plug(handle, port);
    EXPECT_TRUE(adapter && scan_until_listed(handle));
    EXPECT_TRUE(USB_OpenDevice(handle));
    Layer::clear_transfers(handle);
    return adapter;
  }

  // The only adapter on an empty bus, for each case of a table.
  std::shared_ptr<sim::VirtualAdapter> fresh_adapter(uint32_t handle, usbsim::Port port = {}) {
    Layer::unplug_all();
    EXPECT_TRUE(scan_until_listed(handle, false));
    return plug_and_open(handle, port);
  }

  // Bulk transfers on one endpoint, in order.
  static std::vector<usbsim::Transfer> bulk_on(uint32_t handle, uint8_t endpoint) {
    std::vector<usbsim::Transfer> out;
    for (auto& t : Layer::transfers(handle))
      if (t.kind == usbsim::Transfer::Kind::kBulk && t.endpoint == endpoint) out.push_back(t);
    return out;
  }
  // The one request written since the log was last cleared, header included (empty when there
  // were none or several); the log starts over.
  static std::vector<uint8_t> take_request(uint32_t handle) {
    auto out = bulk_on(handle, 0x01);
    Layer::clear_transfers(handle);
    return out.size() == 1 ? out[0].data : std::vector<uint8_t>{};
  }
  static size_t requests_sent(uint32_t handle) { return bulk_on(handle, 0x01).size(); }
};

}  // namespace testing_support
