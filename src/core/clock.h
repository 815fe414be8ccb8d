// Host clocks: the monotonic high-resolution counter and the wall clock. Platform calls stay here.
#pragma once

#include <chrono>
#include <cstdint>
#include <thread>

namespace varnel {

inline uint64_t monotonic_ns() {
  return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count());
}

inline double elapsed_ms_since(uint64_t start_ns) {
  // whole microseconds first, then milliseconds as a floating-point value
  uint64_t us = (monotonic_ns() - start_ns) / 1000;
  return double(us) / 1000.0;
}

inline uint64_t wall_clock_ms() {
  return uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count());
}

inline void sleep_for_ms(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Spins on the counter for the whole pause. Waits inside a call use wait_for_us
// (core/delay.h), which ends as exactly but sleeps through all but the last stretch.
inline void busy_wait_us(uint64_t us) {
  const uint64_t start = monotonic_ns();
  while (monotonic_ns() - start < us * 1000) {
  }
}

}  // namespace varnel
