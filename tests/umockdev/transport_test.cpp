// What only usbdevfs shows of the transport: how libusb cuts a 64 KiB chunk into URBs when the
// host controller has no scatter-gather, and what a stalled URB leaves behind.
#include <errno.h>

#include "support/transport_cases.h"
#include "support/usbfs_layer.h"

namespace testing_support {

class UsbfsUrbs : public WireTest<UsbfsLayer> {
 protected:
  std::shared_ptr<sim::VirtualAdapter> plug_without_scatter_gather() {
    auto adapter = usbfs::plug(kTransportHandle, {}, false);
    EXPECT_TRUE(scan_until_listed(kTransportHandle) && USB_OpenDevice(kTransportHandle));
    usbfs::clear_transfers(kTransportHandle);
    return adapter;
  }
};

// Without scatter-gather libusb splits each 64 KiB chunk into four 16 KiB URBs.
TEST_F(UsbfsUrbs, ChunksAreSplitIntoSixteenKiBUrbs) {
  std::vector<uint8_t> payload(600000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = uint8_t(i * 7 + i / 65536);
  plug_without_scatter_gather()->push_reply({0x0105, payload});
  std::vector<uint8_t> buffer(0x80000);
  varnel::CommandPacket reply{0x0105, 0, buffer.data(), int32_t(buffer.size())};
  ASSERT_EQ(varnel::read_reply(kTransportHandle, reply, 3000), 0);
  auto in = bulk_on(kTransportHandle, 0x81);
  ASSERT_EQ(in.size(), 1 + 8 * 4u);
  for (size_t i = 1; i < in.size(); ++i) EXPECT_EQ(in[i].data.size(), 16384u) << i;
  EXPECT_TRUE(std::equal(buffer.begin(), buffer.end(), payload.begin()));
}

// 20000 of 40000 bytes: the second of three URBs is short and libusb takes back the third.
TEST_F(UsbfsUrbs, ShortUrbInASplitTransferIsAFailedRead) {
  auto adapter = plug_without_scatter_gather();
  install_echo(*adapter);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kShort, 20000});
  std::vector<uint8_t> payload(40000, 0x3C), reply(40000);
  EXPECT_EQ(varnel::transact(kTransportHandle, 0x0102, payload, reply).read_result, -3);
  EXPECT_EQ(usbfs::counters(kTransportHandle).discards, 1);
}

TEST_F(UsbfsUrbs, StalledWriteDeliversNothing) {
  auto adapter = plug_and_open(kTransportHandle);
  install_echo(*adapter);
  usbfs::fail_next_urb(kTransportHandle, 0x01, -EPIPE);
  EXPECT_EQ(send(kTransportHandle, 0x0101, {9, 9}), 0);
  EXPECT_EQ(bulk_on(kTransportHandle, 0x01).at(0).result, -EPIPE);
  EXPECT_EQ(adapter->received().size(), 1u);  // only the retried packet
}

}  // namespace testing_support
