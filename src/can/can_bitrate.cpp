// The rows are kept exactly as the firmware's settings name them: 666000, 83000 and 33000 are
// the names of those settings, and some rows do not divide the clock evenly. A rate that is not
// a row is refused; there is no search.
#include "can/can_bitrate.h"

#include <cstring>
#include <span>

#include "core/result_codes.h"

namespace varnel::can {
namespace {

struct Row {
  uint32_t rate;
  uint32_t prescaler;
  uint8_t sjw, bs1, bs2;
};

// Classic tables: rate, prescaler, jump width, segment 1, segment 2.
constexpr Row k42MHz[] = {
    {1000000, 2, 2, 15, 5}, {900000, 2, 2, 16, 6},  {800000, 4, 2, 9, 3},   {666000, 3, 2, 16, 4},
    {600000, 5, 2, 10, 3},  {500000, 4, 2, 15, 5},  {400000, 7, 2, 12, 2},  {300000, 10, 2, 11, 2},
    {250000, 8, 2, 15, 5},  {225000, 11, 2, 14, 2}, {200000, 10, 2, 15, 5}, {160000, 33, 1, 6, 1},
    {150000, 20, 2, 11, 2}, {144000, 58, 1, 3, 1},  {125000, 21, 2, 11, 4}, {120000, 25, 2, 11, 2},
    {100000, 20, 2, 15, 5}, {90000, 26, 2, 15, 2},  {83000, 36, 2, 11, 2},  {80000, 35, 2, 12, 2},
    {75000, 28, 2, 16, 3},  {60000, 35, 2, 16, 3},  {50000, 42, 2, 16, 3},  {40000, 70, 2, 12, 2},
    {33000, 79, 2, 13, 2},  {30000, 100, 2, 11, 2}, {20000, 140, 2, 12, 2}, {10000, 210, 2, 16, 3},
    {5000, 525, 2, 13, 2},  {0, 0, 0, 0, 0}};

constexpr Row k40MHz[] = {{1000000, 2, 2, 14, 5}, {800000, 2, 2, 18, 6},  {666000, 3, 2, 14, 5},
                          {500000, 5, 2, 11, 4},  {400000, 5, 2, 14, 5},  {300000, 7, 2, 13, 5},
                          {250000, 20, 2, 5, 2},  {200000, 25, 2, 5, 2},  {150000, 3, 2, 67, 21},
                          {125000, 20, 2, 11, 4}, {100000, 25, 2, 11, 4}, {83000, 30, 2, 11, 4},
                          {50000, 50, 2, 11, 4},  {33000, 75, 2, 11, 4},  {20000, 100, 2, 14, 5},
                          {10000, 250, 2, 11, 4}, {0, 0, 0, 0, 0}};

constexpr Row k160MHz[] = {
    {1000000, 8, 2, 14, 5},  {800000, 10, 2, 14, 5},  {666000, 10, 2, 17, 6},
    {500000, 20, 2, 11, 4},  {400000, 25, 2, 13, 2},  {300000, 41, 2, 9, 3},
    {250000, 32, 2, 14, 5},  {200000, 40, 2, 14, 5},  {150000, 12, 2, 67, 21},
    {125000, 80, 2, 11, 4},  {100000, 100, 2, 11, 4}, {83000, 120, 2, 11, 4},
    {50000, 200, 2, 11, 4},  {33000, 200, 2, 17, 6},  {20000, 200, 2, 29, 10},
    {10000, 250, 2, 47, 16}, {0, 0, 0, 0, 0}};

constexpr Row k100MHz[] = {
    {1000000, 5, 2, 14, 5}, {900000, 28, 1, 2, 1},  {800000, 25, 1, 3, 1},  {666000, 15, 2, 7, 2},
    {600000, 28, 1, 4, 1},  {500000, 10, 2, 14, 5}, {400000, 25, 1, 8, 1},  {300000, 37, 1, 7, 1},
    {250000, 20, 2, 14, 5}, {225000, 89, 1, 3, 1},  {200000, 25, 1, 14, 5}, {160000, 78, 1, 6, 1},
    {150000, 29, 1, 16, 6}, {144000, 87, 1, 6, 1},  {125000, 40, 2, 14, 5}, {120000, 104, 1, 6, 1},
    {100000, 50, 2, 14, 5}, {90000, 63, 1, 6, 1},   {83000, 150, 1, 6, 1},  {80000, 278, 1, 1, 3},
    {75000, 167, 1, 6, 1},  {60000, 208, 1, 6, 1},  {50000, 250, 1, 6, 1},  {40000, 312, 1, 6, 1},
    {33000, 375, 1, 6, 1},  {30000, 417, 1, 6, 1},  {20000, 625, 1, 6, 1},  {10000, 625, 1, 13, 2},
    {5000, 1000, 1, 16, 3}, {0, 0, 0, 0, 0}};

// CAN FD data-phase tables: rate, prescaler, segment 1, segment 2, jump width (kept in Row as
// prescaler, sjw, bs1, bs2 like the classic rows).
constexpr Row kData40MHz[] = {{10000000, 1, 1, 2, 1}, {8000000, 1, 1, 3, 1},  {6700000, 1, 1, 4, 1},
                              {5000000, 1, 2, 5, 2},  {4000000, 1, 2, 7, 2},  {3000000, 1, 2, 9, 3},
                              {2000000, 1, 2, 15, 4}, {1500000, 1, 2, 19, 6}, {1000000, 5, 2, 5, 2},
                              {800000, 2, 2, 18, 6},  {666000, 5, 2, 8, 3},   {500000, 5, 2, 11, 4},
                              {400000, 5, 2, 14, 5},  {250000, 20, 2, 5, 2},  {200000, 25, 2, 5, 2},
                              {125000, 40, 2, 5, 2},  {100000, 50, 2, 5, 2},  {0, 0, 0, 0, 0}};

constexpr Row kData160MHz[] = {
    {10000000, 1, 2, 11, 4}, {8000000, 1, 2, 14, 5},  {6700000, 1, 2, 17, 6},
    {5000000, 2, 2, 11, 4},  {4000000, 2, 2, 14, 5},  {3000000, 4, 2, 9, 3},
    {2000000, 4, 2, 15, 4},  {1000000, 10, 2, 11, 4}, {800000, 10, 2, 14, 5},
    {666000, 12, 2, 14, 5},  {500000, 16, 2, 14, 5},  {400000, 20, 2, 14, 5},
    {250000, 32, 2, 14, 5},  {200000, 40, 2, 14, 5},  {125000, 64, 2, 14, 5},
    {100000, 80, 2, 14, 5},  {0, 0, 0, 0, 0}};

const Row* find(const Row* table, uint32_t rate) {
  for (; table->rate != 0; ++table)
    if (table->rate == rate) return table;
  return nullptr;
}

uint8_t top_byte(uint32_t handle) {
  return uint8_t(handle >> 24);
}

const Row* classic_table(uint32_t handle) {
  const uint8_t top = top_byte(handle);
  if (top == 0x53 || top == 0x54) return k40MHz;
  if (top == 0x55 || top == 0x56) return k160MHz;
  if ((top >> 4) == 0x3) return k100MHz;
  return k42MHz;
}

struct FdTables {
  const Row* nominal;
  const Row* data;  // null: the adapter has a classic-only table and ignores the data rate
};

FdTables fd_tables(uint32_t handle) {
  const uint8_t top = top_byte(handle);
  if (top == 0x53 || top == 0x54) return {k40MHz, kData40MHz};
  if (top == 0x55 || top == 0x56) return {k160MHz, kData160MHz};
  if ((top >> 4) == 0x4) return {k42MHz, nullptr};
  return {k100MHz, nullptr};
}

}  // namespace

int classic_speed_arg(uint32_t handle, uint32_t bitrate, CAN_INIT_CONFIG& out) {
  const Row* row = find(classic_table(handle), bitrate);
  if (!row) return result::kFailed;
  out.Prescaler = row->prescaler;
  out.Sjw = row->sjw;
  out.Bs1 = row->bs1;
  out.Bs2 = row->bs2;
  out.Mode = 0x80;  // normal mode with device option bit 7
  out.ControllerOption1 = 1;
  out.ControllerOption2 = out.ControllerOption3 = out.ControllerOption4 = 0;
  return 0;
}

int fd_speed_arg(uint32_t handle, uint32_t nominal, uint32_t data, CANFD_INIT_CONFIG& out) {
  const FdTables tables = fd_tables(handle);
  const Row* row = find(tables.nominal, nominal);
  if (!row) return result::kFailed;
  const Row* data_row = nullptr;
  if (tables.data) {
    data_row = find(tables.data, data);
    if (!data_row) return result::kFailed;
  }
  std::memset(&out, 0, sizeof out);
  out.Option = 1;
  out.FrameFormat = tables.data ? 3 : 1;
  out.DeviceOption = 1;
  // only the low byte of a prescaler is stored: prescalers above 255 wrap, as the firmware does
  out.NomPrescaler = uint8_t(row->prescaler);
  out.NomSeg1 = row->bs1;
  out.NomSeg2 = row->bs2;
  out.NomSjw = row->sjw;
  if (data_row) {
    out.DataPrescaler = uint8_t(data_row->prescaler);
    out.DataSeg1 = data_row->bs1;
    out.DataSeg2 = data_row->bs2;
    out.DataSjw = data_row->sjw;
  }
  out.DelayCompensation = data >= 8000000 ? 5 : 0;
  return 0;
}

uint32_t fd_controller_clock(uint32_t handle) {
  const uint8_t top = top_byte(handle);
  return (top == 0x55 || top == 0x56) ? 160000000u : 40000000u;
}

}  // namespace varnel::can
