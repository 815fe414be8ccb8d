// LIN commands (0xF06-0xF14) of the virtual adapter's firmware; request fields big-endian,
// records little-endian as the host lays them out.
#include "sim/families/lin.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim/bus/serial_scene_text.h"
#include "sim/virtual_adapter.h"

namespace sim {
namespace {

enum : uint32_t {
  kInit = 0xF06,
  kSync = 0xF07,
  kSlaveSet = 0xF08,
  kFetch = 0xF09,
  kPower = 0xF0A,
  kBattery = 0xF0B,
  kScheduleStart = 0xF0C,
  kScheduleStop = 0xF0D,
  kScheduleGet = 0xF0E,
  kSlaveGet = 0xF0F,
  kRunTimes = 0xF10,
  kScheduleState = 0xF11,
  kStop = 0xF12,
  kResponseData = 0xF13,
  kResponseStop = 0xF14,
};
enum : uint8_t { kWrite = 1, kRead = 2, kSlave = 3, kSlaveChecked = 4, kBreak = 5 };
constexpr size_t kRecordSize = 20;
constexpr uint32_t kDefaultBreakBits = 13;

Packet refused(uint32_t command) {
  return reply_with(command, {1});
}

uint64_t frame_us(const LinFrame& frame, uint32_t baud) {
  return uint64_t(lin_frame_bits(frame)) * 1000000 / std::max(baud, 1u);
}

bool answers(const LinRecord& entry) {
  return (entry.type & 0x7F) == kSlave || entry.type == kSlaveChecked;
}

// The bytes a slave table entry sends: its data and the check byte the host put in it.
void answer_from_tables(LinModel& model, int sender, int bus, LinFrame& frame) {
  for (int ch = 0; ch < LinModel::kChannels; ++ch) {
    const auto& c = model.channels[size_t(ch)];
    if (ch == sender || !c.initialised || c.bus != bus) continue;
    auto it = c.slave_table.find(frame.pid);
    if (it == c.slave_table.end() || !answers(it->second)) continue;
    const LinRecord& e = it->second;
    lin_collide(frame, {e.data.begin(), e.data.begin() + std::min<int>(e.length, 8)}, e.check);
  }
}

constexpr uint8_t kMasterRequestPid = 0x3C, kSlaveResponsePid = 0x7D;  // 3C and 3D protected

// Diagnostic frames: master requests go to every control unit on the bus; a slave response header
// is answered by whichever unit has something to say (with the classic checksum).
void hear_request(LinModel& model, int bus, const LinFrame& frame) {
  if (frame.pid != kMasterRequestPid || frame.data.size() != 8) return;
  for (auto& ecu : model.ecus[size_t(bus)]) ecu->hear(frame.data);
}

void answer_from_ecus(LinModel& model, int bus, LinFrame& frame) {
  if (frame.pid != kSlaveResponsePid) return;
  for (auto& ecu : model.ecus[size_t(bus)])
    if (auto a = ecu->answer()) {
      uint8_t check = lin_checksum(frame.pid, a->data, false);
      lin_collide(frame, a->data, a->bad_checksum ? uint8_t(~check) : check);
    }
}

void answer_from_nodes(LinModel& model, int bus, LinFrame& frame) {
  for (const LinSlaveNode& node : model.nodes[size_t(bus)]) {
    if (lin_protected_id(node.id) != frame.pid || node.silent) continue;
    uint8_t check = lin_checksum(frame.pid, node.data, node.enhanced);
    if (node.wrong_checksum) check = uint8_t(~check);
    lin_collide(frame, node.data, check);
  }
}

// How every channel on the bus reports a frame.
LinRecord report(const LinFrame& frame) {
  LinRecord r;
  r.time_stamp = uint32_t(frame.end_us / 1000);
  r.pid = frame.pid;
  r.break_bits = frame.break_bits;
  if (frame.break_only) {
    r.type = kBreak;
    return r;
  }
  const size_t n = std::min<size_t>(frame.data.size(), 8);
  std::copy_n(frame.data.begin(), n, r.data.begin());
  if (n == 8) {
    r.type = 9;
    r.length = 8;
    r.check = frame.check;
  } else {
    r.type = 8;
    r.length = frame.answered ? uint8_t(n + 1) : 0;
    if (frame.answered) r.data[n] = frame.check;
  }
  return r;
}

// Plays one record of channel `sender` (-1: a master outside the adapter) on `bus` at `baud`,
// starting at `start_us`; every channel on the bus sees it. Returns the report and the device
// time at the frame's end.
LinRecord play_on_bus(LinModel& model, int sender, int bus, uint32_t baud, const LinRecord& request,
                      uint64_t start_us, uint64_t* end_us) {
  LinFrame frame;
  frame.pid = request.pid;
  frame.break_bits = request.break_bits ? request.break_bits : uint8_t(kDefaultBreakBits);
  frame.break_only = request.type == kBreak;
  if (request.type == kWrite || (request.type & 0x7F) == kSlave) {
    frame.answered = true;
    frame.data.assign(request.data.begin(),
                      request.data.begin() + std::min<int>(request.length, 8));
    frame.check = request.check;
    hear_request(model, bus, frame);
  } else if (request.type == kRead) {
    answer_from_tables(model, sender, bus, frame);
    answer_from_nodes(model, bus, frame);
    answer_from_ecus(model, bus, frame);
  }
  frame.end_us = start_us + frame_us(frame, baud);
  if (end_us) *end_us = frame.end_us;
  const LinRecord seen = report(frame);
  for (auto& c : model.channels)
    if (c.initialised && c.bus == bus) c.received.push_back(seen);
  return seen;
}

LinRecord play(LinModel& model, int ch, const LinRecord& request, uint64_t start_us,
               uint64_t* end_us = nullptr) {
  const LinModel::Channel& sender = model.channels[size_t(ch)];
  return play_on_bus(model, ch, sender.bus, sender.baud, request, start_us, end_us);
}

// The outside master's frames due by now, in the order they fall due, on each bus a channel
// listens to (at that channel's baud rate). A frame due while the master's previous one still
// holds the bus follows it; a bus nobody listens to carries them unheard.
void play_scene(LinModel& model, uint64_t now_us) {
  for (auto& f : model.scene)
    if (f.next_us == 0) f.next_us = now_us;
  for (;;) {
    auto due = std::min_element(model.scene.begin(), model.scene.end(),
                                [](auto& a, auto& b) { return a.next_us < b.next_us; });
    if (due == model.scene.end() || due->next_us > now_us) return;
    const uint64_t start = std::max(due->next_us, model.scene_free_us);
    std::array<bool, LinModel::kChannels> played{};
    for (const auto& c : model.channels) {
      if (!c.initialised || played[size_t(c.bus)]) continue;
      played[size_t(c.bus)] = true;
      uint64_t end_us = start;
      play_on_bus(model, -1, c.bus, c.baud, due->record, start, &end_us);
      model.scene_free_us = std::max(model.scene_free_us, end_us);
    }
    due->next_us += uint64_t(due->period_ms) * 1000;
  }
}

std::vector<LinModel::SceneFrame> scene_from_environment() {
  const char* text = std::getenv("VARNEL_SIM_LIN_TRAFFIC");
  if (!text || !*text) return {};
  std::string bad;
  const auto frames = scene_text::parse_lin_traffic(text, &bad);
  if (!frames) {
    std::fprintf(stderr, "varnel-sim: VARNEL_SIM_LIN_TRAFFIC: '%s' is not ID@MS or ID#DATA[!]@MS\n",
                 bad.c_str());
    return {};
  }
  std::vector<LinModel::SceneFrame> scene;
  for (const auto& f : *frames) {
    LinModel::SceneFrame s;
    s.record.type = f.write ? kWrite : kRead;
    s.record.pid = lin_protected_id(f.id);
    s.record.length = uint8_t(f.data.size());
    std::copy(f.data.begin(), f.data.end(), s.record.data.begin());
    const bool classic = f.id == 0x3C || f.id == 0x3D;
    s.record.check = lin_checksum(s.record.pid, f.data, !classic);
    if (f.bad_checksum) s.record.check = uint8_t(~s.record.check);
    s.period_ms = f.period_ms;
    scene.push_back(s);
  }
  return scene;
}

// Plays what every running schedule has due by now, each frame at its own time.
void catch_up(LinModel& model, uint64_t now_us) {
  play_scene(model, now_us);
  for (int ch = 0; ch < LinModel::kChannels; ++ch) {
    auto& c = model.channels[size_t(ch)];
    while (c.running && !c.schedule.empty() && c.next_us <= now_us) {
      const LinRecord& r = c.schedule[c.position];
      uint64_t end_us = c.next_us;
      play(model, ch, r, c.next_us, &end_us);
      // a slot lasts its interval, and never less than its frame
      c.next_us = std::max(c.next_us + uint64_t(r.time_stamp) * 1000, end_us);
      if (++c.repeats < std::max<uint8_t>(r.tag, 1)) continue;
      c.repeats = 0;
      if (++c.position < c.schedule.size()) continue;
      c.position = 0;
      if (c.run_times && ++c.runs >= c.run_times) c.running = false;
    }
  }
}

std::vector<LinRecord> records_of(const std::vector<uint8_t>& p, size_t from) {
  std::vector<LinRecord> out;
  for (size_t at = from; at + kRecordSize <= p.size(); at += kRecordSize)
    out.push_back(LinRecord::parse(&p[at]));
  return out;
}

Packet with_records(uint32_t command, const std::vector<LinRecord>& records) {
  std::vector<uint8_t> bytes;
  for (const auto& r : records) r.append_to(bytes);
  return reply_with(command, std::move(bytes));
}

// When a master's frames may start on a bus: now, or when the frames it is still playing end.
uint64_t bus_free_at(LinModel& model, int ch, uint64_t now_us) {
  return std::max(now_us, model.bus_busy_until_us[size_t(model.channels[size_t(ch)].bus)]);
}

// The reply to a command that put frames on the bus until `end_us`: it comes when they have ended,
// as the firmware answers only then, so a host polling the bus gets no more frames than it
// carries.
Packet after_bus_time(LinModel& model, int ch, uint64_t now_us, uint64_t end_us, Packet reply) {
  uint64_t& busy = model.bus_busy_until_us[size_t(model.channels[size_t(ch)].bus)];
  busy = std::max(busy, end_us);
  reply.after = std::chrono::microseconds(end_us > now_us ? end_us - now_us : 0);
  return reply;
}

// The records one after the other, each after its own delay; the reply comes when the last frame
// has ended.
Packet master_sync(VirtualAdapter& adapter, LinModel& model, int ch,
                   const std::vector<LinRecord>& requests) {
  const uint64_t now = adapter.clock().now_us();
  uint64_t at = bus_free_at(model, ch, now);
  std::vector<LinRecord> replies;
  for (const LinRecord& r : requests) {
    replies.push_back(play(model, ch, r, at + uint64_t(r.time_stamp) * 1000, &at));
    replies.back().tag = 0;
  }
  return after_bus_time(model, ch, now, at, with_records(kSync, replies));
}

Packet fetch(LinModel::Channel& c) {
  std::vector<LinRecord> out;
  while (!c.received.empty() && out.size() < LinModel::kFetchLimit) {
    out.push_back(c.received.front());
    c.received.pop_front();
  }
  return with_records(kFetch, out);
}

Packet schedule_state(const LinModel::Channel& c) {
  std::vector<uint8_t> state(28, 0);
  state[24] = c.running ? 1 : 0;
  return reply_with(kScheduleState, std::move(state));
}

void start_schedule(LinModel::Channel& c, std::vector<LinRecord> records, uint64_t now_us) {
  c.schedule = std::move(records);
  c.running = !c.schedule.empty();
  c.next_us = now_us;
  c.position = 0;
  c.repeats = c.runs = 0;
}

// Data for one identifier in pieces (0xF13): the pieces' bytes one after the other.
void set_response_data(LinModel::Channel& c, uint8_t pid, const std::vector<LinRecord>& pieces) {
  if (pieces.empty()) return;
  LinRecord entry = pieces.front();
  entry.pid = pid;
  entry.type = kSlave;
  c.slave_table[pid] = entry;
}

std::optional<Packet> channel_command(VirtualAdapter& adapter, LinModel& model, int ch,
                                      const Packet& request) {
  const auto& p = request.payload;
  LinModel::Channel& c = model.channels[size_t(ch)];
  switch (request.command) {
    case kInit:
      if (p.size() != 6 && p.size() != 18) return refused(kInit);
      c.baud = be32(p, 1);
      c.master = p[5] == 1;
      c.initialised = true;
      return reply_with(kInit);
    case kStop:
      c.initialised = c.running = false;
      return reply_with(kStop);
    case kSync:
      if (!c.initialised || (p.size() - 1) % kRecordSize) return refused(kSync);
      return master_sync(adapter, model, ch, records_of(p, 1));
    case kSlaveSet:
      for (const LinRecord& r : records_of(p, 1)) c.slave_table[r.pid] = r;
      return reply_with(kSlaveSet);
    case kSlaveGet: {
      std::vector<LinRecord> table;
      for (const auto& [pid, r] : c.slave_table) table.push_back(r);
      return with_records(kSlaveGet, table);
    }
    case kResponseData:
      if (p.size() < 6) return refused(kResponseData);
      set_response_data(c, p[1], records_of(p, 6));
      return reply_with(kResponseData);
    case kResponseStop:
      if (p.size() != 2) return refused(kResponseStop);
      c.slave_table.erase(p[1]);
      return reply_with(kResponseStop);
    case kFetch:
      return fetch(c);
    case kScheduleStart:
      if (!c.initialised) return refused(kScheduleStart);
      start_schedule(c, records_of(p, 1), adapter.clock().now_us());
      return reply_with(kScheduleStart);
    case kScheduleStop:
      c.running = false;
      return reply_with(kScheduleStop);
    case kScheduleGet:
      return with_records(kScheduleGet, c.schedule);
    case kRunTimes:
      if (p.size() != 5) return refused(kRunTimes);
      c.run_times = be32(p, 1);
      return reply_with(kRunTimes);
    case kScheduleState:
      return schedule_state(c);
    default:
      return refused(request.command);
  }
}

std::optional<Packet> handle_lin(VirtualAdapter& adapter, const Packet& request) {
  LinModel& model = lin_model(adapter);
  std::lock_guard guard(model.mutex);
  catch_up(model, adapter.clock().now_us());
  const auto& p = request.payload;
  if (request.command == kBattery)
    return reply_with(kBattery, {uint8_t(model.battery_mv >> 8), uint8_t(model.battery_mv)});
  if (request.command == kPower) {  // the level first, then the channel
    if (p.size() != 2 || p[1] >= LinModel::kChannels) return refused(kPower);
    model.channels[p[1]].power = p[0];
    return reply_with(kPower);
  }
  if (p.empty() || p[0] >= LinModel::kChannels) return refused(request.command);
  return channel_command(adapter, model, p[0], request);
}

// The older firmware's commands (0xF00-0xF05): two channels, 11-byte records (ID, length, data,
// check), the identifier's parity and the checksum computed here: classic for the diagnostic
// identifiers 3C and 3D, enhanced for the others.
constexpr size_t kOldRecordSize = 11;
enum : uint32_t { kOldInit = 0xF00, kOldWrite, kOldRead, kOldSlaveSet, kOldSlaveGet, kOldBreak };

LinRecord from_old(const uint8_t* r, uint8_t type) {
  LinRecord rec;
  rec.type = type;
  rec.pid = lin_protected_id(r[0]);
  rec.length = std::min<uint8_t>(r[1], 8);
  std::copy_n(r + 2, 8, rec.data.begin());
  const bool classic = (r[0] & 0x3F) == 0x3C || (r[0] & 0x3F) == 0x3D;
  rec.check = lin_checksum(rec.pid, {rec.data.begin(), rec.data.begin() + rec.length}, !classic);
  return rec;
}

void append_old(std::vector<uint8_t>& out, const LinRecord& r) {
  const int n = r.type == 9 ? 8 : std::max(r.length - 1, 0);
  out.push_back(r.pid);
  out.push_back(uint8_t(n ? n + 1 : 0));
  for (int i = 0; i < 8; ++i) out.push_back(i < n ? r.data[size_t(i)] : 0);
  out.push_back(r.type == 9 ? r.check : n ? r.data[size_t(n)] : 0);
}

std::optional<Packet> old_command(VirtualAdapter& adapter, LinModel& model, int ch,
                                  const Packet& request) {
  const auto& p = request.payload;
  LinModel::Channel& c = model.channels[size_t(ch)];
  const uint64_t now = adapter.clock().now_us();
  uint64_t at = bus_free_at(model, ch, now);
  std::vector<uint8_t> out;
  switch (request.command) {
    case kOldInit:
      if (p.size() != 8) return refused(kOldInit);
      c.baud = be32(p, 1);
      c.master = p[6] == 1;
      c.initialised = true;
      return reply_with(kOldInit);
    case kOldWrite:
      for (size_t i = 1; i + kOldRecordSize <= p.size(); i += kOldRecordSize)
        play(model, ch, from_old(&p[i], kWrite), at, &at);
      break;
    case kOldRead:
      for (size_t i = 1; i < p.size(); ++i) {
        LinRecord header;
        header.type = kRead;
        header.pid = lin_protected_id(p[i]);
        append_old(out, play(model, ch, header, at, &at));
      }
      break;
    case kOldSlaveSet:
      for (size_t i = 2; i + kOldRecordSize <= p.size(); i += kOldRecordSize) {
        LinRecord entry = from_old(&p[i], p[1] ? kSlaveChecked : kSlave);
        c.slave_table[entry.pid] = entry;
      }
      return reply_with(kOldSlaveSet);
    case kOldSlaveGet:
      while (!c.received.empty() && out.size() < LinModel::kFetchLimit * kOldRecordSize) {
        append_old(out, c.received.front());
        c.received.pop_front();
      }
      return reply_with(kOldSlaveGet, std::move(out));
    case kOldBreak: {
      LinRecord brk;
      brk.type = kBreak;
      play(model, ch, brk, at, &at);
      break;
    }
  }
  return after_bus_time(model, ch, now, at, reply_with(request.command, std::move(out)));
}

std::optional<Packet> handle_old_lin(VirtualAdapter& adapter, const Packet& request) {
  LinModel& model = lin_model(adapter);
  std::lock_guard guard(model.mutex);
  catch_up(model, adapter.clock().now_us());
  const auto& p = request.payload;
  if (p.empty() || p[0] >= 2) return refused(request.command);
  return old_command(adapter, model, p[0], request);
}

}  // namespace

LinRecord LinRecord::parse(const uint8_t* b) {
  LinRecord r;
  r.time_stamp = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
  r.type = b[4];
  r.check_type = b[5];
  r.length = b[6];
  r.sync = b[7];
  r.pid = b[8];
  std::copy_n(b + 9, 8, r.data.begin());
  r.check = b[17];
  r.break_bits = b[18];
  r.tag = b[19];
  return r;
}

void LinRecord::append_to(std::vector<uint8_t>& out) const {
  for (int i = 0; i < 4; ++i) out.push_back(uint8_t(time_stamp >> 8 * i));
  out.insert(out.end(), {type, check_type, length, sync, pid});
  out.insert(out.end(), data.begin(), data.end());
  out.insert(out.end(), {check, break_bits, tag});
}

LinModel::LinModel() {
  for (int ch = 0; ch < kChannels; ++ch) {
    channels[size_t(ch)].bus = ch;
    nodes[size_t(ch)].push_back({0x21, {0x11, 0x22, 0x33, 0x44}, true});
  }
  scene = scene_from_environment();
  ecus[0].push_back(std::make_shared<LinDiagnosticEcu>(0x10));
  ecus[0].push_back(std::make_shared<LinDiagnosticEcu>(0x20, LinDiagnosticEcu::Kind::kBootLoader));
  // the boot loader's key routine, for benches whose targets use another
  if (const char* name = std::getenv("VARNEL_SIM_LIN_KEY_ROUTINE"))
    if (auto routine = LinBootServer::key_routine_named(name))
      ecus[0].back()->boot().key_routine = routine;
}

void LinModel::join(int a, int b) {
  std::lock_guard guard(mutex);
  channels[size_t(b)].bus = channels[size_t(a)].bus;
}

LinModel& lin_model(VirtualAdapter& adapter) {
  return adapter.state<LinModel>();
}

void install_lin(VirtualAdapter& adapter) {
  adapter.on(kInit, kResponseStop, handle_lin);
  adapter.on(kOldInit, kOldBreak, handle_old_lin);
}

VARNEL_SIM_FAMILY(install_lin)

}  // namespace sim
