// Filters, schedules and the relay: the payloads against the filter bank register layout and the
// schedule packet layout, and what the virtual firmware does with them on the bus.
#include <numeric>

#include "wire/can_fixture.h"

using testing_support::can_msg;
using testing_support::CanTest;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint32_t kClassic = 0x12345670, kFd = 0x55000011;

class CanServices : public CanTest {
 protected:
  std::shared_ptr<sim::VirtualAdapter> start(uint32_t handle) {
    auto adapter = open(handle);
    for (uint8_t ch = 0; ch < 2; ++ch)
      EXPECT_EQ(handle == kFd ? CANFD_Init2(handle, ch, 500000, 2000000, 0, 1)
                              : CAN_Init2(handle, ch, 500000),
                0);
    return adapter;
  }
  // Identifiers (bit 31: 29-bit) of what channel 1 received.
  std::vector<uint32_t> received_ids(uint32_t handle) {
    std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
    const int n = CAN_GetMsg(handle, 1, in.data());
    std::vector<uint32_t> ids;
    for (int i = 0; i < n; ++i)
      ids.push_back(in[size_t(i)].Id | uint32_t(in[size_t(i)].Extended) << 31);
    return ids;
  }
};

Bytes be(uint32_t v) {
  return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0] | p[1] << 8 | p[2] << 16 | p[3] << 24);
}

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

}  // namespace

// A bank register holds a standard identifier in bits 31-21, an extended one in bits 31-3 (so the
// register is the identifier << 3), IDE in bit 2 and RTR in bit 1.
TEST_F(CanServices, FilterPayloadsFollowTheBankRegisterLayout) {
  struct Case {
    uint32_t handle;
    uint8_t channel;
    CAN_FILTER_CONFIG filter;
    uint32_t command;
    Bytes payload;
  } cases[] = {
      {kClassic,
       1,
       {1, 3, 0, 0, 0x123, 0, 0, 0x7F0, 1, 1},
       0x0C01,  // mask mode, bank 3 + 14
       join({{1, 17, 0, 1}, be(0x123u << 21), be(0x7F0u << 21 | 4 | 2), {0, 1}})},
      {kClassic,
       1,
       {1, 15, 1, 1, 0x1ABCDEF0, 1, 0, 0, 1, 0},
       0x0C01,  // list mode, bank 15
       join({{1, 15, 1, 1}, be(0x1ABCDEF0u << 3 | 4), be(4), {0, 1}})},
      {kClassic,
       0,
       {0, 13, 0, 0, 0x7FF, 0, 1, 0x7FF, 0, 1},
       0x0C01,
       join({{0, 13, 0, 1}, be(0x7FFu << 21 | 2), be(0x7FFu << 21 | 2), {0, 0}})},
      {kFd,
       1,
       {1, 2, 0, 0, 0x123, 0, 1, 0x7F0, 1, 0},
       0x4001,  // word = id | IDE 31 | RTR 30
       join({{1, 1, 1, 2}, be(0x123 | 1u << 30), be(0x7F0 | 1u << 31)})},
      {kFd,
       0,
       {1, 4, 1, 1, 0x1ABCDEF0, 1, 0, 0, 0, 0},
       0x4001,  // list mode: every bit compared
       join({{0, 1, 1, 4}, be(0x1ABCDEF0 | 1u << 31), be(0xFFFFFFFF)})},
  };
  std::shared_ptr<sim::VirtualAdapter> adapter;
  for (auto& c : cases) {
    if (!adapter || adapter->handle() != c.handle) {  // the classic cases, then the CAN FD ones
      TearDown();
      SetUp();
      adapter = open(c.handle);
    }
    ASSERT_EQ(CAN_Filter_Init(c.handle, c.channel, &c.filter), 0);
    EXPECT_EQ(packets(*adapter, c.command).back().payload, c.payload) << std::hex << c.filter.ID;
  }
}

TEST_F(CanServices, FilterListsEnableListModeFiltersOrDisableAllFourteen) {
  auto adapter = start(kClassic);
  auto peer = this->peer();
  uint32_t ids[] = {0x123, 0x80000000u | 0x1ABCDEF0};
  ASSERT_EQ(CAN_FilterList_Init(kClassic, 1, ids, 2), 0);
  // the last: 0x123 as a 29-bit identifier, another identifier
  for (auto [id, extended] : {std::pair{0x123u, false},
                              {0x124u, false},
                              {0x1ABCDEF0u, true},
                              {0x1ABCDEF1u, true},
                              {0x123u, true}})
    peer->send(sim::CanFrame{id, extended});
  EXPECT_EQ(received_ids(kClassic), (std::vector<uint32_t>{0x123, 0x80000000u | 0x1ABCDEF0}));
  auto sent = packets(*adapter, 0x0C01);
  ASSERT_EQ(sent.size(), 2u);
  // list mode: the second register carries only the mask's IDE and RTR bits, here none
  EXPECT_EQ(sent[1].payload, join({{1, 15, 1, 1}, be(0x1ABCDEF0u << 3 | 4), be(0), {0, 1}}));

  ASSERT_EQ(CAN_FilterList_Init(kClassic, 1, nullptr, 0), 0);  // all off: everything passes
  sent = packets(*adapter, 0x0C01);
  ASSERT_EQ(sent.size(), 2u + 14);
  for (int i = 0; i < 14; ++i) {
    EXPECT_EQ(sent[2 + size_t(i)].payload[1], 14 + i);
    EXPECT_EQ(sent[2 + size_t(i)].payload[13], 0);
  }
  peer->send(sim::CanFrame{0x555});
  EXPECT_EQ(received_ids(kClassic), (std::vector<uint32_t>{0x555}));
  std::vector<uint32_t> many(20, 0x100);
  ASSERT_EQ(CAN_FilterList_Init(kClassic, 0, many.data(), 20), 0);
  EXPECT_EQ(packets(*adapter, 0x0C01).size(), 2u + 14 + 14);  // cut to 14
}

// The packet is 20 bytes a record, 3 a table and 2: below 10240 bytes it goes, else nothing.
TEST_F(CanServices, ScheduleSizeBoundAndLayout) {
  auto adapter = start(kClassic);
  struct Case {
    uint8_t counts[3];
    int result;
  } cases[] = {{{200, 200, 110}, 0}, {{200, 200, 111}, 0}, {{200, 200, 112}, -4}};
  for (const auto& c : cases) {
    const size_t total = size_t(c.counts[0]) + c.counts[1] + c.counts[2];
    std::vector<CAN_MSG> msgs(total, can_msg(0x100, {1, 2}));
    msgs[0].TimeStamp = 0x01020304;  // travels unchanged
    uint8_t counts[3] = {c.counts[0], c.counts[1], c.counts[2]};
    uint8_t values[6] = {10, 0, 20, 0, 0xE8, 0x03};
    const size_t before = packets(*adapter, 0x0C08).size();
    EXPECT_EQ(CAN_SetSchedule(kClassic, 0, msgs.data(), counts, values, 3), c.result) << total;
    auto sent = packets(*adapter, 0x0C08);
    ASSERT_EQ(sent.size(), before + (c.result == 0 ? 1 : 0));
    if (c.result != 0) continue;
    const Bytes& p = sent.back().payload;
    ASSERT_EQ(p.size(), 20 * total + 3 * 3 + 2);
    EXPECT_EQ(Bytes(p.begin(), p.begin() + 11),
              (Bytes{0, 3, counts[0], counts[1], counts[2], 10, 0, 20, 0, 0xE8, 0x03}));
    EXPECT_EQ(le32(&p[11 + 4]), 0x01020304u);
  }
  EXPECT_EQ(CAN_SetSchedule(kClassic, 0, nullptr, nullptr, nullptr, 0), 0)
      << "no tables: nothing to point at";
}

// Table 0: 0x100 at the start of each 10 ms period and 0x200 5 ms into it, three periods; the
// frames leave in bus time, so channel 1 sees them 5 ms apart, 1 ms = 100 ticks of 10 us.
TEST_F(CanServices, SchedulePlaysItsTablesInBusTime) {
  auto adapter = start(kClassic);
  CAN_MSG msgs[2] = {can_msg(0x100, {1}), can_msg(0x200, {2})};
  msgs[1].TimeStamp = 5;
  uint8_t counts[1] = {2}, period[2] = {10, 0};
  ASSERT_EQ(CAN_SetSchedule(kClassic, 0, msgs, counts, period, 1), 0);
  ASSERT_EQ(CAN_StartSchedule(kClassic, 0, 0, 3, 0), 0);
  EXPECT_EQ(packets(*adapter, 0x0C05)[0].payload, (Bytes{0, 0, 3, 0}));
  CAN_MSG replacement = can_msg(0x201, {3});
  replacement.TimeStamp = 5;
  ASSERT_EQ(CAN_UpdateSchedule(kClassic, 0, 0, 1, &replacement, 1), 0);
  bus_->advance_us(100000);  // bus and device clock move on together
  adapter->clock().advance_us(100000);
  std::vector<CAN_MSG> in(VARNEL_CAN_QUEUE_SIZE);
  ASSERT_EQ(CAN_GetMsg(kClassic, 1, in.data()), 6);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(in[size_t(i)].Id, i % 2 ? 0x201u : 0x100u) << i;
    if (i == 0) continue;
    EXPECT_NEAR(double(in[size_t(i)].TimeStamp - in[size_t(i - 1)].TimeStamp), 500, 30);
  }
  ASSERT_EQ(CAN_StartSchedule(kClassic, 0, 0xFF, 0, 0), 0);  // all tables, no end
  ASSERT_EQ(CAN_StopSchedule(kClassic, 0), 0);
  bus_->advance_us(100000);
  EXPECT_LE(CAN_GetMsg(kClassic, 1, in.data()), 1);        // at most the frame due at the start
  EXPECT_EQ(CAN_StartSchedule(kClassic, 0, 1, 0, 0), -4);  // no table 1
  EXPECT_EQ(CAN_UpdateSchedule(kClassic, 0, 0, 2, &replacement, 1), -4);  // no record 2
  EXPECT_EQ(CAN_UpdateSchedule(kClassic, 0, 0, 0, nullptr, 0), 0);        // nothing to replace
}

// CAN FD adapters: their own commands; schedule records of 76 bytes, updates of 80.
TEST_F(CanServices, CanFdAdaptersUseTheirCommands) {
  auto adapter = start(kFd);
  CAN_MSG msg = can_msg(0x123, {1, 2, 3});
  msg.TimeStamp = 7;
  uint8_t counts[1] = {1}, period[2] = {20, 0};
  ASSERT_EQ(CAN_SetSchedule(kFd, 1, &msg, counts, period, 1), 0);
  ASSERT_EQ(CAN_UpdateSchedule(kFd, 1, 0, 0, &msg, 1), 0);
  ASSERT_EQ(CAN_StartSchedule(kFd, 1, 0, 1, 0), 0);
  ASSERT_EQ(CAN_StopSchedule(kFd, 1), 0);
  const Bytes set = packets(*adapter, 0x400D).at(0).payload;
  ASSERT_EQ(set.size(), 2u + 3 + 76);
  EXPECT_EQ(le32(&set[5]), 0x123u);
  EXPECT_EQ(set[5 + 4], 3);          // DataLen
  EXPECT_EQ(le32(&set[5 + 8]), 7u);  // the offset, not scaled
  EXPECT_EQ(packets(*adapter, 0x400E).at(0).payload.size(), 3u + 80);
  EXPECT_EQ(packets(*adapter, 0x4006).at(0).payload, (Bytes{1, 0, 1, 0}));
  EXPECT_EQ(packets(*adapter, 0x4007).at(0).payload, (Bytes{1}));
  EXPECT_EQ(CANFD_SetFilter(kFd, 1, nullptr, 0), 0);  // no entries: nothing to read
  EXPECT_EQ(CAN_SetRelay(kFd, 1), 0);
  EXPECT_EQ(packets(*adapter, 0x4008).at(0).payload, (Bytes{1}));
}

// The relay forwards between two buses; its answer must echo the state asked for.
TEST_F(CanServices, RelayForwardsBetweenBusesAndMustBeEchoed) {
  auto adapter = open(kClassic);
  auto other_bus = std::make_shared<sim::CanBus>();
  sim::can_model(*adapter).buses[1] = other_bus;
  for (uint8_t ch = 0; ch < 2; ++ch) ASSERT_EQ(CAN_Init2(kClassic, ch, 500000), 0);
  auto here = sim::CanPeer::create(bus_, {500000, 0});
  auto there = sim::CanPeer::create(other_bus, {500000, 0});
  const sim::CanFrame frame{0x321};
  for (uint8_t state : {0, 1}) {
    ASSERT_EQ(CAN_SetRelay(kClassic, state), 0);
    here->send(frame);
    EXPECT_EQ(there->received_count(), state) << int(state);
  }
  adapter->faults().next_reply({sim::ReplyFault::Kind::kAnnounceLength, 0, 0x0C07});
  EXPECT_EQ(CAN_SetRelay(kClassic, 1), -4);
  adapter->on(0x0C07, 0x0C07, [](sim::VirtualAdapter&, const sim::Packet& request) {
    return std::optional<sim::Packet>(sim::reply_with(request.command, {0}));  // the wrong state
  });
  EXPECT_EQ(CAN_SetRelay(kClassic, 1), -4);
  usbsim::unplug(kClassic);
  EXPECT_EQ(CAN_SetRelay(kClassic, 1), -2);
  EXPECT_EQ(CAN_Filter_Init(kClassic, 0, nullptr), -7);
}
