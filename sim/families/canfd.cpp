// CAN FD commands (0x4000 block) of the virtual adapter's firmware, on adapters whose handle has
// the top nibble 0x5.
//
// Device records in both directions: three big-endian words and the data.
//   word 0  identifier (extended: id bits 18-28 in bits 0-10, id bits 0-17 in bits 11-28;
//           standard: id bits 0-10, id bit 11 in bit 29)
//   word 1  bits 0-3 length code, 4 extended, 5 remote, 6 bit-rate switch, 7 FD format,
//           8 error-state indicator, 9-15 index in the send chunk (echoes), 16-23 time stamp
//           bits 32-39, 24 echo of a frame this channel sent; 0x55 in bits 25-31 marks an event
//   word 2  time stamp bits 0-31, in microseconds of the device clock
#include <algorithm>
#include <cstring>

#include "sim/families/can.h"

namespace sim {
namespace {

constexpr size_t kHeader = 12;
constexpr size_t kFetchBytes = 380000;

constexpr uint8_t kLengths[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};

uint8_t length_code(uint8_t len) {
  for (uint8_t code = 0; code < 16; ++code)
    if (kLengths[code] >= len) return code;
  return 15;
}

uint32_t clock_of(uint32_t handle) {
  const uint8_t top = uint8_t(handle >> 24);
  if (top == 0x53 || top == 0x54) return 40000000u;
  if (top == 0x55 || top == 0x56) return 160000000u;
  return 100000000u;
}

Packet refused(uint32_t command) {
  return reply_with(command, {1});
}

uint32_t word_at(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// Parses one host record; returns its size, 0 when it is cut short.
size_t parse_record(const uint8_t* p, size_t available, CanFrame& frame) {
  if (available < kHeader) return 0;
  const uint32_t word0 = word_at(p), word1 = word_at(p + 4);
  frame = {};
  frame.len = kLengths[word1 & 15];
  if (available < kHeader + frame.len) return 0;
  frame.extended = word1 & (1u << 4);
  frame.remote = word1 & (1u << 5);
  frame.brs = word1 & (1u << 6);
  frame.fd = word1 & (1u << 7);
  frame.esi = frame.fd && (word1 & (1u << 8));
  frame.id = frame.extended ? ((word0 & 0x7FF) << 18) | ((word0 >> 11) & 0x3FFFF)
                            : (word0 & 0x7FF) | (((word0 >> 29) & 1) << 11);
  std::memcpy(frame.data.data(), p + kHeader, frame.len);
  return kHeader + frame.len;
}

void put_word(std::vector<uint8_t>& out, uint32_t word) {
  append_be32(out, word);
}

void append_device_record(std::vector<uint8_t>& out, const CanRxRecord& rx, uint64_t device_us) {
  const uint32_t stamp_high = uint32_t(device_us >> 32) & 0xFF;
  if (rx.event) {
    put_word(out, 0xFFFFFFFFu);
    put_word(out, 0x55u << 25 | stamp_high << 16);
    put_word(out, uint32_t(device_us));
    out.insert(out.end(), rx.frame.data.begin(), rx.frame.data.begin() + 8);
    return;
  }
  const CanFrame& f = rx.frame;
  const uint8_t code = length_code(f.len);
  const uint32_t word0 = f.extended ? ((f.id >> 18) & 0x7FF) | ((f.id & 0x3FFFF) << 11)
                                    : (f.id & 0x7FF) | (((f.id >> 11) & 1) << 29);
  uint32_t word1 = code | (f.extended ? 1u << 4 : 0) | (f.remote ? 1u << 5 : 0) |
                   (f.brs ? 1u << 6 : 0) | (f.fd ? 1u << 7 : 0) | (f.esi ? 1u << 8 : 0) |
                   stamp_high << 16;
  if (rx.echo) word1 |= uint32_t(rx.echo_index & 0x7F) << 9 | 1u << 24;
  put_word(out, word0);
  put_word(out, word1);
  put_word(out, uint32_t(device_us));
  out.insert(out.end(), f.data.begin(), f.data.begin() + kLengths[code]);
}

std::optional<Packet> handle_canfd(VirtualAdapter& adapter, const Packet& request) {
  const auto& in = request.payload;
  const uint32_t command = request.command;
  if (command == 0x4008) return handle_can_services(adapter, request);  // no channel byte
  if (in.empty()) return refused(command);
  const uint8_t channel = in[0];
  auto controller = can_controller(adapter, channel);
  if (!controller) return refused(command);
  CanModel& model = can_model(adapter);
  switch (command) {
    case 0x4000: {  // init: channel, 20-byte record
      if (in.size() != 21) return refused(command);
      const uint8_t* c = in.data() + 1;
      const uint32_t clock = clock_of(adapter.handle());
      if (c[4] == 0) return refused(command);
      CanBitTiming timing;
      timing.nominal_bps = clock / (uint32_t(c[4]) * (1u + c[5] + c[6]));
      if (c[8]) timing.data_bps = clock / (uint32_t(c[8]) * (1u + c[9] + c[10]));
      controller->start(timing, c[0] & 3, model.buses[in[0]]);
      return reply_with(command);
    }
    case 0x4002: {  // send a chunk of device records
      CanModel::Chunk chunk;
      size_t at = 1;
      CanFrame frame;
      while (size_t used = parse_record(in.data() + at, in.size() - at, frame)) {
        const uint8_t index = uint8_t((word_at(in.data() + at + 4) >> 9) & 0x7F);
        ++chunk.count;
        if (!model.stall_sends && !chunk.gave_up) {
          if (controller->send(frame, index)) {
            ++chunk.sent;
            std::array<uint8_t, 12> header;
            std::memcpy(header.data(), in.data() + at, 12);
            chunk.headers.push_back(header);
          } else {
            chunk.gave_up = 1;
          }
        }
        at += used;
      }
      std::vector<uint8_t> out;
      append_be32(out, chunk.count);
      std::lock_guard guard(model.mutex);
      model.chunks[channel] = std::move(chunk);
      return reply_with(command, out);
    }
    case 0x400B: {  // timed send: word 2 of each record is the gap (us) kept after the frame
      uint32_t accepted = 0;
      uint64_t earliest = 0;
      size_t at = 1;
      CanFrame frame;
      while (size_t used = parse_record(in.data() + at, in.size() - at, frame)) {
        if (!controller->started()) break;
        const uint32_t word1 = word_at(in.data() + at + 4);
        uint64_t end_us = 0;
        controller->send(frame, uint8_t((word1 >> 9) & 0x7F), earliest, &end_us);
        earliest = end_us + word_at(in.data() + at + 8);
        ++accepted;
        at += used;
      }
      std::vector<uint8_t> out;
      append_be32(out, accepted);
      return reply_with(command, out);
    }
    case 0x400A: {  // send progress: count, 0, sent, gave up
      std::lock_guard guard(model.mutex);
      const auto& chunk = model.chunks[channel];
      return reply_with(command, {chunk.count, 0, chunk.sent, chunk.gave_up});
    }
    case 0x4009: {  // abandon the chunk: the headers of the frames that went out
      std::lock_guard guard(model.mutex);
      std::vector<uint8_t> out;
      for (auto& header : model.chunks[channel].headers)
        out.insert(out.end(), header.begin(), header.end());
      model.chunks[channel] = {};
      return reply_with(command, out);
    }
    case 0x4003: {  // fetch: as many records as fit the host's area
      auto bus = controller->bus();
      std::vector<uint8_t> out;
      size_t limit = model.fetch_limit[channel];
      // records are at most 76 bytes: a fetch of `limit` records always fits the host's area
      // and one reply on this carrier (the rest stays queued for the next fetch)
      limit = std::min({limit, kFetchBytes / 76, adapter.reply_limit() / 76});
      for (auto& rx : controller->take(limit))
        append_device_record(out, rx, can_device_time_us(adapter, bus.get(), rx.bus_end_us));
      return reply_with(command, std::move(out));
    }
    case 0x4005:  // error counters: transmit, receive, 0, 0
      return reply_with(command, {controller->tec(), controller->rec(), 0, 0});
    case 0x400C:
      controller->stop();
      return reply_with(command);
    default:
      return handle_can_services(adapter, request);
  }
}

}  // namespace

void install_canfd(VirtualAdapter& adapter) {
  if ((adapter.handle() & 0xF0000000u) != 0x50000000u) return;
  adapter.on(0x4000, 0x40FF, handle_canfd);
}

VARNEL_SIM_FAMILY(install_canfd)

}  // namespace sim
