// Classic CAN commands (0x0C00 block) of the virtual adapter's firmware.
//
// Records go raw: 20 bytes, little-endian, as the host lays them out. Time stamps count 10 us
// of the device clock (40 bits: TimeStamp and TimeStampHigh).
#include "sim/families/can.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "sim/families/device.h"

namespace sim {
namespace {

constexpr size_t kRecord = 20;

bool is_fd_adapter(uint32_t handle) {
  return (handle & 0xF0000000u) == 0x50000000u;
}

uint32_t classic_clock(uint32_t handle) {
  return (handle >> 28) == 0x3 ? 100000000u : 42000000u;
}

Packet refused(uint32_t command) {
  return reply_with(command, {1});  // a status above 0: the firmware says no
}

uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

}  // namespace

CanFrame classic_frame_of(const uint8_t* record) {
  CanFrame frame;
  frame.id = le32(record) & 0x1FFFFFFF;
  frame.remote = record[8] & 1;
  frame.extended = record[9] & 1;
  frame.len = std::min<uint8_t>(record[10], 8);
  std::memcpy(frame.data.data(), record + 11, 8);
  return frame;
}

namespace {

void append_record(std::vector<uint8_t>& out, const CanRxRecord& rx, uint64_t device_us) {
  const uint64_t stamp = device_us / 10;
  uint8_t record[kRecord] = {};
  const uint32_t id = rx.frame.id;
  for (int i = 0; i < 4; ++i) record[i] = uint8_t(id >> (8 * i));
  for (int i = 0; i < 4; ++i) record[4 + i] = uint8_t(stamp >> (8 * i));
  record[8] = rx.frame.remote ? 1 : 0;
  record[9] = rx.frame.extended ? 1 : 0;
  record[10] = std::min<uint8_t>(rx.frame.len, 8);
  std::memcpy(record + 11, rx.frame.data.data(), 8);
  record[19] = uint8_t(stamp >> 32);
  out.insert(out.end(), record, record + kRecord);
}

std::optional<Packet> handle_can(VirtualAdapter& adapter, const Packet& request) {
  const auto& in = request.payload;
  const uint32_t command = request.command;
  if (command == 0x0C07) return handle_can_services(adapter, request);  // no channel byte
  if (in.empty()) return refused(command);
  const uint8_t channel = command == 0x0C0A ? (in.size() >= 12 ? in[10] : 2) : in[0];
  auto controller = can_controller(adapter, channel);
  if (!controller) return refused(command);
  CanModel& model = can_model(adapter);
  switch (command) {
    case 0x0C00: {  // init
      if (in.size() != 13) return refused(command);
      const uint32_t prescaler = uint32_t(in[11]) << 8 | in[12];
      const uint32_t quanta = 1 + (in[9] + 1) + (in[10] + 1);
      if (prescaler == 0) return refused(command);
      controller->start({classic_clock(adapter.handle()) / (prescaler * quanta), 0}, in[7] & 3,
                        model.buses[channel]);
      return reply_with(command);
    }
    case 0x0C02:    // send
    case 0x0C0C: {  // send keeping the gap in each record's time stamp (us) after the frame
      const size_t n = (in.size() - 1) / kRecord;
      if (!controller->started()) return reply_with(command, {0, 0, 0, 0});
      uint64_t earliest = 0;
      for (size_t i = 0; i < n; ++i) {
        const uint8_t* record = in.data() + 1 + i * kRecord;
        uint64_t end_us = 0;
        controller->send(classic_frame_of(record), 0, earliest, &end_us);
        if (command == 0x0C0C) earliest = end_us + le32(record + 4);
      }
      std::vector<uint8_t> out;
      append_be32(out, uint32_t(n));
      return reply_with(command, out);
    }
    case 0x0C0A: {  // synchronous send: 12-byte header, then the records
      const size_t n = std::min<size_t>(in[11], (in.size() - 12) / kRecord);
      uint8_t sent = 0, gave_up = 0;
      for (size_t i = 0; i < n && !gave_up; ++i) {
        if (controller->send(classic_frame_of(in.data() + 12 + i * kRecord)))
          ++sent;
        else
          gave_up = 1;
      }
      {
        std::lock_guard guard(model.mutex);
        model.chunks[channel] = {uint8_t(n), sent, gave_up, {}};
      }
      std::vector<uint8_t> out;
      append_be32(out, uint32_t(n));
      return reply_with(command, out);
    }
    case 0x0C0B: {  // synchronous send progress: count, 0, sent, gave up
      std::lock_guard guard(model.mutex);
      const auto& chunk = model.chunks[channel];
      return reply_with(command, {chunk.count, 0, chunk.sent, chunk.gave_up});
    }
    case 0x0C03: {  // fetch received frames
      // whole records only, as many as one reply on this carrier can carry
      auto records =
          controller->take(std::min(model.fetch_limit[channel], adapter.reply_limit() / kRecord));
      std::vector<uint8_t> out;
      out.reserve(records.size() * kRecord);
      auto bus = controller->bus();
      for (auto& rx : records)
        if (!rx.event)
          append_record(out, rx, can_device_time_us(adapter, bus.get(), rx.bus_end_us));
      return reply_with(command, std::move(out));
    }
    case 0x0C04: {  // status: controller word, error word
      const uint8_t tec = controller->tec(), rec = controller->rec();
      const uint32_t flags = (tec >= 96 || rec >= 96 ? 1u : 0u) |
                             (tec >= 128 || rec >= 128 ? 2u : 0u) |
                             (controller->bus_off() ? 4u : 0u);
      const uint32_t error = uint32_t(rec) << 24 | uint32_t(tec) << 16 |
                             uint32_t(controller->last_error()) << 4 | flags;
      std::vector<uint8_t> out;
      append_be32(out, controller->started() ? 1u : 0u);
      append_be32(out, error);
      return reply_with(command, out);
    }
    case 0x0C09:  // stop
      controller->stop();
      return reply_with(command);
    default:
      return handle_can_services(adapter, request);
  }
}

}  // namespace

CanModel& can_model(VirtualAdapter& adapter) {
  CanModel& model = adapter.state<CanModel>();
  std::lock_guard guard(model.mutex);
  if (!model.channels[0]) {
    const auto kind =
        is_fd_adapter(adapter.handle()) ? CanController::Kind::kFd : CanController::Kind::kClassic;
    for (int ch = 0; ch < 2; ++ch) {
      model.channels[size_t(ch)] = std::make_shared<CanController>(kind);
      attach_can_services(model, ch);
    }
  }
  return model;
}

std::shared_ptr<CanController> can_controller(VirtualAdapter& adapter, int channel) {
  if (channel < 0 || channel > 1) return nullptr;
  return can_model(adapter).channels[size_t(channel)];
}

// Both clocks are read at one instant: read one after the other, the time between the reads
// (long on a loaded host) would shift every time stamp by a different amount.
uint64_t can_device_time_us(VirtualAdapter& adapter, const CanBus* bus, uint64_t end_us) {
  const auto instant = std::chrono::steady_clock::now();
  const uint64_t device_now = device_time_us(adapter, instant);
  const uint64_t bus_now = bus ? bus->at_us(instant) : end_us;
  if (end_us >= bus_now) return device_now + (end_us - bus_now);
  return device_now > bus_now - end_us ? device_now - (bus_now - end_us) : 0;
}

void install_can(VirtualAdapter& adapter) {
  if (is_fd_adapter(adapter.handle())) return;  // these carry the classic calls through CAN FD
  adapter.on(0x0C00, 0x0CFF, handle_can);
}

VARNEL_SIM_FAMILY(install_can)

}  // namespace sim
