// The command-packet transport over a USB layer (see wire_fixture.h): exact bytes on the wire,
// reply limits, failed transfers, unplugs and threads.
#pragma once

#include <atomic>
#include <chrono>
#include <thread>

#include "core/transaction.h"
#include "core/transport.h"
#include "support/wire_fixture.h"

namespace testing_support {

constexpr uint32_t kTransportHandle = 0x12345678;

// The test firmware answers every command of the 0x01xx block with its payload echoed.
inline void install_echo(sim::VirtualAdapter& adapter) {
  adapter.on(0x0100, 0x01FF, [](sim::VirtualAdapter&, const sim::Packet& request) {
    return std::optional<sim::Packet>(request);
  });
}

inline int send(uint32_t handle, uint32_t command, std::vector<uint8_t> payload) {
  varnel::CommandPacket request{command, int32_t(payload.size()), payload.data(), 0};
  return varnel::send_command(handle, request, 3000);
}

template <class Layer>
class TransportCases : public WireTest<Layer> {};
TYPED_TEST_SUITE_P(TransportCases);

TYPED_TEST_P(TransportCases, FiveByteRequestIsThirteenBytesInOneTransfer) {
  this->plug_and_open(kTransportHandle);
  ASSERT_EQ(send(kTransportHandle, 0x0601, {1, 2, 3, 4, 5}), 0);
  EXPECT_EQ(this->take_request(kTransportHandle),
            (std::vector<uint8_t>{0, 0, 6, 1, 0, 0, 0, 5, 1, 2, 3, 4, 5}));
}

// Packets are 64 bytes at full speed (2) and 512 at high speed (3).
TYPED_TEST_P(TransportCases, ZeroLengthPacketEndsTransfersThatFillTheLastPacket) {
  struct Case {
    int speed, payload;
    size_t transfers;
  } cases[] = {{2, 56, 2}, {2, 57, 1}, {2, 120, 2}, {3, 56, 1}, {3, 504, 2}, {3, 505, 1}};
  for (auto c : cases) {
    usbsim::Port port;
    port.speed = c.speed;
    this->fresh_adapter(kTransportHandle, port);
    ASSERT_EQ(send(kTransportHandle, 0x0601, std::vector<uint8_t>(size_t(c.payload), 0xA5)), 0);
    auto out = this->bulk_on(kTransportHandle, 0x01);
    ASSERT_EQ(out.size(), c.transfers) << "speed " << c.speed << " payload " << c.payload;
    EXPECT_EQ(out[0].data.size(), size_t(c.payload + 8));
    EXPECT_EQ(out.back().requested, c.transfers == 2 ? 0 : c.payload + 8);
  }
}

TYPED_TEST_P(TransportCases, EmptyReplyNeedsNoSecondTransfer) {
  this->plug_and_open(kTransportHandle)->push_reply({0x0105, {}});
  uint8_t buffer[16];
  varnel::CommandPacket reply{0x0105, -1, buffer, sizeof buffer};
  EXPECT_EQ(varnel::read_reply(kTransportHandle, reply, 3000), 0);
  EXPECT_EQ(reply.length, 0);
  EXPECT_EQ(this->bulk_on(kTransportHandle, 0x81).size(), 1u);
}

TYPED_TEST_P(TransportCases, OversizeReplyIsCutAndReadInSixtyFourKiBChunks) {
  std::vector<uint8_t> payload(600000);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = uint8_t(i * 7 + i / 65536);
  this->plug_and_open(kTransportHandle)->push_reply({0x0105, payload});
  std::vector<uint8_t> buffer(0x80000);
  varnel::CommandPacket reply{0x0105, 0, buffer.data(), int32_t(buffer.size())};
  ASSERT_EQ(varnel::read_reply(kTransportHandle, reply, 3000), 0);
  EXPECT_EQ(reply.length, 524288);
  auto in = this->bulk_on(kTransportHandle, 0x81);
  ASSERT_EQ(in.size(), 9u);
  EXPECT_EQ(in[0].requested, 8);
  for (size_t i = 1; i < in.size(); ++i) EXPECT_EQ(in[i].data.size(), 65536u) << i;
  EXPECT_TRUE(std::equal(buffer.begin(), buffer.end(), payload.begin()));
}

TYPED_TEST_P(TransportCases, ReplyLongerThanTheBufferIsReadButNotStored) {
  Adapter adapter = this->plug_and_open(kTransportHandle);
  install_echo(*adapter);
  uint8_t guard[8] = {0, 0, 0, 0, 0xEE, 0xEE, 0xEE, 0xEE};
  std::vector<uint8_t> payload(100, 0x11);
  auto result = varnel::transact(kTransportHandle, 0x0102, payload, std::span<uint8_t>(guard, 4));
  EXPECT_TRUE(result.ok());
  EXPECT_EQ(result.expect_length(4), -4);
  EXPECT_EQ(guard[4], 0xEE);                   // nothing written past the buffer
  EXPECT_FALSE(adapter->has_pending_reply());  // the stream stays in step
}

TYPED_TEST_P(TransportCases, ReplyFaultsGiveMinus3AndTheNextTransactionWorks) {
  using Kind = sim::ReplyFault::Kind;
  const sim::ReplyFault faults[] = {
      {Kind::kOtherCommand, 0x0199}, {Kind::kShort, 2}, {Kind::kDrop, 0}, {Kind::kLate, 1500}};
  for (auto& fault : faults) {
    Adapter adapter = this->fresh_adapter(kTransportHandle);
    install_echo(*adapter);
    adapter->faults().next_reply(fault);
    std::vector<uint8_t> payload{1, 2, 3, 4}, reply(4);
    auto result =
        varnel::transact(kTransportHandle, 0x0102, payload, reply, {.read_timeout_ms = 0});
    EXPECT_EQ(result.send_result, 0) << int(fault.kind);
    EXPECT_EQ(result.read_result, -3) << int(fault.kind);
    adapter->reset();  // in step again
    EXPECT_EQ(varnel::transact(kTransportHandle, 0x0103, payload, reply).expect_length(4), 0);
  }
}

TYPED_TEST_P(TransportCases, FailedWriteResetsAndRetriesFailedReadDoesNot) {
  Adapter adapter = this->plug_and_open(kTransportHandle);
  install_echo(*adapter);
  TypeParam::fail_next_write(kTransportHandle);
  EXPECT_EQ(send(kTransportHandle, 0x0101, {9, 9}), 0);
  auto counters = TypeParam::counters(kTransportHandle);
  EXPECT_EQ(counters.resets, 1);
  EXPECT_GE(counters.opens, 1);  // reopened by the reconnection
  EXPECT_GE(counters.claims, 1);
  auto out = this->bulk_on(kTransportHandle, 0x01);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[1].data, (std::vector<uint8_t>{0, 0, 1, 1, 0, 0, 0, 2, 9, 9}));
  // a failed read is -3 and resets nothing
  TypeParam::fail_next_read(kTransportHandle);
  std::vector<uint8_t> payload{1, 2}, reply(2);
  auto result = varnel::transact(kTransportHandle, 0x0102, payload, reply);
  EXPECT_EQ(result.send_result, 0);
  EXPECT_EQ(result.read_result, -3);
  EXPECT_EQ(TypeParam::counters(kTransportHandle).resets, 1);
}

// The write is retried for three seconds, then reported failed; nothing is left to read.
TYPED_TEST_P(TransportCases, UnpluggedAdapterGivesMinus2AfterRetryingAndMinus3OnRead) {
  this->plug_and_open(kTransportHandle);
  TypeParam::unplug(kTransportHandle);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(send(kTransportHandle, 0x0101, {1}), -2);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2900));
  uint8_t buffer[4];
  varnel::CommandPacket reply{0x0101, 0, buffer, 4};
  EXPECT_EQ(varnel::read_reply(kTransportHandle, reply, 100), -3);
}

TYPED_TEST_P(TransportCases, UnknownOrClosedAdapterFailsWithoutTouchingTheBus) {
  this->plug_and_open(kTransportHandle);
  EXPECT_EQ(send(0x0BADF00D, 0x0101, {1}), -1);
  ASSERT_TRUE(USB_CloseDevice(kTransportHandle));
  TypeParam::clear_transfers(kTransportHandle);
  uint8_t buffer[4];
  varnel::CommandPacket reply{0x0101, 0, buffer, 4};
  EXPECT_EQ(varnel::read_reply(kTransportHandle, reply, 3000), -3);
  EXPECT_EQ(reply.payload, nullptr);
  EXPECT_TRUE(TypeParam::transfers(kTransportHandle).empty());
}

// Threads on two adapters meet in libusb's one event loop: each must get its own replies.
TYPED_TEST_P(TransportCases, ThreadsOnTwoAdaptersGetTheirOwnReplies) {
  constexpr uint32_t kOther = 0x12345680;
  Adapter first = this->plug_and_open(kTransportHandle, {1, {1}});
  Adapter second = this->plug_and_open(kOther, {1, {2}});
  install_echo(*first);
  install_echo(*second);
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      const uint32_t handle = t % 2 ? kOther : kTransportHandle;
      for (int i = 0; i < 100; ++i) {
        std::vector<uint8_t> payload(size_t(1 + (i * 37) % 700), uint8_t(t * 60 + i % 60));
        std::vector<uint8_t> reply(payload.size());
        auto r = varnel::transact(handle, 0x0100 + uint32_t(t), payload, reply);
        if (r.expect_length(int32_t(payload.size())) != 0 || reply != payload) ++mismatches;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(first->order_violations() + second->order_violations(), 0u);
  EXPECT_EQ(first->received().size() + second->received().size(), 400u);
}

REGISTER_TYPED_TEST_SUITE_P(
    TransportCases, FiveByteRequestIsThirteenBytesInOneTransfer,
    ZeroLengthPacketEndsTransfersThatFillTheLastPacket, EmptyReplyNeedsNoSecondTransfer,
    OversizeReplyIsCutAndReadInSixtyFourKiBChunks, ReplyLongerThanTheBufferIsReadButNotStored,
    ReplyFaultsGiveMinus3AndTheNextTransactionWorks, FailedWriteResetsAndRetriesFailedReadDoesNot,
    UnpluggedAdapterGivesMinus2AfterRetryingAndMinus3OnRead,
    UnknownOrClosedAdapterFailsWithoutTouchingTheBus, ThreadsOnTwoAdaptersGetTheirOwnReplies);

}  // namespace testing_support
