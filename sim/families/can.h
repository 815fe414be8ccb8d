// The CAN firmware model of a virtual adapter: one controller per channel (CAN FD controllers on
// adapters whose handle has the top nibble 0x5, classic ones elsewhere) on the virtual CAN bus.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/bus/can_bus.h"
#include "sim/virtual_adapter.h"

namespace sim {

class SchedulePlayer;

struct CanModel {
  std::array<std::shared_ptr<CanController>, 2> channels;
  std::mutex mutex;
  // The bus each channel joins at init (null: the default bus). A test gives a channel a bus of
  // its own to see the relay forward.
  std::array<std::shared_ptr<CanBus>, 2> buses;
  // Acceptance filters. Classic: 28 banks, 14 per channel (bank = index + 14 x channel), each two
  // 32-bit registers in the layout of the filter command; CAN FD: 14 entries per channel.
  struct Bank {
    bool enabled = false, list = false;
    uint32_t r1 = 0, r2 = 0;
  };
  struct FdFilter {
    bool enabled = false;
    uint32_t id = 0, mask = 0;
  };
  std::mutex filter_mutex;
  std::array<Bank, 28> banks;
  std::array<std::array<FdFilter, 14>, 2> fd_filters;
  std::atomic<bool> relay{false};
  std::array<std::shared_ptr<SchedulePlayer>, 2> players;
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

// A classic host record (20 bytes, as CAN_MSG lies in memory) as a bus frame.
CanFrame classic_frame_of(const uint8_t* record);

// Filters, schedules and the relay (can_services.cpp): the commands of both blocks that the
// send/receive handlers leave to it; nullopt for any other command.
std::optional<Packet> handle_can_services(VirtualAdapter& adapter, const Packet& request);
// Installs the channel's acceptance filter and relay on a new controller.
void attach_can_services(CanModel& model, int channel);

void install_can(VirtualAdapter& adapter);
void install_canfd(VirtualAdapter& adapter);

}  // namespace sim
