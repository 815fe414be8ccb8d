// Receive pollers of the streaming families (CAN, CAN FD; later LIN, the slave streams, the ADC):
// one thread per adapter that every 10 ms (or the family's own pause) runs the family's fetch
// step for each channel being polled. A poller works for its handle, not for a device index: a
// rescan renumbers the adapters while the thread runs, so the step resolves the handle afresh every
// time.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

namespace varnel {

class Pollers {
 public:
  static constexpr int kMaxChannels = 4;
  static constexpr int kSlots = 60;  // as many adapters as the host tables hold

  // One fetch of one channel; a negative result stops polling that channel and is kept as the
  // reason (a handle that is gone answers with a negative result too).
  using Step = std::function<int(uint32_t handle, uint8_t channel)>;
  // The thread pauses `pause_ms` between rounds (10 ms for the CAN queues).
  Pollers(int channels, Step step, int pause_ms = 10)
      : channels_(channels), step_(std::move(step)), pause_ms_(pause_ms) {}
  ~Pollers();  // stops every channel and joins every thread

  // Polls the channel, starting the handle's thread when it is not running. 0, or -4 when no
  // thread can be started.
  int start(uint32_t handle, uint8_t channel);
  // Stops polling the channel; when no channel of the handle is left polled, waits up to 100 ms
  // for the thread to end. False when no thread was ever started for the handle.
  bool stop(uint32_t handle, uint8_t channel);
  // Stops polling the channel without waiting for the thread.
  void clear(uint32_t handle, uint8_t channel);
  bool polled(uint32_t handle, uint8_t channel) const;
  // The result of the step that stopped the channel's polling; 0 when none did since start.
  int stop_result(uint32_t handle, uint8_t channel) const;

 private:
  struct Slot {
    std::mutex mutex;
    std::condition_variable ended;
    std::thread thread;
    bool running = false;
    bool ever_started = false;
    std::atomic<bool> used{false};
    std::atomic<uint32_t> handle{0};
    std::array<std::atomic<uint8_t>, kMaxChannels> flags{};
    std::array<std::atomic<int>, kMaxChannels> stop_results{};
  };
  Slot* find(uint32_t handle) const;
  Slot* claim(uint32_t handle, uint8_t channel);
  bool any_polled(const Slot& slot) const;
  void run(Slot& slot);

  const int channels_;
  const Step step_;
  const int pause_ms_;
  mutable std::mutex table_mutex_;  // taken before a slot's mutex, never the other way round
  mutable Slot slots_[kSlots];
};

}  // namespace varnel
