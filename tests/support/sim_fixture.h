// Test fixture over the usbsim: a clean bus for every test, helpers to plug and open adapters and
// to read back what went over the wire.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "sim/usbsim.h"
#include "varnel.h"

namespace testing_support {

class SimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    usbsim::unplug_all();
    USB_ScanDevice(nullptr);  // forgets every adapter of the previous test
  }
  void TearDown() override { usbsim::unplug_all(); }

  // Plugs an adapter, scans and opens it; the transfer log starts empty.
  std::shared_ptr<sim::VirtualAdapter> plug_and_open(uint32_t handle, usbsim::Port port = {}) {
    auto adapter = usbsim::plug(handle, port);
    USB_ScanDevice(nullptr);
    EXPECT_TRUE(USB_OpenDevice(handle));
    usbsim::clear_transfers(handle);
    return adapter;
  }

  // Bulk transfers on one endpoint, in order.
  static std::vector<usbsim::Transfer> bulk_on(uint32_t handle, uint8_t endpoint) {
    std::vector<usbsim::Transfer> out;
    for (auto& t : usbsim::transfers(handle))
      if (t.kind == usbsim::Transfer::Kind::kBulk && t.endpoint == endpoint) out.push_back(t);
    return out;
  }
};

}  // namespace testing_support
