// USB discovery and connection against the usbsim: order, moves, identity changes and resume.
#include "core/usb.h"

#include <libusb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "core/transport.h"
#include "support/sim_fixture.h"

using testing_support::SimTest;

namespace {
constexpr uint32_t kFirst = 0x11111110;
constexpr uint32_t kSecond = 0x22222220;

std::vector<DevHandle> scan() {
  DevHandle handles[VARNEL_MAX_DEVICES];
  int n = USB_ScanDevice(handles);
  return n < 0 ? std::vector<DevHandle>{} : std::vector<DevHandle>(handles, handles + n);
}
}  // namespace

class UsbDiscovery : public SimTest {};

TEST_F(UsbDiscovery, ListsAdaptersInDiscoveryOrderAndShiftsIndexesOnUnplug) {
  usbsim::plug(kFirst, {1, {1}});
  usbsim::plug(kSecond, {1, {2}});
  usbsim::plug(0x33333330, {1, {3}, 3, 0x1234, 31000});  // another vendor: ignored
  usbsim::plug(0x44444440, {1, {4}, 3, 0x0483, 31002});  // another product: ignored
  EXPECT_EQ(scan(), (std::vector<DevHandle>{kFirst, kSecond}));
  EXPECT_EQ(varnel::device_index(kSecond), 1);
  usbsim::unplug(kFirst);
  EXPECT_EQ(scan(), (std::vector<DevHandle>{kSecond}));
  EXPECT_EQ(varnel::device_index(kSecond), 0);
  EXPECT_EQ(varnel::device_index(kFirst), -1);
}

TEST_F(UsbDiscovery, AcceptsBothProductIds) {
  usbsim::plug(kFirst, {1, {1}, 3, 0x0483, 31000});
  usbsim::plug(kSecond, {1, {2}, 3, 0x0483, 31001});
  EXPECT_EQ(scan().size(), 2u);
}

TEST_F(UsbDiscovery, LocationPathRepeatsThePortAfterTheBus) {
  usbsim::plug(kFirst, {2, {1, 4}});
  scan();
  EXPECT_EQ(varnel::usb_location_path(kFirst), "1.4.2.4");
}

TEST_F(UsbDiscovery, DeviceWithoutPortChainIsNotAccepted) {
  usbsim::plug(kFirst, {1, {}});
  EXPECT_TRUE(scan().empty());
}

TEST_F(UsbDiscovery, MovedAdapterKeepsItsHandleAndEntry) {
  usbsim::plug(kFirst, {1, {1}});
  usbsim::plug(kSecond, {1, {2}});
  scan();
  ASSERT_TRUE(usbsim::move(kFirst, {1, {5, 3}}));
  EXPECT_EQ(scan(), (std::vector<DevHandle>{kFirst, kSecond}));
  EXPECT_EQ(varnel::usb_location_path(kFirst), "5.3.1.3");
  EXPECT_TRUE(USB_OpenDevice(kFirst));
}

TEST_F(UsbDiscovery, OpenOfAbsentAdapterFails) {
  usbsim::plug(kFirst);
  EXPECT_FALSE(USB_OpenDevice(kSecond));
  EXPECT_TRUE(USB_OpenDevice(kFirst));  // scans on demand
  EXPECT_TRUE(USB_CloseDevice(kFirst));
  EXPECT_FALSE(USB_CloseDevice(kFirst));  // already closed
}

TEST_F(UsbDiscovery, ReopenRechecksIdentityAtTheLocation) {
  plug_and_open(kFirst, {1, {1}});
  // Another adapter takes the same port while the first is open.
  usbsim::unplug(kFirst);
  usbsim::plug(kSecond, {1, {1}});
  scan();  // the entry at that location reads the new identity
  EXPECT_FALSE(USB_OpenDevice(kFirst));
  EXPECT_FALSE(USB_CloseDevice(kFirst));  // the entry was marked closed
}

// A closed adapter's port changes hands between two scans: the adapter itself plugged back (a new
// libusb device) or another adapter. One scan lists whoever is there now, and it opens.
TEST_F(UsbDiscovery, ClosedAdaptersPortChangingHandsBetweenScansListsTheNewcomer) {
  for (uint32_t newcomer : {kFirst, kSecond}) {
    SCOPED_TRACE(newcomer);
    usbsim::unplug_all();
    scan();
    usbsim::plug(kFirst, {1, {1}});
    scan();
    usbsim::unplug(kFirst);
    usbsim::plug(newcomer, {1, {1}});
    EXPECT_EQ(scan(), std::vector<DevHandle>{newcomer});
    EXPECT_TRUE(USB_OpenDevice(newcomer));
  }
}

TEST_F(UsbDiscovery, ResetSendsVendorRequest) {
  auto adapter = plug_and_open(kFirst);
  EXPECT_TRUE(USB_ResetDevice(kFirst));
  auto log = usbsim::transfers(kFirst);
  ASSERT_FALSE(log.empty());
  EXPECT_EQ(log.back().kind, usbsim::Transfer::Kind::kControl);
  EXPECT_EQ(log.back().endpoint, 0x60);
  EXPECT_EQ(adapter->reset_count(), 1u);
  EXPECT_FALSE(USB_ResetDevice(kSecond));
}

TEST_F(UsbDiscovery, WaitResumeWithZeroTimeoutTriesOnce) {
  plug_and_open(kFirst);
  usbsim::set_suspended(kFirst, true);
  usbsim::clear_transfers(kFirst);
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(USB_WaitResume(kFirst, 0));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
  EXPECT_EQ(usbsim::counters(kFirst).opens, 1);
}

TEST_F(UsbDiscovery, WaitResumeReturnsOnceTheAdapterAnswers) {
  plug_and_open(kFirst);
  usbsim::set_suspended(kFirst, true);
  std::thread waker([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    usbsim::set_suspended(kFirst, false);
  });
  EXPECT_TRUE(USB_WaitResume(kFirst, 5000));
  waker.join();
  EXPECT_TRUE(USB_RetryConnect(kFirst));
}

TEST_F(UsbDiscovery, RetryConnectFailsForUnpluggedAdapter) {
  plug_and_open(kFirst);
  usbsim::unplug(kFirst);
  EXPECT_FALSE(USB_RetryConnect(kFirst));
}
