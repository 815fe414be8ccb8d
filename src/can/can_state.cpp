#include "can/can_state.h"

#include "core/adapter_state.h"

namespace varnel::can {

CanState can_adapter(uint32_t handle, uint8_t channel) {
  if (channel >= kChannels) return nullptr;
  return adapter_table<CanAdapterState>().find_or_create(handle);
}

}  // namespace varnel::can
