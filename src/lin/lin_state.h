// What the library keeps per adapter and LIN channel: the initialised flag and baud rate of the
// last init, the power output, the start time, the host message buffer (LIN_EX_GetMsg), and per
// channel modulo 4 the diagnostic record buffer of every judged master exchange.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "core/ring_queue.h"
#include "varnel.h"

namespace varnel::lin {

constexpr int kChannels = VARNEL_LIN_MAX_CHANNELS;
constexpr size_t kDiagnosticBufferLimit = 1000;

struct Channel {
  std::atomic<bool> initialised{false};
  std::atomic<uint32_t> baud{0};
  std::atomic<uint8_t> power{0};
  std::atomic<uint64_t> start_time{0};
  std::mutex buffer_mutex;  // one reader a channel is expected; the mutex makes two safe
  RingQueue<LIN_EX_MSG> buffer{VARNEL_LIN_BUFFER_SIZE};
};

// The channel of an adapter, held for the caller; null for an unknown handle or a channel of 8
// or more.
using ChannelRef = std::shared_ptr<Channel>;
ChannelRef channel_of(uint32_t handle, uint8_t channel);

// Appends under the buffer's own lock (lin_lock of the handle and channel modulo 4); the oldest
// record goes first while the buffer holds 1000.
void record_diagnostic(uint32_t handle, uint8_t channel, const LIN_EX_MSG& msg);
// Moves up to `max` buffered records of (handle, channel modulo 4) out, oldest first.
std::vector<LIN_EX_MSG> take_diagnostics(uint32_t handle, uint8_t channel, size_t max);
void clear_diagnostics(uint32_t handle, uint8_t channel);

}  // namespace varnel::lin
