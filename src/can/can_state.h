// Host-side state of the CAN and CAN FD channels, in fixed tables indexed by device index x 2 +
// channel, and the receive pollers (one thread per adapter and per kind).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

#include "can/can_queue.h"
#include "can/can_records.h"
#include "varnel.h"

namespace varnel::can {

constexpr size_t kQueueLimit = VARNEL_CAN_QUEUE_SIZE;
constexpr int kMaxDeviceIndex = 59;

struct ClassicChannel {
  std::atomic<uint8_t> receive{0};  // being polled by the receive poller
  RingQueue<CAN_MSG> application{kQueueLimit};
  RingQueue<CAN_MSG> diagnostic{kQueueLimit};
  std::atomic<uint32_t> bitrate{0};
  std::atomic<uint64_t> start_time{0};
  std::atomic<uint64_t> fetches_dropped{0};  // records of fetches dropped whole as garbage
};

struct FdChannel {
  std::atomic<uint8_t> receive{0};
  RingQueue<CANFD_MSG> application{kQueueLimit};
  RingQueue<CANFD_MSG> diagnostic{kQueueLimit};
  std::mutex init_mutex;
  CANFD_INIT_CONFIG init{};  // last successful init record
  bool initialised = false;
  std::atomic<uint64_t> start_time{0};
};

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

// One receive poller thread per device: every 10 ms it runs the step for channel 0 and then
// channel 1 while their receive flags are set; a failing step clears that channel's flag. The
// thread ends when both flags are clear.
class Pollers {
 public:
  using FlagOf = std::function<std::atomic<uint8_t>&(int device, int channel)>;
  using Step = std::function<int(uint32_t handle, int device, uint8_t channel)>;
  Pollers(FlagOf flag_of, Step step) : flag_of_(std::move(flag_of)), step_(std::move(step)) {}
  ~Pollers();  // clears every flag and joins every thread

  // Sets the channel's flag and starts the device's thread when it is not running. -4 when the
  // thread cannot be started.
  int start(uint32_t handle, int device, uint8_t channel);
  // Clears the flag; when no channel is left polled waits up to 100 ms for the thread to end.
  // Returns false when no thread was ever started for the device.
  bool stop(int device, uint8_t channel);
  bool polled(int device, uint8_t channel) { return flag_of_(device, channel).load() != 0; }

 private:
  struct Device {
    std::mutex mutex;
    std::condition_variable ended;
    std::thread thread;
    bool running = false;
    bool ever_started = false;
    std::atomic<uint32_t> handle{0};
  };
  void run(int device);

  FlagOf flag_of_;
  Step step_;
  Device devices_[kMaxDeviceIndex + 1];
};

// Start times: CAN_ResetStartTime's arithmetic (host ms - device ms; the device time counts as 0
// when the command could not be sent and -1 when the reply could not be read).
uint64_t read_start_time(uint32_t handle);

}  // namespace varnel::can
