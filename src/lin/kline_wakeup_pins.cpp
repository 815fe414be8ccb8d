// The table of wake-up pins (see kline_wakeup_pins.h), and the extension calls that set and read
// it.
#include "lin/kline_wakeup_pins.h"

#include <array>
#include <mutex>
#include <unordered_map>

#include "core/c_boundary.h"
#include "core/result_codes.h"
#include "lin/kline_line.h"
#include "varnel.h"

namespace varnel::kline {
namespace {

using Pins = std::array<uint8_t, kChannels>;

// Only adapters whose mapping was changed have a row; a row grows with the handles a user maps.
struct PinTable {
  std::mutex mutex;
  std::unordered_map<uint32_t, Pins> rows;
};

PinTable& table() {
  static auto* t = new PinTable;  // lives until the process ends, as the other tables
  return *t;
}

Pins default_pins() {
  Pins pins{};
  for (int ch = 0; ch < kChannels; ++ch) pins[size_t(ch)] = uint8_t(ch);
  return pins;
}

}  // namespace

uint8_t wakeup_pin(uint32_t handle, uint8_t channel) {
  std::lock_guard guard(table().mutex);
  auto row = table().rows.find(handle);
  return row == table().rows.end() ? channel : row->second.at(channel);
}

uint32_t wakeup_pin_mask(uint32_t handle, uint8_t channel) {
  return 1u << wakeup_pin(handle, channel);
}

void set_wakeup_pin(uint32_t handle, uint8_t channel, uint8_t pin) {
  std::lock_guard guard(table().mutex);
  auto row = table().rows.try_emplace(handle, default_pins()).first;
  row->second.at(channel) = pin;
}

}  // namespace varnel::kline

using namespace varnel::kline;

VARNEL_API int VARNEL_KLINE_SetWakeupPin(DevHandle handle, uint8_t channel, uint8_t pin) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (!known_handle(handle)) return KWP_ERR_UNKNOWN_HANDLE;
    if (channel >= kChannels || pin >= kWakeupPins) return varnel::result::kBadArgument;
    set_wakeup_pin(handle, channel, pin);
    return 0;
  });
}

VARNEL_API int VARNEL_KLINE_GetWakeupPin(DevHandle handle, uint8_t channel) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (!known_handle(handle)) return KWP_ERR_UNKNOWN_HANDLE;
    if (channel >= kChannels) return varnel::result::kBadArgument;
    return int(wakeup_pin(handle, channel));
  });
}
