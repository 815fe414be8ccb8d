// What the LIN call files share: the command codes, and the request and reply shapes (a channel
// byte, then records or fields).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/transaction.h"
#include "varnel.h"

namespace varnel::lin {

enum : uint32_t {
  // the older firmware's own commands
  kOldInit = 0xF00,
  kOldWrite = 0xF01,
  kOldRead = 0xF02,
  kOldSlaveSet = 0xF03,
  kOldSlaveGet = 0xF04,
  kOldBreak = 0xF05,
  // the LIN_EX_ commands
  kInit = 0xF06,
  kMasterSync = 0xF07,
  kSlaveSetTable = 0xF08,
  kSlaveFetch = 0xF09,
  kPowerOut = 0xF0A,
  kBatteryVoltage = 0xF0B,
  kScheduleStart = 0xF0C,
  kScheduleStop = 0xF0D,
  kScheduleGet = 0xF0E,
  kSlaveGetTable = 0xF0F,
  kScheduleRunTimes = 0xF10,
  kScheduleState = 0xF11,
  kStop = 0xF12,
  kSlaveResponseData = 0xF13,
  kSlaveResponseStop = 0xF14,
};

// Master calls refuse a channel whose baud rate is below this (-7).
constexpr uint32_t kMinBaud = 101;

std::vector<uint8_t> with_records(uint8_t channel, std::span<const LIN_EX_MSG> records);
std::span<uint8_t> as_bytes(LIN_EX_MSG* records, size_t count);
TransactionOptions within(int read_timeout_ms);
// A request whose reply carries no data: 0, -2, -4.
int acknowledged(uint32_t handle, uint32_t command, std::span<const uint8_t> request);
// The channel's records as the adapter sends them, at most `max` (a longer reply writes nothing
// and gives 0): their count, or -2/-4.
int read_records(uint32_t handle, uint32_t command, uint8_t channel, LIN_EX_MSG* out, uint32_t max);

}  // namespace varnel::lin
