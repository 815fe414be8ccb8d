#include "lin/lin_state.h"

#include <algorithm>
#include <array>
#include <memory>

#include "core/transport.h"

namespace varnel::lin {
namespace {

constexpr int kDiagnosticSlots = 4;

struct Device {
  std::array<Channel, kChannels> channels;
  std::array<std::deque<LIN_EX_MSG>, kDiagnosticSlots> diagnostics;
};

Device* device_of(uint32_t handle) {
  static auto* devices = new std::array<std::unique_ptr<Device>, kMaxDevices>;
  static std::mutex creating;
  const int index = device_index(handle);
  if (index < 0 || index >= kMaxDevices) return nullptr;
  std::lock_guard guard(creating);
  auto& device = (*devices)[size_t(index)];
  if (!device) device = std::make_unique<Device>();
  return device.get();
}

}  // namespace

Channel* channel_of(uint32_t handle, uint8_t channel) {
  if (channel >= kChannels) return nullptr;
  Device* device = device_of(handle);
  return device ? &device->channels[channel] : nullptr;
}

void record_diagnostic(uint32_t handle, uint8_t channel, const LIN_EX_MSG& msg) {
  Device* device = device_of(handle);
  if (!device) return;
  const uint8_t slot = channel & 3;
  lin_lock(handle, slot);
  auto& buffer = device->diagnostics[slot];
  while (buffer.size() >= kDiagnosticBufferLimit) buffer.pop_front();
  buffer.push_back(msg);
  lin_unlock(handle, slot);
}

std::vector<LIN_EX_MSG> take_diagnostics(uint32_t handle, uint8_t channel, size_t max) {
  Device* device = device_of(handle);
  if (!device) return {};
  const uint8_t slot = channel & 3;
  lin_lock(handle, slot);
  auto& buffer = device->diagnostics[slot];
  const size_t n = std::min(max, buffer.size());
  std::vector<LIN_EX_MSG> out(buffer.begin(), buffer.begin() + long(n));
  buffer.erase(buffer.begin(), buffer.begin() + long(n));
  lin_unlock(handle, slot);
  return out;
}

void clear_diagnostics(uint32_t handle, uint8_t channel) {
  take_diagnostics(handle, channel, kDiagnosticBufferLimit);
}

}  // namespace varnel::lin
