// The CAN firmware model of a virtual adapter: one controller per channel (CAN FD controllers on
// adapters whose handle has the top nibble 0x5, classic ones elsewhere) on the virtual CAN bus.
#pragma once

#include <array>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/bus/can_bus.h"
#include "sim/virtual_adapter.h"

namespace sim {

struct CanModel {
  std::array<std::shared_ptr<CanController>, 2> channels;
  std::mutex mutex;
  // The chunk of the last synchronous (classic) or CAN FD send, for the completion polls.
  struct Chunk {
    uint8_t count = 0;
    uint8_t sent = 0;
    uint8_t gave_up = 0;
    std::vector<std::array<uint8_t, 12>> headers;  // CAN FD: headers of the frames that went out
  };
  std::array<Chunk, 2> chunks;
  // Most records one fetch returns. Tests raise it to make the firmware misbehave.
  std::array<size_t, 2> fetch_limit{5000, 5000};
  // CAN FD sends stay pending (never complete) while set: the host's time-out path.
  bool stall_sends = false;
};

// The adapter's CAN model; its controllers are made on first use.
CanModel& can_model(VirtualAdapter& adapter);
// Null for a channel other than 0 and 1.
std::shared_ptr<CanController> can_controller(VirtualAdapter& adapter, int channel);

// Device time of a frame that ended at bus time `end_us`, in microseconds of the adapter's
// clock (the clock command 0x15 reports in milliseconds).
uint64_t can_device_time_us(VirtualAdapter& adapter, const CanBus* bus, uint64_t end_us);

void install_can(VirtualAdapter& adapter);
void install_canfd(VirtualAdapter& adapter);

}  // namespace sim
