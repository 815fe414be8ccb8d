// The command-packet transport through the real libusb: exact bytes of each URB, zero-length
// packets, 64 KiB reply chunks, time-outs by URB discard, failed writes and unplugs.
#include "core/transport.h"

#include <errno.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "core/transaction.h"
#include "usbfs_fixture.h"

using testing_support::UsbfsTest;
using varnel::CommandPacket;

namespace {

constexpr uint32_t kHandle = 0x12345678;

// The test firmware answers every command of the 0x01xx block with its payload echoed.
void install_echo(sim::VirtualAdapter& adapter) {
  adapter.on(0x0100, 0x01FF, [](sim::VirtualAdapter&, const sim::Packet& request) {
    return std::optional<sim::Packet>(request);
  });
}

int send(uint32_t handle, uint32_t command, std::vector<uint8_t> payload) {
  CommandPacket request{command, int32_t(payload.size()), payload.data(), 0};
  return varnel::send_command(handle, request, 3000);
}

}  // namespace

class UsbfsTransport : public UsbfsTest {
 protected:
  std::shared_ptr<sim::VirtualAdapter> fresh_adapter(usbfs::Port port = {},
                                                     bool scatter_gather = true) {
    usbfs::unplug_all();
    EXPECT_TRUE(testing_support::scan_until_listed(kHandle, false));
    auto adapter = usbfs::plug(kHandle, port, scatter_gather);
    EXPECT_TRUE(testing_support::scan_until_listed(kHandle));
    EXPECT_TRUE(USB_OpenDevice(kHandle));
    usbfs::clear_transfers(kHandle);
    return adapter;
  }
};

TEST_F(UsbfsTransport, FiveByteRequestIsThirteenBytesInOneUrb) {
  plug_and_open(kHandle);
  ASSERT_EQ(send(kHandle, 0x0601, {1, 2, 3, 4, 5}), 0);
  auto out = bulk_on(kHandle, 0x01);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].data, (std::vector<uint8_t>{0, 0, 6, 1, 0, 0, 0, 5, 1, 2, 3, 4, 5}));
}

// The packet size comes from the speed libusb reads in sysfs.
TEST_F(UsbfsTransport, ZeroLengthPacketEndsTransfersThatFillTheLastPacket) {
  struct Case {
    int speed;
    int payload;
    size_t urbs;
  } cases[] = {
      {2, 56, 2},   // 64 bytes at full speed
      {2, 57, 1},   // 65 bytes
      {2, 120, 2},  // 128 bytes
      {3, 56, 1},   // 64 bytes are no multiple of 512
      {3, 504, 2},  // 512 bytes at high speed
      {3, 505, 1},
  };
  for (auto c : cases) {
    usbfs::Port port;
    port.speed = c.speed;
    fresh_adapter(port);
    ASSERT_EQ(send(kHandle, 0x0601, std::vector<uint8_t>(size_t(c.payload), 0xA5)), 0);
    auto out = bulk_on(kHandle, 0x01);
    ASSERT_EQ(out.size(), c.urbs) << "speed " << c.speed << " payload " << c.payload;
    EXPECT_EQ(out[0].data.size(), size_t(c.payload + 8));
    if (c.urbs == 2) {
      EXPECT_EQ(out[1].requested, 0);
    }
  }
}

TEST_F(UsbfsTransport, EmptyReplyNeedsNoSecondUrb) {
  auto adapter = plug_and_open(kHandle);
  adapter->push_reply({0x0105, {}});
  uint8_t buffer[16];
  CommandPacket reply{0x0105, -1, buffer, sizeof buffer};
  EXPECT_EQ(varnel::read_reply(kHandle, reply, 3000), 0);
  EXPECT_EQ(reply.length, 0);
  EXPECT_EQ(bulk_on(kHandle, 0x81).size(), 1u);
}

// Each 64 KiB chunk is one libusb transfer: one URB with scatter-gather, four of 16 KiB without.
TEST_F(UsbfsTransport, OversizeReplyIsCutAndReadInSixtyFourKiBChunks) {
  std::vector<uint8_t> payload(600000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = uint8_t(i * 7 + i / 65536);
  for (bool scatter_gather : {true, false}) {
    auto adapter = fresh_adapter({}, scatter_gather);
    adapter->push_reply({0x0105, payload});
    std::vector<uint8_t> buffer(0x80000);
    CommandPacket reply{0x0105, 0, buffer.data(), int32_t(buffer.size())};
    ASSERT_EQ(varnel::read_reply(kHandle, reply, 3000), 0);
    EXPECT_EQ(reply.length, 524288);
    const size_t urbs_per_chunk = scatter_gather ? 1 : 4;
    auto in = bulk_on(kHandle, 0x81);
    ASSERT_EQ(in.size(), 1 + 8 * urbs_per_chunk);
    EXPECT_EQ(in[0].requested, 8);
    for (size_t i = 1; i < in.size(); ++i)
      EXPECT_EQ(in[i].data.size(), 65536u / urbs_per_chunk) << i;
    EXPECT_TRUE(std::equal(buffer.begin(), buffer.end(), payload.begin()));
  }
}

TEST_F(UsbfsTransport, ReplyFaultsGiveTheTransportCodes) {
  using Kind = sim::ReplyFault::Kind;
  struct Case {
    const char* name;
    sim::ReplyFault fault;
    int read_result;
    int discards;  // URBs libusb took back: time-outs, and the rest of a split short transfer
    size_t size = 4;
    bool scatter_gather = true;
  } cases[] = {
      {"another command", {Kind::kOtherCommand, 0x0199}, -3, 0},
      {"short payload", {Kind::kShort, 2}, -3, 0},  // a short transfer ends at once
      {"no reply", {Kind::kDrop, 0}, -3, 1},
      {"later than the time-out", {Kind::kLate, 1500}, -3, 1},
      // 20000 of 40000 bytes: the second of three 16 KiB URBs is short, the third is discarded
      {"short in a split transfer", {Kind::kShort, 20000}, -3, 1, 40000, false},
  };
  for (auto& c : cases) {
    auto adapter = fresh_adapter({}, c.scatter_gather);
    install_echo(*adapter);
    adapter->faults().next_reply(c.fault);
    std::vector<uint8_t> reply(c.size);
    std::vector<uint8_t> payload(c.size, 0x3C);
    auto result = varnel::transact(kHandle, 0x0102, payload, reply, {.read_timeout_ms = 0});
    EXPECT_EQ(result.send_result, 0) << c.name;
    EXPECT_EQ(result.read_result, c.read_result) << c.name;
    EXPECT_EQ(usbfs::counters(kHandle).discards, c.discards) << c.name;
    // the next transaction on the same handle still works once the adapter is in step
    adapter->reset();
    result = varnel::transact(kHandle, 0x0103, payload, reply);
    EXPECT_TRUE(result.ok()) << c.name;
    EXPECT_EQ(result.reply_length, int(c.size)) << c.name;
  }
}

TEST_F(UsbfsTransport, StalledWriteResetsAndRetriesAfterReconnecting) {
  auto adapter = plug_and_open(kHandle);
  install_echo(*adapter);
  usbfs::fail_next_urb(kHandle, 0x01, -EPIPE);
  EXPECT_EQ(send(kHandle, 0x0101, {9, 9}), 0);
  auto counters = usbfs::counters(kHandle);
  EXPECT_EQ(counters.resets, 1);
  EXPECT_GE(counters.opens, 1);  // reopened by the reconnection
  EXPECT_GE(counters.claims, 1);
  auto out = bulk_on(kHandle, 0x01);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].result, -EPIPE);
  EXPECT_EQ(out[1].data, (std::vector<uint8_t>{0, 0, 1, 1, 0, 0, 0, 2, 9, 9}));
  ASSERT_EQ(adapter->received().size(), 1u);  // the failed URB delivered nothing
}

TEST_F(UsbfsTransport, FailedReadIsMinus3WithoutReset) {
  auto adapter = plug_and_open(kHandle);
  install_echo(*adapter);
  usbfs::fail_next_urb(kHandle, 0x81, -EPROTO);
  uint8_t reply[8];
  std::vector<uint8_t> payload{1, 2};
  auto result = varnel::transact(kHandle, 0x0102, payload, reply);
  EXPECT_EQ(result.send_result, 0);
  EXPECT_EQ(result.read_result, -3);
  EXPECT_EQ(usbfs::counters(kHandle).resets, 0);
}

TEST_F(UsbfsTransport, UnpluggedAdapterGivesMinus2OnWriteAndMinus3OnRead) {
  plug_and_open(kHandle);
  usbfs::unplug(kHandle);
  EXPECT_EQ(send(kHandle, 0x0101, {1}), -2);  // after the three seconds of retries
  uint8_t buffer[4];
  CommandPacket reply{0x0101, 0, buffer, 4};
  EXPECT_EQ(varnel::read_reply(kHandle, reply, 100), -3);
}

// Synchronous transfers of several threads on two adapters meet in libusb's one event loop:
// each thread must get its own replies.
TEST_F(UsbfsTransport, ThreadsOnTwoAdaptersGetTheirOwnReplies) {
  constexpr uint32_t kOther = 0x12345680;
  auto first = plug_and_open(kHandle, {1, {1}});
  auto second = plug_and_open(kOther, {1, {2}});
  install_echo(*first);
  install_echo(*second);
  constexpr int kThreadsPerAdapter = 2, kRounds = 100;
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2 * kThreadsPerAdapter; ++t)
    threads.emplace_back([&, t] {
      const uint32_t handle = t % 2 ? kOther : kHandle;
      for (int i = 0; i < kRounds; ++i) {
        std::vector<uint8_t> payload(size_t(1 + (i * 37) % 700), uint8_t(t * 60 + i % 60));
        std::vector<uint8_t> reply(payload.size());
        auto result = varnel::transact(handle, 0x0102, payload, reply);
        if (!result.ok() || result.reply_length != int(payload.size()) || reply != payload)
          ++mismatches;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(first->order_violations(), 0u);
  EXPECT_EQ(second->order_violations(), 0u);
}
