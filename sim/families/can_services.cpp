// What a CAN channel of the virtual firmware runs on its own: acceptance filters, cyclic send
// schedules and the relay. Defined by this firmware where the host library leaves it open:
// - a schedule table's 2-byte value is its period in ms (little-endian); each record's time stamp
//   is its offset in ms within the period; frames go out on the bus in bus time;
// - start takes the table (0xFF: all), the number of periods (0: no end) and an option byte (0);
// - the relay forwards every frame a channel keeps to the other channel when the two channels sit
//   on different buses (on one bus the frame is there already).
#include <algorithm>
#include <cstring>

#include "sim/families/can.h"

namespace sim {

struct ScheduleTable {
  uint64_t period_us = 0;
  std::vector<CanFrame> frames;
  std::vector<uint64_t> offsets_us;
};

// Plays a channel's tables through its controller as bus time passes (whenever a controller on
// the bus fetches), frame by frame in the order of their due times.
class SchedulePlayer : public CanNode {
 public:
  explicit SchedulePlayer(std::weak_ptr<CanController> controller) : controller_(controller) {}

  void load(std::vector<ScheduleTable> tables) {
    std::lock_guard guard(mutex_);
    tables_ = std::move(tables);
    due_.clear();
  }
  bool update(size_t table, size_t first, const std::vector<std::pair<CanFrame, uint64_t>>& in) {
    std::lock_guard guard(mutex_);
    if (table >= tables_.size() || first + in.size() > tables_[table].frames.size()) return false;
    for (size_t i = 0; i < in.size(); ++i) {
      tables_[table].frames[first + i] = in[i].first;
      tables_[table].offsets_us[first + i] = in[i].second;
    }
    return true;
  }
  bool start(uint8_t table, uint8_t periods, uint64_t now_us) {
    std::lock_guard guard(mutex_);
    if (table != 0xFF && table >= tables_.size()) return false;
    due_.clear();
    for (size_t t = 0; t < tables_.size(); ++t) {
      if ((table != 0xFF && t != table) || tables_[t].period_us == 0) continue;
      for (size_t f = 0; f < tables_[t].frames.size(); ++f)
        due_.push_back({t, f, now_us + tables_[t].offsets_us[f], periods});
    }
    return true;
  }
  void stop() {
    std::lock_guard guard(mutex_);
    due_.clear();
  }

  bool deliver(const CanFrame&, uint64_t, const CanBitTiming&) override { return false; }

  void run_due(CanBus&, uint64_t now_us) override {
    auto controller = controller_.lock();
    if (!controller) return;
    std::lock_guard guard(mutex_);
    for (size_t budget = 100000; budget > 0; --budget) {
      auto next = std::min_element(due_.begin(), due_.end(),
                                   [](const Due& a, const Due& b) { return a.at_us < b.at_us; });
      if (next == due_.end() || next->at_us > now_us) break;
      controller->send(tables_[next->table].frames[next->frame], 0, next->at_us);
      next->at_us += tables_[next->table].period_us;
      if (next->remaining && --next->remaining == 0) due_.erase(next);
    }
  }

 private:
  struct Due {
    size_t table, frame;
    uint64_t at_us;
    uint8_t remaining;  // periods left; 0: no end
  };
  std::weak_ptr<CanController> controller_;
  std::mutex mutex_;
  std::vector<ScheduleTable> tables_;
  std::vector<Due> due_;
};

namespace {

constexpr size_t kClassicRecord = 20, kFdRecord = 76, kFdUpdateRecord = 80;

uint32_t le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint32_t be32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// A host CANFD_MSG record (76 bytes) as a bus frame.
CanFrame fd_frame_of(const uint8_t* record) {
  CanFrame frame;
  const uint32_t id = le32(record);
  frame.id = id & 0x1FFFFFFF;
  frame.extended = id >> 31;
  frame.remote = (id >> 30) & 1;
  frame.len = std::min<uint8_t>(record[4], 64);
  frame.fd = (record[5] & 0x04) || frame.len > 8;
  frame.brs = frame.fd && (record[5] & 0x01);
  std::memcpy(frame.data.data(), record + 12, frame.len);
  return frame;
}

// Record n of a schedule payload: the frame and its offset (the time stamp, ms).
std::pair<CanFrame, uint64_t> scheduled(const uint8_t* record, bool fd) {
  return fd ? std::pair{fd_frame_of(record), uint64_t(le32(record + 8)) * 1000}
            : std::pair{classic_frame_of(record), uint64_t(le32(record + 4)) * 1000};
}

// The register a received frame is compared in: standard identifier in bits 31-21, an extended
// one in bits 31-3, IDE bit 2, RTR bit 1.
uint32_t frame_register(const CanFrame& f) {
  const uint32_t id = f.extended ? (f.id >> 18) << 21 | (f.id & 0x3FFFF) << 3 : f.id << 21;
  return id | uint32_t(f.extended) << 2 | uint32_t(f.remote) << 1;
}

bool accepts(CanModel& model, int channel, bool fd, const CanFrame& frame) {
  std::lock_guard guard(model.filter_mutex);
  bool any = false;
  if (fd) {
    const uint32_t word = frame.id | uint32_t(frame.extended) << 31 | uint32_t(frame.remote) << 30;
    for (const auto& f : model.fd_filters[size_t(channel)]) {
      if (!f.enabled) continue;
      any = true;
      if ((word & f.mask) == (f.id & f.mask)) return true;
    }
    return !any;
  }
  const uint32_t reg = frame_register(frame);
  for (size_t b = size_t(channel) * 14; b < size_t(channel) * 14 + 14; ++b) {
    const auto& bank = model.banks[b];
    if (!bank.enabled) continue;
    any = true;
    // list mode compares the first register whole; mask mode the bits the second one sets
    if (bank.list ? reg == bank.r1 : (reg & bank.r2) == (bank.r1 & bank.r2)) return true;
  }
  return !any;
}

SchedulePlayer& player(CanModel& model, int channel) {
  std::lock_guard guard(model.mutex);
  auto& p = model.players[size_t(channel)];
  if (!p) p = std::make_shared<SchedulePlayer>(model.channels[size_t(channel)]);
  return *p;
}

std::optional<Packet> set_schedule(CanModel& model, const Packet& request, bool fd) {
  const auto& in = request.payload;
  const size_t record = fd ? kFdRecord : kClassicRecord;
  if (in.size() < 2) return reply_with(request.command, {1});
  const size_t tables = in[1];
  size_t total = 0;
  for (size_t t = 0; t < tables && 2 + t < in.size(); ++t) total += in[2 + t];
  const size_t records_at = 2 + 3 * tables;
  if (in.size() != records_at + total * record) return reply_with(request.command, {1});
  std::vector<ScheduleTable> loaded(tables);
  const uint8_t* next = in.data() + records_at;
  for (size_t t = 0; t < tables; ++t) {
    const uint8_t* value = in.data() + 2 + tables + 2 * t;
    loaded[t].period_us = uint64_t(value[0] | value[1] << 8) * 1000;
    for (size_t i = 0; i < in[2 + t]; ++i, next += record) {
      auto [frame, offset] = scheduled(next, fd);
      loaded[t].frames.push_back(frame);
      loaded[t].offsets_us.push_back(offset);
    }
  }
  player(model, in[0]).load(std::move(loaded));
  return reply_with(request.command);
}

std::optional<Packet> update_schedule(CanModel& model, const Packet& request, bool fd) {
  const auto& in = request.payload;
  const size_t record = fd ? kFdUpdateRecord : kClassicRecord;
  if (in.size() < 3 || (in.size() - 3) % record) return reply_with(request.command, {1});
  std::vector<std::pair<CanFrame, uint64_t>> records;
  for (size_t at = 3; at < in.size(); at += record) records.push_back(scheduled(&in[at], fd));
  if (!player(model, in[0]).update(in[1], in[2], records)) return reply_with(request.command, {1});
  return reply_with(request.command);
}

std::optional<Packet> start_schedule(CanModel& model, const Packet& request) {
  const auto& in = request.payload;
  auto controller = model.channels[in[0]];
  auto bus = controller->bus();
  if (in.size() != 4 || !controller->started() || !bus) return reply_with(request.command, {1});
  auto& p = player(model, in[0]);
  std::shared_ptr<SchedulePlayer> node = model.players[in[0]];
  bus->attach(node);  // runs with the bus's catch-up
  if (!p.start(in[1], in[2], bus->now_us())) return reply_with(request.command, {1});
  return reply_with(request.command);
}

std::optional<Packet> set_classic_filter(CanModel& model, const Packet& request) {
  const auto& in = request.payload;
  if (in.size() != 14 || in[1] >= model.banks.size()) return reply_with(request.command, {1});
  std::lock_guard guard(model.filter_mutex);
  model.banks[in[1]] = {in[13] == 1, in[2] == 1, be32(&in[4]), be32(&in[8])};
  return reply_with(request.command);
}

std::optional<Packet> set_fd_filters(CanModel& model, const Packet& request) {
  const auto& in = request.payload;
  if (in.size() < 2 || in.size() != 2 + size_t(in[1]) * 10) return reply_with(request.command, {1});
  std::lock_guard guard(model.filter_mutex);
  for (size_t at = 2; at < in.size(); at += 10) {
    if (in[at + 1] >= 14) return reply_with(request.command, {1});
    model.fd_filters[in[0]][in[at + 1]] = {in[at] == 1, be32(&in[at + 2]), be32(&in[at + 6])};
  }
  return reply_with(request.command);
}

}  // namespace

void attach_can_services(CanModel& model, int channel) {
  auto& controller = model.channels[size_t(channel)];
  const bool fd = controller->kind() == CanController::Kind::kFd;
  controller->set_acceptance(
      [&model, channel, fd](const CanFrame& frame) { return accepts(model, channel, fd, frame); });
  controller->set_listener([&model, channel](const CanFrame& frame) {
    if (!model.relay) return;
    auto self = model.channels[size_t(channel)], other = model.channels[size_t(1 - channel)];
    if (other->started() && other->bus() != self->bus()) other->send(frame);
  });
}

std::optional<Packet> handle_can_services(VirtualAdapter& adapter, const Packet& request) {
  CanModel& model = can_model(adapter);
  const auto& in = request.payload;
  const uint32_t command = request.command;
  if (command == 0x0C07 || command == 0x4008) {  // relay: the state, echoed
    if (in.size() != 1) return reply_with(command, {});
    model.relay = in[0] == 1;
    return reply_with(command, {in[0]});
  }
  if (in.empty() || in[0] > 1) return reply_with(command, {1});
  switch (command) {
    case 0x0C01:
      return set_classic_filter(model, request);
    case 0x4001:
      return set_fd_filters(model, request);
    case 0x0C08:
    case 0x400D:
      return set_schedule(model, request, command == 0x400D);
    case 0x0C0D:
    case 0x400E:
      return update_schedule(model, request, command == 0x400E);
    case 0x0C05:
    case 0x4006:
      return start_schedule(model, request);
    case 0x0C06:
    case 0x4007:
      player(model, in[0]).stop();
      return reply_with(command);
    default:
      return std::nullopt;
  }
}

}  // namespace sim
