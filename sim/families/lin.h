// The virtual adapter's LIN firmware: eight channels, each on a virtual LIN bus of its own unless a
// test joins two (join), with slave nodes on the buses. Commands 0xF06-0xF14: init and stop, the
// master exchange (records played one after the other in bus time, from when the bus is free; the
// reply comes when the last frame has ended, in the host's time as on a real bus), schedules
// played in bus time whenever a LIN command comes, the slave table that answers headers from
// another channel on the bus, and the frames every channel saw.
// Records are the 20-byte frame records of the interface; the firmware reports a frame with fewer
// than 8 data bytes as kind 8 (its checksum after the data) and one of 8 as kind 9.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/bus/lin_bus.h"
#include "sim/ecu/lin_diag_ecu.h"

namespace sim {

class VirtualAdapter;

struct LinRecord {
  uint32_t time_stamp = 0;
  uint8_t type = 0, check_type = 0, length = 0, sync = 0x55, pid = 0;
  std::array<uint8_t, 8> data{};
  uint8_t check = 0, break_bits = 13, tag = 0;

  static LinRecord parse(const uint8_t* bytes);
  void append_to(std::vector<uint8_t>& out) const;
};

struct LinModel {
  static constexpr int kChannels = 8;
  static constexpr size_t kFetchLimit = 512;
  struct Channel {
    bool initialised = false;
    bool master = false;
    uint32_t baud = 19200;
    uint8_t power = 0;
    int bus = 0;
    std::map<uint8_t, LinRecord> slave_table;  // by protected identifier
    std::deque<LinRecord> received;            // what 0xF09 hands out
    // the schedule
    std::vector<LinRecord> schedule;
    uint32_t run_times = 0;  // 0: until stopped
    bool running = false;
    uint64_t next_us = 0;
    size_t position = 0;
    uint32_t repeats = 0, runs = 0;
  };
  std::mutex mutex;
  std::array<Channel, kChannels> channels;
  std::array<std::vector<LinSlaveNode>, kChannels> nodes;  // the slave nodes of each bus
  // Diagnostic control units on each bus (one with NAD 10 on bus 0 to begin with).
  std::array<std::vector<std::shared_ptr<LinDiagnosticEcu>>, kChannels> ecus;
  uint16_t battery_mv = 12000;
  // Device time at which the frames a master command put on each bus end.
  std::array<uint64_t, kChannels> bus_busy_until_us{};
  // A master outside the adapter playing these frames on every bus that a channel listens to
  // (VARNEL_SIM_LIN_TRAFFIC, sim/bus/serial_scene_text.h), each at its own period, one after
  // the other.
  struct SceneFrame {
    LinRecord record;  // a read header or a write with its check byte
    uint32_t period_ms = 0;
    uint64_t next_us = 0;  // 0: from the next command on
  };
  std::vector<SceneFrame> scene;
  uint64_t scene_free_us = 0;  // the end of the outside master's last frame

  LinModel();
  // Puts channel b on channel a's bus.
  void join(int a, int b);
};

LinModel& lin_model(VirtualAdapter& adapter);

}  // namespace sim
