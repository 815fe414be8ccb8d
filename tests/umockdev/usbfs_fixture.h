// Fixture over the umockdev testbed: an empty bus for every test, and helpers that wait for
// libusb's hotplug thread to see a plug or an unplug (udev reports them asynchronously).
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "usbfs_testbed.h"
#include "varnel.h"

namespace testing_support {

inline std::vector<DevHandle> scan() {
  DevHandle handles[VARNEL_MAX_DEVICES];
  int n = USB_ScanDevice(handles);
  return n < 0 ? std::vector<DevHandle>{} : std::vector<DevHandle>(handles, handles + n);
}

// Scans until the adapter is listed (or not), for at most five seconds.
inline bool scan_until_listed(DevHandle handle, bool listed = true) {
  for (int attempt = 0; attempt < 500; ++attempt) {
    auto found = scan();
    if ((std::find(found.begin(), found.end(), handle) != found.end()) == listed) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

class UsbfsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    usbfs::unplug_all();
    for (int attempt = 0; attempt < 500 && !scan().empty(); ++attempt)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(scan().empty()) << "adapters of an earlier test are still listed";
  }
  void TearDown() override { usbfs::unplug_all(); }

  // Plugs an adapter, waits until a scan lists it, opens it; the transfer log starts empty.
  std::shared_ptr<sim::VirtualAdapter> plug_and_open(uint32_t handle, usbfs::Port port = {}) {
    auto adapter = usbfs::plug(handle, port);
    EXPECT_TRUE(adapter);
    EXPECT_TRUE(scan_until_listed(handle));
    EXPECT_TRUE(USB_OpenDevice(handle));
    usbfs::clear_transfers(handle);
    return adapter;
  }

  static std::vector<usbfs::Transfer> bulk_on(uint32_t handle, uint8_t endpoint) {
    std::vector<usbfs::Transfer> out;
    for (auto& t : usbfs::transfers(handle))
      if (t.kind == usbfs::Transfer::Kind::kBulk && t.endpoint == endpoint) out.push_back(t);
    return out;
  }
};

}  // namespace testing_support
