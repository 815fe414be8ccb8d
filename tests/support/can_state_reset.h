// Tests reuse adapter handles; the library keeps each adapter's CAN state by handle, so every test
// starts from empty queues, no rates and no start times.
#pragma once

#include "can/can_state.h"
#include "core/adapter_state.h"

namespace testing_support {

inline void reset_can_states() {
  for (const auto& adapter : varnel::adapter_table<varnel::can::CanAdapterState>().all()) {
    for (auto& c : adapter->classic) {
      c.application.clear();
      c.diagnostic.clear();
      c.application.forget_drops();
      c.diagnostic.forget_drops();
      c.bitrate = 0;
      c.start_time = 0;
      c.fetches_dropped = 0;
    }
    for (auto& f : adapter->fd) {
      f.application.clear();
      f.diagnostic.clear();
      f.application.forget_drops();
      f.diagnostic.forget_drops();
      f.initialised = false;
      f.start_time = 0;
    }
  }
}

}  // namespace testing_support
