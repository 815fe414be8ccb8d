// Which digital output draws each K-line channel's wake-up patterns. How the adapter wires its
// K-line transceivers to the DIO_ pins is the hardware's business; until told otherwise the
// library drives bit (channel) of the DIO_ masks. The table is kept per adapter handle, for the
// life of the process (the wiring does not change when the adapter is closed and opened again).
#pragma once

#include <cstdint>

namespace varnel::kline {

constexpr int kWakeupPins = 32;  // the DIO_ masks are 32 bits wide

// The DIO_ mask of the pin that draws `channel`'s patterns on this adapter (channel < kChannels).
uint32_t wakeup_pin_mask(uint32_t handle, uint8_t channel);
// The pin number itself.
uint8_t wakeup_pin(uint32_t handle, uint8_t channel);
// Maps `channel` of this adapter to `pin`; the caller has checked both. False when the adapter
// has no state (not listed, or the table is full).
bool set_wakeup_pin(uint32_t handle, uint8_t channel, uint8_t pin);

}  // namespace varnel::kline
