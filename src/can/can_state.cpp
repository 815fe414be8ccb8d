#include "can/can_state.h"

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

}  // namespace varnel::can
