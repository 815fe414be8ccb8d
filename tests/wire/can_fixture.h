// Fixture for the CAN tests: a fresh virtual CAN bus per test, the host's CAN tables emptied,
// and helpers to read back the packets of one command.
#pragma once

#include <vector>

#include "can/can_state.h"
#include "sim/bus/can_bus.h"
#include "sim/families/can.h"
#include "support/can_state_reset.h"
#include "support/sim_fixture.h"

namespace testing_support {

class CanTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    bus_ = std::make_shared<sim::CanBus>();
    sim::set_default_can_bus(bus_);
    reset_host_tables();
  }
  void TearDown() override {
    for (uint32_t handle : opened_)
      for (uint8_t ch = 0; ch < 2; ++ch) {
        CAN_StopGetMsg(handle, ch);
        CANFD_StopGetMsg(handle, ch);
      }
    reset_host_tables();
    SimTest::TearDown();
    sim::set_default_can_bus(nullptr);
  }

  std::shared_ptr<sim::VirtualAdapter> open(uint32_t handle) {
    opened_.push_back(handle);
    return plug_and_open(handle);
  }
  // Opens the adapter and starts channels 0 .. channels - 1 at `bps`.
  std::shared_ptr<sim::VirtualAdapter> open_at(uint32_t handle, uint32_t bps,
                                               uint8_t channels = 1) {
    auto adapter = open(handle);
    for (uint8_t ch = 0; ch < channels; ++ch) EXPECT_EQ(CAN_Init2(handle, ch, bps), 0) << int(ch);
    return adapter;
  }
  std::shared_ptr<sim::CanPeer> peer(uint32_t bps = 500000, uint32_t data_bps = 0) {
    return sim::CanPeer::create(bus_, {bps, data_bps});
  }

  static void reset_host_tables() { testing_support::reset_can_states(); }

  static std::vector<sim::Packet> packets(sim::VirtualAdapter& adapter, uint32_t command) {
    std::vector<sim::Packet> out;
    for (auto& p : adapter.received())
      if (p.command == command) out.push_back(p);
    return out;
  }

  std::shared_ptr<sim::CanBus> bus_;
  std::vector<uint32_t> opened_;
};

inline CAN_MSG can_msg(uint32_t id, std::vector<uint8_t> data, uint8_t extended = 0) {
  CAN_MSG msg{};
  msg.Id = id;
  msg.Extended = extended;
  msg.DataLen = uint8_t(data.size());
  for (size_t i = 0; i < data.size() && i < 8; ++i) msg.Data[i] = data[i];
  return msg;
}

// A 4-byte frame numbered by its data bytes (least significant first), and the number read back.
inline sim::CanFrame counted_frame(uint32_t id, uint32_t counter) {
  sim::CanFrame frame;
  frame.id = id;
  frame.len = 4;
  for (size_t i = 0; i < 4; ++i) frame.data[i] = uint8_t(counter >> (8 * i));
  return frame;
}
inline uint32_t counter_of(const CAN_MSG& msg) {
  return uint32_t(msg.Data[0] | msg.Data[1] << 8 | msg.Data[2] << 16 | msg.Data[3] << 24);
}

}  // namespace testing_support
