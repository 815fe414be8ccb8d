// Discovery through the real libusb, where the usbsim only imitates it: devices come from sysfs
// and udev, port numbers from the sysfs names, the identity from a control URB.
#include <cstring>

#include "core/transport.h"
#include "core/usb.h"
#include "support/usbfs_layer.h"
#include "support/wire_fixture.h"

using testing_support::scan;
using testing_support::scan_until_listed;

namespace {
constexpr uint32_t kFirst = 0x11111110;
constexpr uint32_t kSecond = 0x22222220;
}  // namespace

class UsbfsDiscovery : public testing_support::WireTest<testing_support::UsbfsLayer> {};

TEST_F(UsbfsDiscovery, ListsAdaptersInDiscoveryOrderAndShiftsIndexesOnUnplug) {
  usbfs::plug(kFirst, {1, {1}});
  ASSERT_TRUE(scan_until_listed(kFirst));
  usbfs::plug(kSecond, {1, {2}});
  usbfs::plug(0x33333330, {1, {3}, 3, 0x1234, 31000});  // another vendor
  usbfs::plug(0x44444440, {1, {4}, 3, 0x0483, 31002});  // another product
  ASSERT_TRUE(scan_until_listed(kSecond));
  EXPECT_EQ(scan(), (std::vector<DevHandle>{kFirst, kSecond}));
  EXPECT_EQ(varnel::device_index(kSecond), 1);
  usbfs::unplug(kFirst);
  ASSERT_TRUE(scan_until_listed(kFirst, false));
  EXPECT_EQ(scan(), (std::vector<DevHandle>{kSecond}));
  EXPECT_EQ(varnel::device_index(kSecond), 0);
  EXPECT_EQ(varnel::device_index(kFirst), -1);
}

TEST_F(UsbfsDiscovery, IdentityIsReadWithVendorRequestInHostOrder) {
  usbfs::plug(0x12345678, {1, {1}, 3, 0x0483, 31001});
  ASSERT_TRUE(scan_until_listed(0x12345678));
  auto log = usbfs::transfers(0x12345678);
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log[0].kind, usbfs::Transfer::Kind::kControl);
  EXPECT_EQ(log[0].endpoint, 0x50);
  EXPECT_EQ(log[0].requested, 4);
  uint32_t identity = 0x12345678;
  std::vector<uint8_t> host_order(4);
  std::memcpy(host_order.data(), &identity, 4);
  EXPECT_EQ(log[0].data, host_order);
}

// libusb takes the port chain from the sysfs names of the device and its hubs.
TEST_F(UsbfsDiscovery, LocationPathComesFromTheSysfsPortChain) {
  struct Case {
    usbfs::Port port;
    const char* path;
  } cases[] = {
      {{1, {1}}, "1.1.1"},
      {{2, {1, 4}}, "1.4.2.4"},
      {{1, {5, 3, 2}}, "5.3.2.1.2"},
  };
  uint32_t handle = 0x51000000;
  for (auto& c : cases) {
    usbfs::unplug_all();
    ASSERT_TRUE(scan_until_listed(handle, false));
    handle += 0x10;
    usbfs::plug(handle, c.port);
    ASSERT_TRUE(scan_until_listed(handle)) << c.path;
    EXPECT_EQ(varnel::usb_location_path(handle), c.path);
  }
}

TEST_F(UsbfsDiscovery, OpenClaimsInterfaceZeroAndCloseReleasesIt) {
  usbfs::plug(kFirst);
  EXPECT_FALSE(USB_OpenDevice(kSecond));
  ASSERT_TRUE(USB_OpenDevice(kFirst));  // scans on demand
  auto counters = usbfs::counters(kFirst);
  EXPECT_EQ(counters.claims, 1);
  EXPECT_EQ(counters.releases, 0);
  EXPECT_TRUE(USB_CloseDevice(kFirst));
  EXPECT_EQ(usbfs::counters(kFirst).releases, 1);
  EXPECT_FALSE(USB_CloseDevice(kFirst));  // already closed
}
