// USB discovery and connection against the usbsim: order, moves, identity changes and resume.
#include "core/usb.h"

#include <libusb.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

#include "core/transport.h"
#include "support/sim_fixture.h"

using testing_support::SimTest;

namespace {
constexpr uint32_t kFirst = 0x11111110;
constexpr uint32_t kSecond = 0x22222220;
using testing_support::scan;
}  // namespace

class UsbDiscovery : public SimTest {};

TEST_F(UsbDiscovery, ListsAdaptersInDiscoveryOrderAndShiftsIndexesOnUnplug) {
  usbsim::plug(kFirst, {1, {1}, 3, 0x0483, 31000});
  usbsim::plug(kSecond, {1, {2}, 3, 0x0483, 31001});
  usbsim::plug(0x33333330, {1, {3}, 3, 0x1234, 31000});  // another vendor: ignored
  usbsim::plug(0x44444440, {1, {4}, 3, 0x0483, 31002});  // another product: ignored
  EXPECT_EQ(scan(), (std::vector<DevHandle>{kFirst, kSecond}));
  EXPECT_EQ(varnel::device_index(kSecond), 1);
  usbsim::unplug(kFirst);
  EXPECT_EQ(scan(), (std::vector<DevHandle>{kSecond}));
  EXPECT_EQ(varnel::device_index(kSecond), 0);
  EXPECT_EQ(varnel::device_index(kFirst), -1);
}

TEST_F(UsbDiscovery, LocationPathRepeatsThePortAfterTheBus) {
  struct Case {
    usbsim::Port port;
    const char* path;  // empty: not accepted
  } cases[] = {{{2, {1, 4}}, "1.4.2.4"}, {{3, {7}}, "7.3.7"}, {{1, {}}, ""}};
  for (auto& c : cases) {
    usbsim::unplug_all();
    usbsim::plug(kFirst, c.port);
    EXPECT_EQ(scan().size(), c.path[0] ? 1u : 0u) << c.path;
    EXPECT_EQ(varnel::usb_location_path(kFirst), c.path);
  }
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

TEST_F(UsbDiscovery, OpenRechecksIdentityAtTheLocation) {
  usbsim::plug(kFirst, {1, {1}});
  EXPECT_FALSE(USB_OpenDevice(kSecond));
  EXPECT_TRUE(USB_OpenDevice(kFirst));  // scans on demand
  EXPECT_TRUE(USB_CloseDevice(kFirst));
  EXPECT_FALSE(USB_CloseDevice(kFirst));  // already closed
  ASSERT_TRUE(USB_OpenDevice(kFirst));
  // Another adapter takes the same port while the first is open.
  usbsim::unplug(kFirst);
  usbsim::plug(kSecond, {1, {1}});
  EXPECT_EQ(scan(), std::vector<DevHandle>{kSecond}) << "the newcomer, under its own handle";
  EXPECT_FALSE(USB_OpenDevice(kFirst));
  EXPECT_FALSE(USB_CloseDevice(kFirst));
  EXPECT_TRUE(USB_OpenDevice(kSecond));
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

TEST_F(UsbDiscovery, WaitResumeTriesOnceWithZeroTimeoutAndReturnsOnceTheAdapterAnswers) {
  plug_and_open(kFirst);
  usbsim::set_suspended(kFirst, true);
  EXPECT_FALSE(USB_WaitResume(kFirst, 0));
  EXPECT_EQ(usbsim::counters(kFirst).opens, 1);
  std::thread waker([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    usbsim::set_suspended(kFirst, false);
  });
  EXPECT_TRUE(USB_WaitResume(kFirst, 5000));
  waker.join();
  EXPECT_TRUE(USB_RetryConnect(kFirst));
  usbsim::unplug(kFirst);
  EXPECT_FALSE(USB_RetryConnect(kFirst));
}

// A read that failed leaves the adapter's answer queued; the next transaction reads it off before
// it writes, whatever happened to the connection in between, and later ones do not wait for it.
TEST_F(UsbDiscovery, LateReplyIsDrainedByTheNextTransactionOnly) {
  struct Case {
    const char* name;
    bool another_command;  // its payload stays unread; else the header read times out
    std::function<void()> between;
  } cases[] = {{"header read timed out", false, [] {}},
               {"reopened", true, [] { USB_CloseDevice(kFirst), USB_OpenDevice(kFirst); }},
               {"reconnected", false, [] { USB_RetryConnect(kFirst); }}};
  auto adapter = plug_and_open(kFirst);
  adapter->clock().hold_at_us(123'456'000);
  auto in_transfers = [] {  // (count, time-outs) since the last call
    auto in = bulk_on(kFirst, 0x81);
    usbsim::clear_transfers(kFirst);
    return std::make_pair(in.size(), std::count_if(in.begin(), in.end(), [](auto& t) {
                            return t.result == LIBUSB_ERROR_TIMEOUT;
                          }));
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    char ip[VARNEL_DEV_IP_ADDR_SIZE] = {};
    if (c.another_command)
      adapter->faults().next_reply({sim::ReplyFault::Kind::kOtherCommand, 0x0101});
    else
      usbsim::fail_next_transfers(kFirst, 0x81, LIBUSB_ERROR_TIMEOUT);
    EXPECT_FALSE(DEV_GetIPAddr(kFirst, ip));
    c.between();
    usbsim::clear_transfers(kFirst);
    EXPECT_EQ(DEV_GetTimestampMs(kFirst), 123456);
    EXPECT_EQ(in_transfers().second, 1);  // the drain ended on its short time-out
    EXPECT_TRUE(DEV_GetIPAddr(kFirst, ip));
    EXPECT_STREQ(ip, "192.168.1.10");
    EXPECT_EQ(in_transfers(), std::make_pair(size_t(2), 0L));  // header and payload only
  }
}

// The usbsim may serve a monitor all day: what it records for tests is a window of the latest
// transfers and packets, bounded in count and in bytes, the newest last.
TEST_F(UsbDiscovery, RecordersKeepABoundedWindowOfTheLatest) {
  libusb_context* context = nullptr;
  ASSERT_EQ(libusb_init(&context), 0);
  struct Case {
    size_t packets, payload, transfers_kept, packets_kept;
  } cases[] = {
      {usbsim::kTransferWindow + 100, 0, usbsim::kTransferWindow,
       sim::VirtualAdapter::kReceivedWindow},
      // 16 MiB: 15 transfers of 1 MiB and an 8-byte header fit, 16 packets of 1 MiB payload
      {40, 1u << 20, 15, 16},
  };
  for (const auto& c : cases) {
    auto adapter = usbsim::plug(kFirst);
    libusb_device** list = nullptr;
    ASSERT_EQ(libusb_get_device_list(context, &list), 1);
    libusb_device_handle* device = nullptr;
    ASSERT_EQ(libusb_open(list[0], &device), 0);
    libusb_free_device_list(list, 1);
    for (uint32_t n = 0; n < c.packets; ++n) {
      // a command the firmware does not know (no reply), numbered so the last can be told
      std::vector<uint8_t> packet(8 + c.payload);
      for (int i = 0; i < 4; ++i) {
        packet[size_t(i)] = uint8_t((0x7F000000u + n) >> (24 - 8 * i));
        packet[size_t(4 + i)] = uint8_t(c.payload >> (24 - 8 * i));
      }
      int moved = 0;
      ASSERT_EQ(libusb_bulk_transfer(device, 0x01, packet.data(), int(packet.size()), &moved, 100),
                0);
    }
    const auto transfers = usbsim::transfers(kFirst);
    const auto packets = adapter->received();
    EXPECT_EQ(transfers.size(), c.transfers_kept);
    EXPECT_EQ(packets.size(), c.packets_kept);
    ASSERT_FALSE(transfers.empty() || packets.empty());
    EXPECT_EQ(transfers.back().data[3], uint8_t(c.packets - 1));
    EXPECT_EQ(packets.back().command, 0x7F000000u + uint32_t(c.packets - 1));
    libusb_close(device);
    usbsim::unplug_all();
    usbsim::clear_transfers(kFirst);
  }
  libusb_exit(context);
}
