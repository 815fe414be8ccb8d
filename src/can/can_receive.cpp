// The classic receive path: the poller step that fetches a channel's frames into its two queues,
// the poller thread, and the calls that drain the application queue.
#include <algorithm>
#include <cstring>
#include <vector>

#include "can/can_internal.h"
#include "core/result_codes.h"
#include "core/transaction.h"

using namespace varnel;
using namespace varnel::can;

namespace varnel::can {

int classic_poller_step(uint32_t handle, uint8_t channel) {
  const CanState adapter = can_adapter(handle, channel);
  if (!adapter) return result::kUnknownHandle;
  thread_local std::vector<uint8_t> buffer(kClassicFetchBytes);
  thread_local std::vector<CAN_MSG> records(kClassicFetchLimit);
  // Fetch and queue under the device lock: a fetch on demand and the poller's may run at once,
  // and the later fetch's frames must not overtake the earlier's into the queues.
  DeviceLockGuard fetching(handle);
  const auto r = transact(handle, kCanFetch, {&channel, 1}, buffer);
  if (r.send_result != 0) return result::kWriteFailed;
  if (r.read_result != 0) return result::kReplyFailed;
  const size_t n = size_t(std::max(0, r.reply_length)) / sizeof(CAN_MSG);
  ClassicChannel& state = adapter->classic[channel];
  if (n > kClassicFetchLimit) {  // more than a fetch can hold: garbage, dropped whole
    state.fetches_dropped += n;
    return 0;
  }
  std::memcpy(records.data(), buffer.data(), n * sizeof(CAN_MSG));
  for (size_t i = 0; i < n; ++i)
    records[i].Flags = uint8_t((records[i].Flags & 0x9F) | ((channel & 3) << 5));
  DataLock lock(handle, channel);
  state.application.append(records.data(), n);
  state.diagnostic.append(records.data(), n);
  return 0;
}

Pollers& classic_pollers() {
  static Pollers pollers(kChannels, classic_poller_step);
  return pollers;
}

}  // namespace varnel::can

namespace {

// CAN FD adapters: reads through CANFD_GetMsg and converts.
int read_through_fd(uint32_t handle, uint8_t channel, CAN_MSG* out, size_t capacity) {
  thread_local std::vector<CANFD_MSG> scratch(kFdFetchLimit);  // the 380000-byte area
  const int n =
      CANFD_GetMsg(handle, channel, scratch.data(), int32_t(std::min(capacity, scratch.size())));
  for (int i = 0; i < n; ++i) out[i] = to_can(scratch[size_t(i)]);
  return n;
}

// Pulls once when the channel is not polled, then drains up to `capacity` records.
int read_classic(uint32_t handle, uint8_t channel, CAN_MSG* out, size_t capacity,
                 bool report_fetch_error) {
  const CanState adapter = can_adapter(handle, channel);
  if (!adapter) return result::kReplyFailed;
  ClassicChannel& state = adapter->classic[channel];
  if (!classic_pollers().polled(handle, channel)) {
    const int r = classic_poller_step(handle, channel);
    if (r < 0 && report_fetch_error) return r;
  }
  DataLock lock(handle, channel);
  return int(state.application.take(out, capacity));
}

}  // namespace

VARNEL_API int CAN_GetMsg(DevHandle handle, uint8_t channel, CAN_MSG* out) {
  return guarded(result::kFailed, [&] {
    if (!out) return result::kBadArgument;
    if (is_fd_adapter(handle)) return read_through_fd(handle, channel, out, kFdClassicRead);
    return read_classic(handle, channel, out, kQueueLimit, false);
  });
}

VARNEL_API int CAN_GetMsgWithSize(DevHandle handle, uint8_t channel, CAN_MSG* out,
                                  int32_t capacity) {
  return guarded(result::kFailed, [&] {
    if (!out || capacity < 0) return result::kBadArgument;
    channel &= 1;
    if (is_fd_adapter(handle)) return read_through_fd(handle, channel, out, size_t(capacity));
    return read_classic(handle, channel, out, size_t(capacity), true);
  });
}

VARNEL_API int CAN_ClearMsg(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    if (is_fd_adapter(handle)) return CANFD_ClearMsg(handle, channel);
    const CanState adapter = can_adapter(handle, channel);
    if (!adapter) return result::kFailed;
    ClassicChannel& state = adapter->classic[channel];
    {
      DataLock lock(handle, channel);
      state.application.clear();
    }
    if (!classic_pollers().polled(handle, channel)) {
      // frames already waiting in the device are dropped too
      thread_local std::vector<CAN_MSG> scratch(204800 / sizeof(CAN_MSG));
      read_classic(handle, channel, scratch.data(), scratch.size(), false);
    }
    return 0;
  });
}

VARNEL_API int CAN_StartGetMsg(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    if (is_fd_adapter(handle)) return CANFD_StartGetMsg(handle, channel);
    if (!can_adapter(handle, channel)) return result::kReplyFailed;
    DataLock lock(handle, channel);
    return classic_pollers().start(handle, channel);
  });
}

VARNEL_API int CAN_StopGetMsg(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    if (is_fd_adapter(handle)) return CANFD_StopGetMsg(handle, channel);
    // a handle that is gone may still have a poller to stop
    if (channel >= kChannels) return result::kReplyFailed;
    return classic_pollers().stop(handle, channel) ? result::kOk : result::kReplyFailed;
  });
}
