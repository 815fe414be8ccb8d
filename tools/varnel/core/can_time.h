// Host time of a received CAN frame, shared by the commands that print or forward frames.
#pragma once

#include <algorithm>
#include <cstdint>

namespace varnel_cli {

// Device time stamps count 10 µs on classic adapters and 1 µs on CAN FD ones.
constexpr unsigned kClassicTickUs = 10;
constexpr unsigned kFdTickUs = 1;

// The channel's start time (host ms at device time 0) plus the record's 40-bit device time stamp:
// frames fetched together keep the spacing they had on the bus.
inline uint64_t frame_host_us(int64_t start_ms, uint8_t stamp_high, uint32_t stamp,
                              unsigned tick_us) {
  const uint64_t ticks = uint64_t(stamp_high) << 32 | stamp;
  return uint64_t(std::max<int64_t>(start_ms, 0)) * 1000 + ticks * tick_us;
}

}  // namespace varnel_cli
