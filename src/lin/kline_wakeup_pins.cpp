// The table of wake-up pins (see kline_wakeup_pins.h), and the extension calls that set and read
// it.
#include "lin/kline_wakeup_pins.h"

#include <array>
#include <mutex>

#include "core/adapter_state.h"
#include "core/c_boundary.h"
#include "core/result_codes.h"
#include "lin/kline_line.h"
#include "varnel.h"

namespace varnel::kline {
namespace {

// Each adapter's pins, channel n on pin n until a user maps it otherwise.
struct WakeupPins {
  std::mutex mutex;
  std::array<uint8_t, kChannels> pins = [] {
    std::array<uint8_t, kChannels> by_channel{};
    for (int ch = 0; ch < kChannels; ++ch) by_channel[size_t(ch)] = uint8_t(ch);
    return by_channel;
  }();
};

}  // namespace

uint8_t wakeup_pin(uint32_t handle, uint8_t channel) {
  const auto adapter = adapter_table<WakeupPins>().find(handle);
  if (!adapter) return channel;
  std::lock_guard guard(adapter->mutex);
  return adapter->pins.at(channel);
}

uint32_t wakeup_pin_mask(uint32_t handle, uint8_t channel) {
  return 1u << wakeup_pin(handle, channel);
}

bool set_wakeup_pin(uint32_t handle, uint8_t channel, uint8_t pin) {
  const auto adapter = adapter_table<WakeupPins>().find_or_create(handle);
  if (!adapter) return false;
  std::lock_guard guard(adapter->mutex);
  adapter->pins.at(channel) = pin;
  return true;
}

}  // namespace varnel::kline

using namespace varnel::kline;

VARNEL_API int VARNEL_KLINE_SetWakeupPin(DevHandle handle, uint8_t channel, uint8_t pin) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (!known_handle(handle)) return KWP_ERR_UNKNOWN_HANDLE;
    if (channel >= kChannels || pin >= kWakeupPins) return varnel::result::kBadArgument;
    return set_wakeup_pin(handle, channel, pin) ? 0 : KWP_ERR_UNKNOWN_HANDLE;
  });
}

VARNEL_API int VARNEL_KLINE_GetWakeupPin(DevHandle handle, uint8_t channel) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (!known_handle(handle)) return KWP_ERR_UNKNOWN_HANDLE;
    if (channel >= kChannels) return varnel::result::kBadArgument;
    return int(wakeup_pin(handle, channel));
  });
}
