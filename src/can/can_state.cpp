#include "can/can_state.h"

#include <chrono>

#include "core/clock.h"
#include "core/transport.h"

namespace varnel::can {
namespace {

constexpr int kSlots = (kMaxDeviceIndex + 1) * kChannels;

// Created on first use and never destroyed: a poller thread may still touch them at exit.
ClassicChannel* classic_table() {
  static auto* table = new ClassicChannel[kSlots];
  return table;
}
FdChannel* fd_table() {
  static auto* table = new FdChannel[kSlots];
  return table;
}

}  // namespace

ClassicChannel& classic_channel(int device, int channel) {
  return classic_table()[device * kChannels + channel];
}
FdChannel& fd_channel(int device, int channel) {
  return fd_table()[device * kChannels + channel];
}

int channel_device(uint32_t handle, uint8_t channel) {
  if (channel >= kChannels) return -1;
  const int device = device_index(handle);
  if (device < 0 || device > kMaxDeviceIndex) return -1;
  return device;
}

Pollers::~Pollers() {
  for (int device = 0; device <= kMaxDeviceIndex; ++device) {
    for (uint8_t channel = 0; channel < kChannels; ++channel) flag_of_(device, channel) = 0;
    std::thread thread;
    {
      std::lock_guard guard(devices_[device].mutex);
      thread = std::move(devices_[device].thread);
    }
    if (thread.joinable()) thread.join();
  }
}

int Pollers::start(uint32_t handle, int device, uint8_t channel) {
  Device& d = devices_[device];
  std::thread finished;
  {
    std::lock_guard guard(d.mutex);
    d.handle = handle;
    flag_of_(device, channel) = 1;
    if (d.running) return 0;  // the running thread picks the channel up on its next round
    finished = std::move(d.thread);
    try {
      d.thread = std::thread([this, device] { run(device); });
    } catch (...) {
      flag_of_(device, channel) = 0;
      return -4;
    }
    d.running = true;
    d.ever_started = true;
  }
  if (finished.joinable()) finished.join();  // it had ended already: nothing to wait for
  return 0;
}

bool Pollers::stop(int device, uint8_t channel) {
  Device& d = devices_[device];
  flag_of_(device, channel) = 0;
  if (polled(device, channel ^ 1)) return true;
  std::thread finished;
  {
    std::unique_lock guard(d.mutex);
    if (!d.ever_started) return false;
    d.ended.wait_for(guard, std::chrono::milliseconds(100), [&] { return !d.running; });
    if (!d.running) finished = std::move(d.thread);
  }
  if (finished.joinable()) finished.join();
  return true;
}

void Pollers::run(int device) {
  Device& d = devices_[device];
  for (;;) {
    {
      std::lock_guard guard(d.mutex);
      if (!polled(device, 0) && !polled(device, 1)) {
        d.running = false;
        d.ended.notify_all();
        return;
      }
    }
    sleep_for_ms(10);
    for (uint8_t channel = 0; channel < kChannels; ++channel)
      if (polled(device, channel) && step_(d.handle, device, channel) < 0)
        flag_of_(device, channel) = 0;
  }
}

uint64_t read_start_time(uint32_t handle) {
  DEV_CorrectionTimestamp(handle);
  const uint64_t host_ms = wall_clock_ms();
  const int64_t device_ms = DEV_GetTimestampMs(handle);  // 0: not sent, -1: not read
  return host_ms - uint64_t(device_ms);
}

}  // namespace varnel::can
