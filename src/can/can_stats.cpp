// Receive statistics of a channel (an extension): the host queues' losses, the poller's state
// and the controller's error state, in one record.
#include <algorithm>
#include <cstring>

#include "can/can_internal.h"

using namespace varnel;
using namespace varnel::can;

namespace {

template <typename Channel>
void fill_queue_counts(uint32_t handle, uint8_t channel, Channel& state,
                       VARNEL_RECEIVE_STATS& stats) {
  DataLock lock(handle, channel);
  stats.ApplicationDropped = state.application.dropped();
  stats.DiagnosticDropped = state.diagnostic.dropped();
}

// CAN FD controllers report their two counters only; the flags follow from them as the CAN
// standard defines the states (warning from 96, error passive from 128).
void derive_fd_error_flags(CAN_STATUS& status) {
  const uint8_t worst = std::max(status.RxErrorCounter, status.TxErrorCounter);
  status.ErrorFlags = uint8_t((worst >= 96 ? 1 : 0) | (worst >= 128 ? 2 : 0));
}

}  // namespace

VARNEL_API int VARNEL_CAN_GetReceiveStats(DevHandle handle, uint8_t channel,
                                          VARNEL_RECEIVE_STATS* stats) {
  return guarded(result::kReplyFailed, [&] {
    if (!stats) return result::kBadArgument;
    const CanState adapter = can_adapter(handle, channel);
    if (!adapter) return result::kReplyFailed;
    std::memset(stats, 0, sizeof *stats);
    const bool fd = is_fd_adapter(handle);
    Pollers& pollers = fd ? fd_pollers() : classic_pollers();
    if (fd) {
      fill_queue_counts(handle, channel, adapter->fd[channel], *stats);
    } else {
      ClassicChannel& state = adapter->classic[channel];
      fill_queue_counts(handle, channel, state, *stats);
      stats->FetchesDropped = state.fetches_dropped;
    }
    stats->PollerRunning = pollers.polled(handle, channel) ? 1 : 0;
    stats->PollerStopResult = pollers.stop_result(handle, channel);
    stats->StatusResult = CAN_GetStatus(handle, channel, &stats->Status);
    if (stats->StatusResult != 0) stats->Status = {};
    if (stats->StatusResult == 0 && fd) derive_fd_error_flags(stats->Status);
    return result::kOk;
  });
}
