// Waiting for a frame (an extension): fetches from the adapter on demand, so that a caller that
// waits for an answer sees it well within the receive poller's 10 ms period. The poller keeps its
// period; the fetches here add to its own while someone waits.
#include <chrono>
#include <thread>

#include "can/can_internal.h"
#include "core/clock.h"

using namespace varnel;
using namespace varnel::can;

namespace {

// Records waiting in the channel's application queue.
size_t queued(uint32_t handle, uint8_t channel, CanAdapterState& adapter, bool fd) {
  DataLock lock(handle, channel);
  return fd ? adapter.fd[channel].application.size() : adapter.classic[channel].application.size();
}

}  // namespace

VARNEL_API int VARNEL_CAN_WaitMsg(DevHandle handle, uint8_t channel, int32_t timeout_ms) {
  return guarded(result::kReplyFailed, [&] {
    if (timeout_ms < 0) return result::kBadArgument;
    const CanState adapter = can_adapter(handle, channel);
    if (!adapter) return result::kReplyFailed;
    const bool fd = is_fd_adapter(handle);
    const uint64_t start = monotonic_ns();
    while (true) {
      if (const size_t n = queued(handle, channel, *adapter, fd)) return int(n);
      const int r = fd ? fd_poller_step(handle, channel) : classic_poller_step(handle, channel);
      if (r < 0) return r;
      if (const size_t n = queued(handle, channel, *adapter, fd)) return int(n);
      if (elapsed_ms_since(start) >= double(timeout_ms)) return 0;
      std::this_thread::sleep_for(kFetchGap);
    }
  });
}
