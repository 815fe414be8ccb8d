// Delays on the monotonic high-resolution counter: the exported busy-waits, and the wait the
// library uses inside calls.
#pragma once

#include <cstdint>

namespace varnel {

// Microseconds that delay_ms(ms) waits: ms x 1000 taken in 32 bits, as a signed value, so values
// above 2,147,483 ms wrap (negative: no wait beyond the first counter tick).
int64_t delay_ms_as_us(uint32_t ms);

// Spins until (ticks elapsed) x 1,000,000 > us x ticks-per-second; returns the ticks elapsed.
int64_t spin_for_us(int64_t us);

// The library's waits inside a call: returns once monotonic_ns() has reached the deadline, as a
// spin on the counter would, but sleeps until shortly before it and spins only the rest, so a
// wait of milliseconds costs the host next to no CPU. Waits shorter than the spin margin are
// spun whole.
void wait_until_ns(uint64_t deadline_ns);
void wait_for_us(uint64_t us);

}  // namespace varnel
