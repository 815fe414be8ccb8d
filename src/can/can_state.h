// Host-side state of the CAN and CAN FD channels, kept per adapter by its handle (see
// core/adapter_state.h): a rescan that renumbers the device indexes leaves every adapter its own
// queues, bit rate and start time.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "can/can_records.h"
#include "core/device.h"
#include "core/ring_queue.h"
#include "varnel.h"

namespace varnel::can {

constexpr size_t kQueueLimit = VARNEL_CAN_QUEUE_SIZE;

struct ClassicChannel {
  RingQueue<CAN_MSG> application{kQueueLimit};
  RingQueue<CAN_MSG> diagnostic{kQueueLimit};
  std::atomic<uint32_t> bitrate{0};
  std::atomic<uint64_t> start_time{0};
  std::atomic<uint64_t> fetches_dropped{0};  // records of fetches dropped whole as garbage
};

struct FdChannel {
  RingQueue<CANFD_MSG> application{kQueueLimit};
  RingQueue<CANFD_MSG> diagnostic{kQueueLimit};
  std::mutex init_mutex;
  CANFD_INIT_CONFIG init{};  // last successful init record
  bool initialised = false;
  std::atomic<uint64_t> start_time{0};
};

// One adapter's channels, both kinds: an adapter uses the kind its handle says.
struct CanAdapterState {
  std::array<ClassicChannel, kChannels> classic;
  std::array<FdChannel, kChannels> fd;
};
// Held by whoever uses the state, so that it outlives a rescan that gives its slot away.
using CanState = std::shared_ptr<CanAdapterState>;

// The adapter's CAN state, created on first use for a handle the library lists; null for an
// unknown handle or a channel beyond the adapter's two.
CanState can_adapter(uint32_t handle, uint8_t channel);

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
