// The command-packet transport over USB, against the virtual adapter: exact bytes on the wire,
// reply limits and the retry loop.
#include "core/transport.h"

#include <libusb.h>

#include <chrono>
#include <thread>

#include "core/transaction.h"
#include "support/sim_fixture.h"

using testing_support::SimTest;
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

TEST(TransportHandles, NetworkHandlesNeedBitZeroClear) {
  struct Case {
    uint32_t handle;
    bool network;
  } cases[] = {{0x55000000, true},  {0x55ABCDE0, true},  {0x56000002, true},  {0x55000001, false},
               {0x56FFFFFF, false}, {0x57000000, false}, {0x53000000, false}, {0x12345678, false}};
  for (auto c : cases)
    EXPECT_EQ(varnel::is_network_handle(c.handle), c.network) << std::hex << c.handle;
}

TEST(TransportHandles, TopByteFFIndexesByLowByte) {
  EXPECT_EQ(varnel::device_index(0xFF000007), 7);
  EXPECT_EQ(varnel::device_index(0xFFABCD3B), 0x3B);
  EXPECT_EQ(varnel::device_index(0x0BADF00D), -1);  // known nowhere
}

class TransportWire : public SimTest {};

TEST_F(TransportWire, FiveByteRequestIsThirteenBytesInOneTransfer) {
  plug_and_open(kHandle);
  ASSERT_EQ(send(kHandle, 0x0601, {1, 2, 3, 4, 5}), 0);
  auto out = bulk_on(kHandle, 0x01);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].data, (std::vector<uint8_t>{0, 0, 6, 1, 0, 0, 0, 5, 1, 2, 3, 4, 5}));
}

TEST_F(TransportWire, ZeroLengthPacketEndsTransfersThatFillTheLastPacket) {
  struct Case {
    int speed;
    int payload;
    size_t transfers;
  } cases[] = {
      {LIBUSB_SPEED_FULL, 56, 2},   // 64 bytes at full speed
      {LIBUSB_SPEED_FULL, 57, 1},   // 65 bytes
      {LIBUSB_SPEED_FULL, 120, 2},  // 128 bytes
      {LIBUSB_SPEED_HIGH, 56, 1},   // 64 bytes are no multiple of 512
      {LIBUSB_SPEED_HIGH, 504, 2},  // 512 bytes at high speed
      {LIBUSB_SPEED_HIGH, 505, 1},
  };
  for (auto c : cases) {
    usbsim::unplug_all();
    USB_ScanDevice(nullptr);
    usbsim::Port port;
    port.speed = c.speed;
    plug_and_open(kHandle, port);
    ASSERT_EQ(send(kHandle, 0x0601, std::vector<uint8_t>(size_t(c.payload), 0xA5)), 0);
    auto out = bulk_on(kHandle, 0x01);
    ASSERT_EQ(out.size(), c.transfers) << "speed " << c.speed << " payload " << c.payload;
    EXPECT_EQ(out[0].data.size(), size_t(c.payload + 8));
    if (c.transfers == 2) {
      EXPECT_EQ(out[1].requested, 0);
    }
  }
}

TEST_F(TransportWire, EmptyReplyNeedsNoSecondTransfer) {
  auto adapter = plug_and_open(kHandle);
  adapter->push_reply({0x0105, {}});
  uint8_t buffer[16];
  CommandPacket reply{0x0105, -1, buffer, sizeof buffer};
  EXPECT_EQ(varnel::read_reply(kHandle, reply, 3000), 0);
  EXPECT_EQ(reply.length, 0);
  EXPECT_EQ(bulk_on(kHandle, 0x81).size(), 1u);
}

TEST_F(TransportWire, OversizeReplyIsCutAndReadInSixtyFourKiBChunks) {
  auto adapter = plug_and_open(kHandle);
  adapter->push_reply({0x0105, std::vector<uint8_t>(600000, 0x5A)});
  std::vector<uint8_t> buffer(0x80000);
  CommandPacket reply{0x0105, 0, buffer.data(), int32_t(buffer.size())};
  ASSERT_EQ(varnel::read_reply(kHandle, reply, 3000), 0);
  EXPECT_EQ(reply.length, 524288);
  auto in = bulk_on(kHandle, 0x81);
  ASSERT_EQ(in.size(), 9u);
  EXPECT_EQ(in[0].requested, 8);
  for (size_t i = 1; i < in.size(); ++i) EXPECT_EQ(in[i].data.size(), 65536u) << i;
  EXPECT_EQ(buffer.back(), 0x5A);
}

TEST_F(TransportWire, ReplyLongerThanTheBufferIsReadButNotStored) {
  auto adapter = plug_and_open(kHandle);
  install_echo(*adapter);
  uint8_t guard[8] = {0, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE};
  std::vector<uint8_t> payload(100, 0x11);
  auto result = varnel::transact(kHandle, 0x0102, payload, std::span<uint8_t>(guard, 4));
  EXPECT_TRUE(result.ok());
  EXPECT_EQ(result.reply_length, 100);
  EXPECT_EQ(result.expect_length(4), -4);
  EXPECT_EQ(guard[4], 0xEE);                   // nothing written past the buffer
  EXPECT_FALSE(adapter->has_pending_reply());  // the stream stays in step
}

TEST_F(TransportWire, ReplyFaultsGiveTheTransportCodes) {
  using Kind = sim::ReplyFault::Kind;
  struct Case {
    const char* name;
    sim::ReplyFault fault;
    int read_result;
  } cases[] = {
      {"another command", {Kind::kOtherCommand, 0x0199}, -3},
      {"short payload", {Kind::kShort, 2}, -3},
      {"no reply", {Kind::kDrop, 0}, -3},
  };
  for (auto& c : cases) {
    auto adapter = plug_and_open(kHandle);
    install_echo(*adapter);
    adapter->faults().next_reply(c.fault);
    uint8_t reply[8];
    std::vector<uint8_t> payload{1, 2, 3, 4};
    auto result = varnel::transact(kHandle, 0x0102, payload, reply, {.read_timeout_ms = 0});
    EXPECT_EQ(result.send_result, 0) << c.name;
    EXPECT_EQ(result.read_result, c.read_result) << c.name;
    adapter->reset();
    usbsim::unplug_all();
  }
}

TEST_F(TransportWire, FailedWriteResetsAndRetriesAfterReconnecting) {
  auto adapter = plug_and_open(kHandle);
  install_echo(*adapter);
  usbsim::short_next_transfer(kHandle, 0x01, 3);
  EXPECT_EQ(send(kHandle, 0x0101, {9, 9}), 0);
  auto counters = usbsim::counters(kHandle);
  EXPECT_EQ(counters.resets, 1);
  EXPECT_GE(counters.opens, 1);  // reopened by the reconnection
  auto out = bulk_on(kHandle, 0x01);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].data, (std::vector<uint8_t>{0, 0, 1, 1, 0, 0, 0, 2, 9, 9}));
}

TEST_F(TransportWire, UnpluggedAdapterIsRetriedForThreeSecondsEveryTenMs) {
  plug_and_open(kHandle);
  usbsim::unplug(kHandle);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(send(kHandle, 0x0101, {1}), -2);
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(2900));
  EXPECT_LT(took, std::chrono::milliseconds(6000));
  // every reconnection tries to open the stored device: about 300 in 3 s
  int opens = usbsim::counters(kHandle).opens;
  EXPECT_GE(opens, 100);
  EXPECT_LE(opens, 310);
}

TEST_F(TransportWire, UnknownHandleFailsWithoutTouchingTheBus) {
  plug_and_open(kHandle);
  EXPECT_EQ(send(0x0BADF00D, 0x0101, {1}), -1);
  EXPECT_TRUE(usbsim::transfers(kHandle).empty());
}

TEST_F(TransportWire, ClosedAdapterCannotBeReadFrom) {
  plug_and_open(kHandle);
  ASSERT_TRUE(USB_CloseDevice(kHandle));
  uint8_t buffer[4];
  CommandPacket reply{0x0101, 0, buffer, 4};
  EXPECT_EQ(varnel::read_reply(kHandle, reply, 3000), -3);
  EXPECT_EQ(reply.payload, nullptr);
}

TEST_F(TransportWire, ConcurrentTransactionsNeverInterleave) {
  auto adapter = plug_and_open(kHandle);
  install_echo(*adapter);
  constexpr int kThreads = 4, kRounds = 200;
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        std::vector<uint8_t> payload(size_t(1 + (i % 50)), uint8_t(t * 50 + i % 50));
        std::vector<uint8_t> reply(payload.size());
        auto r = varnel::transact(kHandle, 0x0100 + uint32_t(t), payload, reply);
        if (r.expect_length(int32_t(payload.size())) != 0 || reply != payload) ++mismatches;
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(mismatches, 0);
  EXPECT_EQ(adapter->order_violations(), 0u);
  EXPECT_EQ(adapter->received().size(), size_t(kThreads * kRounds));
}
