// Device housekeeping state the library keeps per adapter: the host times of the first and
// the last time-stamp correction.
#pragma once

#include <cstdint>

namespace varnel {

// The device information record and the function string, which other families read too (the
// LIN calls learn the firmware generation from them).
inline constexpr uint32_t kDeviceInfoCommand = 0x0100;
inline constexpr uint32_t kFunctionStringCommand = 0x0106;

struct CorrectionTimes {
  uint64_t first_ms = 0;  // wall clock ms since 1970; 0 until the first correction
  uint64_t last_ms = 0;
};

// Times of the adapter; zeros before its first correction.
CorrectionTimes correction_times(uint32_t handle);

// A channel's start time, as the CAN and LIN channels reset it: the device's clock corrected, then
// host ms - device ms (the device time counts as 0 when the command could not be sent and -1 when
// the reply could not be read).
uint64_t read_start_time(uint32_t handle);

}  // namespace varnel
