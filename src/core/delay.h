// Busy-wait delays on the monotonic high-resolution counter.
#pragma once

#include <cstdint>

namespace varnel {

// Microseconds that delay_ms(ms) waits: ms x 1000 taken in 32 bits, as a signed value, so values
// above 2,147,483 ms wrap (negative: no wait beyond the first counter tick).
int64_t delay_ms_as_us(uint32_t ms);

// Spins until (ticks elapsed) x 1,000,000 > us x ticks-per-second; returns the ticks elapsed.
int64_t spin_for_us(int64_t us);

}  // namespace varnel
