#include "lin/lin_state.h"

#include <algorithm>
#include <array>
#include <memory>

#include "core/adapter_state.h"

namespace varnel::lin {
namespace {

constexpr int kDiagnosticSlots = 4;

struct Device {
  std::array<Channel, kChannels> channels;
  std::array<std::deque<LIN_EX_MSG>, kDiagnosticSlots> diagnostics;
};

// Created for a listed handle on first use; held by the caller for as long as it uses it.
std::shared_ptr<Device> device_of(uint32_t handle) {
  static auto* devices = new AdapterTable<Device>;  // lives until the process ends
  return devices->find_or_create(handle);
}

}  // namespace

ChannelRef channel_of(uint32_t handle, uint8_t channel) {
  auto device = device_of(handle);
  Channel* found = device ? channel_at(device->channels, channel) : nullptr;
  return found ? ChannelRef(device, found) : nullptr;
}

void record_diagnostic(uint32_t handle, uint8_t channel, const LIN_EX_MSG& msg) {
  const auto device = device_of(handle);
  if (!device) return;
  const uint8_t slot = channel & 3;
  lin_lock(handle, slot);
  auto& buffer = device->diagnostics[slot];
  while (buffer.size() >= kDiagnosticBufferLimit) buffer.pop_front();
  buffer.push_back(msg);
  lin_unlock(handle, slot);
}

std::vector<LIN_EX_MSG> take_diagnostics(uint32_t handle, uint8_t channel, size_t max) {
  const auto device = device_of(handle);
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
