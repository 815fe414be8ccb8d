// Every row of every bit-rate table against the bit time it sets up: one bit is
// 1 + segment 1 + segment 2 quanta of prescaler / clock, so rate = clock / (prescaler × quanta).
// The rates are the names of the firmware's settings; where a row does not divide its clock
// evenly, the quotient worked out by hand stands beside it.
#include "can/can_bitrate.h"

#include <gtest/gtest.h>

#include <vector>

#include "varnel.h"

namespace {

struct Row {
  uint32_t rate;
  uint8_t sjw;
  uint32_t quotient = 0;  // clock / bit time where that is not `rate`
  uint32_t derived() const { return quotient ? quotient : rate; }
};

struct Table {
  const char* name;
  std::vector<uint32_t> handles;  // adapter kinds served by the table
  uint32_t clock;
  std::vector<Row> rows;
};

uint32_t rate_of(uint32_t clock, uint32_t prescaler, uint32_t seg1, uint32_t seg2) {
  return clock / (prescaler * (1 + seg1 + seg2));
}

// clang-format off
const Table k40MHz{"40 MHz", {0x53000010, 0x54000010}, 40000000, {{1000000, 2}, {800000, 2},
    {666000, 2, 666666}, {500000, 2}, {400000, 2}, {300000, 2, 300751}, {250000, 2}, {200000, 2},
    {150000, 2, 149812}, {125000, 2}, {100000, 2}, {83000, 2, 83333}, {50000, 2},
    {33000, 2, 33333}, {20000, 2}, {10000, 2}}};
const Table k160MHz{"160 MHz", {0x55000000, 0x56000001}, 160000000, {{1000000, 2}, {800000, 2},
    {666000, 2, 666666}, {500000, 2}, {400000, 2}, {300000, 2, 300187}, {250000, 2}, {200000, 2},
    {150000, 2, 149812}, {125000, 2}, {100000, 2}, {83000, 2, 83333}, {50000, 2},
    {33000, 2, 33333}, {20000, 2}, {10000, 2}}};
const Table kClassic[] = {{"42 MHz", {0x12345670, 0x45000000}, 42000000, {{1000000, 2},
    {900000, 2, 913043}, {800000, 2, 807692}, {666000, 2, 666666}, {600000, 2}, {500000, 2},
    {400000, 2}, {300000, 2}, {250000, 2}, {225000, 2, 224598}, {200000, 2}, {160000, 1, 159090},
    {150000, 2}, {144000, 1, 144827}, {125000, 2}, {120000, 2}, {100000, 2}, {90000, 2, 89743},
    {83000, 2, 83333}, {80000, 2}, {75000, 2}, {60000, 2}, {50000, 2}, {40000, 2},
    {33000, 2, 33227}, {30000, 2}, {20000, 2}, {10000, 2}, {5000, 2}}}, k40MHz, k160MHz,
    {"100 MHz", {0x31000000, 0x3F000000}, 100000000, {{1000000, 2}, {900000, 1, 892857},
    {800000, 1}, {666000, 2, 666666}, {600000, 1, 595238}, {500000, 2}, {400000, 1},
    {300000, 1, 300300}, {250000, 2}, {225000, 1, 224719}, {200000, 1}, {160000, 1, 160256},
    {150000, 1, 149925}, {144000, 1, 143678}, {125000, 2}, {120000, 1, 120192}, {100000, 2},
    {90000, 1, 198412}, {83000, 1, 83333}, {80000, 1, 71942}, {75000, 1, 74850},
    {60000, 1, 60096}, {50000, 1}, {40000, 1, 40064}, {33000, 1, 33333}, {30000, 1, 29976},
    {20000, 1}, {10000, 1}, {5000, 1}}}};
const Table kData[] = {{"40 MHz data", {0x53000010, 0x54000010}, 40000000, {{10000000, 1},
    {8000000, 1}, {6700000, 1, 6666666}, {5000000, 2}, {4000000, 2}, {3000000, 2, 3076923},
    {2000000, 2}, {1500000, 2, 1538461}, {1000000, 2}, {800000, 2}, {666000, 2, 666666},
    {500000, 2}, {400000, 2}, {250000, 2}, {200000, 2}, {125000, 2}, {100000, 2}}},
    {"160 MHz data", {0x55000000, 0x56000001}, 160000000, {{10000000, 2}, {8000000, 2},
    {6700000, 2, 6666666}, {5000000, 2}, {4000000, 2}, {3000000, 2, 3076923}, {2000000, 2},
    {1000000, 2}, {800000, 2}, {666000, 2, 666666}, {500000, 2}, {400000, 2}, {250000, 2},
    {200000, 2}, {125000, 2}, {100000, 2}}},};
// clang-format on

}  // namespace

TEST(CanBitRateTables, EveryClassicRowSetsUpItsRate) {
  for (auto& table : kClassic)
    for (uint32_t handle : table.handles)
      for (auto& row : table.rows) {
        CAN_INIT_CONFIG c{};
        ASSERT_EQ(CAN_GetCANSpeedArg(handle, &c, row.rate), 0) << table.name << " " << row.rate;
        EXPECT_EQ(rate_of(table.clock, c.Prescaler, c.Bs1, c.Bs2), row.derived())
            << table.name << " " << row.rate;
        EXPECT_EQ(c.Sjw, row.sjw) << table.name << " " << row.rate;
      }
}

// The nominal phase of a CAN FD adapter runs on its classic table, the data phase on its own.
TEST(CanBitRateTables, EveryCanFdRowSetsUpItsRate) {
  const Table* nominal[] = {&k40MHz, &k160MHz};
  for (int kind = 0; kind < 2; ++kind) {
    const Table& data = kData[kind];
    for (uint32_t handle : data.handles) {
      EXPECT_EQ(varnel::can::fd_controller_clock(handle), data.clock) << std::hex << handle;
      for (auto& row : nominal[kind]->rows) {
        CANFD_INIT_CONFIG c{};
        ASSERT_EQ(CANFD_GetCANSpeedArg(handle, &c, row.rate, 1000000), 0) << row.rate;
        EXPECT_EQ(rate_of(data.clock, c.NomPrescaler, c.NomSeg1, c.NomSeg2), row.derived())
            << data.name << " nominal " << row.rate;
        EXPECT_EQ(c.NomSjw, row.sjw) << data.name << " nominal " << row.rate;
      }
      for (auto& row : data.rows) {
        CANFD_INIT_CONFIG c{};
        ASSERT_EQ(CANFD_GetCANSpeedArg(handle, &c, 500000, row.rate), 0) << row.rate;
        EXPECT_EQ(rate_of(data.clock, c.DataPrescaler, c.DataSeg1, c.DataSeg2), row.derived())
            << data.name << " " << row.rate;
        EXPECT_EQ(c.DataSjw, row.sjw) << data.name << " " << row.rate;
      }
    }
  }
  EXPECT_EQ(varnel::can::fd_controller_clock(0x51000000), 40000000u);
}

// Rates of another adapter kind's table, or between rows, are refused: there is no search.
TEST(CanBitRateTables, RatesNotInTheHandlesTableAreRefused) {
  struct Case {
    uint32_t handle, nominal, data;
  } cases[] = {
      {0x12345670, 110000, 0},       {0x53000010, 900000, 0}, {0x54000010, 5000, 0},
      {0x56000001, 900000, 0},       {0x31000000, 0, 0},      {0x55000000, 500000, 7000000},
      {0x54000010, 500000, 1200000}, {0x53000010, 500000, 0},
  };
  for (auto c : cases) {
    CANFD_INIT_CONFIG fd{};
    EXPECT_EQ(CANFD_GetCANSpeedArg(c.handle, &fd, c.nominal, c.data), -4) << c.nominal;
    CAN_INIT_CONFIG classic{};
    if (c.nominal != 500000) {
      EXPECT_EQ(CAN_GetCANSpeedArg(c.handle, &classic, c.nominal), -4);
    }
  }
}
