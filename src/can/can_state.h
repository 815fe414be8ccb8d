// Host-side state of the CAN and CAN FD channels, in fixed tables indexed by device index x 2 +
// channel.
#pragma once

#include "core/device.h"

#include <atomic>
#include <cstdint>
#include <mutex>

#include "can/can_records.h"
#include "core/ring_queue.h"
#include "varnel.h"

namespace varnel::can {

constexpr size_t kQueueLimit = VARNEL_CAN_QUEUE_SIZE;
constexpr int kMaxDeviceIndex = 59;

struct ClassicChannel {
  RingQueue<CAN_MSG> application{kQueueLimit};
  RingQueue<CAN_MSG> diagnostic{kQueueLimit};
  std::atomic<uint32_t> bitrate{0};
  std::atomic<uint64_t> start_time{0};
  std::atomic<uint64_t> fetches_dropped{0};  // records of fetches dropped whole as garbage
  uint32_t owner = 0;                        // the handle whose frames the queues hold
};

struct FdChannel {
  RingQueue<CANFD_MSG> application{kQueueLimit};
  RingQueue<CANFD_MSG> diagnostic{kQueueLimit};
  std::mutex init_mutex;
  CANFD_INIT_CONFIG init{};  // last successful init record
  bool initialised = false;
  std::atomic<uint64_t> start_time{0};
  uint32_t owner = 0;
};

// Under the channel's data lock: queues whose slot passed to another adapter (a rescan renumbers
// the device indexes) are emptied first, so one adapter never reads another's frames.
template <typename Channel>
void adopt_queues(Channel& state, uint32_t handle) {
  if (state.owner == handle) return;
  state.application.clear();
  state.diagnostic.clear();
  state.application.forget_drops();
  state.diagnostic.forget_drops();
  if constexpr (requires { state.fetches_dropped; }) state.fetches_dropped = 0;
  state.owner = handle;
}

// Valid for device index 0..59 and channel 0..1 only.
ClassicChannel& classic_channel(int device, int channel);
FdChannel& fd_channel(int device, int channel);

// Checks the handle's index and the channel; the index, or -1.
int channel_device(uint32_t handle, uint8_t channel);

// The channel's data lock (can_data_lock), held for the scope.
class DataLock {
 public:
  DataLock(uint32_t handle, uint8_t channel) : handle_(handle), channel_(channel) {
    ::can_data_lock(handle, channel);
  }
  ~DataLock() { ::can_data_unlock(handle_, channel_); }
  DataLock(const DataLock&) = delete;
  DataLock& operator=(const DataLock&) = delete;

 private:
  uint32_t handle_;
  uint8_t channel_;
};


}  // namespace varnel::can
