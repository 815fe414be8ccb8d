// CAN through the real libusb: frames between two channels with the poller threads running, and
// fetch replies of more than one chunk.
#include "can/can_state.h"
#include "sim/bus/can_bus.h"
#include "support/can_state_reset.h"
#include "support/usbfs_layer.h"
#include "support/wire_fixture.h"

using UsbfsTest = testing_support::WireTest<testing_support::UsbfsLayer>;

namespace {

constexpr uint32_t kHandle = 0x12345670;  // a classic CAN adapter
using Bytes = std::vector<uint8_t>;

CAN_MSG can_msg(uint32_t id, Bytes data, uint8_t extended = 0) {
  CAN_MSG msg{};
  msg.Id = id;
  msg.Extended = extended;
  msg.DataLen = uint8_t(data.size());
  std::copy(data.begin(), data.end(), msg.Data);
  return msg;
}

// Reads a channel until `count` records came or two seconds passed.
std::vector<CAN_MSG> receive(uint8_t channel, size_t count) {
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  size_t got = 0;
  for (int tries = 0; tries < 400 && got < count; ++tries) {
    got += size_t(CAN_GetMsg(kHandle, channel, in.data() + got));
    if (got < count) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  in.resize(got);
  return in;
}

}  // namespace

class UsbfsFamilies : public UsbfsTest {
 protected:
  void SetUp() override {
    UsbfsTest::SetUp();
    bus_ = std::make_shared<sim::CanBus>();
    sim::set_default_can_bus(bus_);
    reset_can_tables();
    adapter_ = plug_and_open(kHandle);
  }
  void TearDown() override {
    for (uint8_t ch = 0; ch < 2; ++ch) CAN_StopGetMsg(kHandle, ch);
    reset_can_tables();
    UsbfsTest::TearDown();
    sim::set_default_can_bus(nullptr);
  }
  static void reset_can_tables() { testing_support::reset_can_states(); }

  std::shared_ptr<sim::CanBus> bus_;
  std::shared_ptr<sim::VirtualAdapter> adapter_;
};

// Both pollers and the sending thread make transactions on one adapter at the same time.
TEST_F(UsbfsFamilies, CanFramesCrossBetweenChannelsWithPollersRunning) {
  ASSERT_EQ(CAN_Init2(kHandle, 0, 500000), 0);
  ASSERT_EQ(CAN_Init2(kHandle, 1, 500000), 0);
  ASSERT_EQ(CAN_StartGetMsg(kHandle, 0), 0);
  ASSERT_EQ(CAN_StartGetMsg(kHandle, 1), 0);
  CAN_MSG forth[3] = {can_msg(0x123, {0xDE, 0xAD, 0xBE, 0xEF}), can_msg(0x1ABCDEF0, {7}, 1),
                      can_msg(0x7FF, {})};
  CAN_MSG back[2] = {can_msg(0x321, {1, 2, 3, 4, 5, 6, 7, 8}), can_msg(0x42, {9})};
  ASSERT_EQ(CAN_SendMsg(kHandle, 0, forth, 3), 3);
  ASSERT_EQ(CAN_SendMsg(kHandle, 1, back, 2), 2);

  auto on_one = receive(1, 3);
  ASSERT_EQ(on_one.size(), 3u);
  EXPECT_EQ(on_one[0].Id, 0x123u);
  EXPECT_EQ(Bytes(on_one[0].Data, on_one[0].Data + 4), (Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
  EXPECT_EQ(on_one[0].Flags, 1 << 5);  // channel 1, received
  EXPECT_EQ(on_one[1].Id, 0x1ABCDEF0u);
  EXPECT_EQ(on_one[1].Extended, 1);
  EXPECT_EQ(on_one[2].DataLen, 0);
  auto on_zero = receive(0, 2);
  ASSERT_EQ(on_zero.size(), 2u);
  EXPECT_EQ(on_zero[0].Id, 0x321u);
  EXPECT_EQ(on_zero[0].Data[7], 8);
  EXPECT_EQ(on_zero[0].Flags, 0);
  EXPECT_EQ(on_zero[1].Id, 0x42u);

  EXPECT_EQ(CAN_StopGetMsg(kHandle, 0), 0);
  EXPECT_EQ(CAN_StopGetMsg(kHandle, 1), 0);
  EXPECT_EQ(adapter_->order_violations(), 0u);
}

// 5000 frames make one fetch reply of 100,000 bytes: a 64 KiB chunk and the rest.
TEST_F(UsbfsFamilies, LargeCanFetchIsReadInTwoChunks) {
  ASSERT_EQ(CAN_Init2(kHandle, 0, 500000), 0);
  ASSERT_EQ(CAN_Init2(kHandle, 1, 500000), 0);
  std::vector<CAN_MSG> out(5000);
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = can_msg(uint32_t(i & 0x7FF), {uint8_t(i), uint8_t(i >> 8)});
  ASSERT_EQ(CAN_SendMsg(kHandle, 0, out.data(), 5000), 5000);
  auto sends = bulk_on(kHandle, 0x01);
  usbfs::clear_transfers(kHandle);

  std::vector<CAN_MSG> in(5000);
  ASSERT_EQ(CAN_GetMsgWithSize(kHandle, 1, in.data(), 5000), 5000);
  for (size_t i = 0; i < in.size(); i += 499) {
    EXPECT_EQ(in[i].Id, uint32_t(i & 0x7FF)) << i;
    EXPECT_EQ(in[i].Data[1], uint8_t(i >> 8)) << i;
  }
  std::vector<int> sizes;
  for (auto& t : bulk_on(kHandle, 0x81)) sizes.push_back(int(t.data.size()));
  EXPECT_EQ(sizes, (std::vector<int>{8, 65536, 100000 - 65536}));
  // sends went out in chunks of 500 records: 8 + 1 + 500 x 20 bytes per packet
  size_t chunks = 0;
  for (auto& t : sends) chunks += t.data.size() == 8 + 1 + 500 * 20;
  EXPECT_EQ(chunks, 10u);
}
