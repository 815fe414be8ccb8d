// GPIO helpers shared by the exported calls and their tests.
#pragma once

#include <cstdint>

namespace varnel {

// Read time-out of a pulse train: (period x count, wrapping in 32 bits) / 1000 + 3000 ms.
int pulse_read_timeout_ms(uint32_t period_us, int32_t count);
// The period actually sent: raised to width + 1 when it does not exceed the width.
uint32_t corrected_pulse_period(uint32_t width_us, uint32_t period_us);

}  // namespace varnel
