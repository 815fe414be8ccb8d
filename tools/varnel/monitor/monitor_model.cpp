#include "monitor/monitor_model.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "monitor/json_text.h"

namespace varnel_cli::monitor {

void SignalDecimator::add(uint64_t at_us, double value) {
  if (std::isnan(value)) return;  // a multiplexed signal the frame does not carry
  if (pending_.count++ == 0) {
    pending_.at_us = at_us;
    pending_.min = pending_.max = value;
  }
  pending_.min = std::min(pending_.min, value);
  pending_.max = std::max(pending_.max, value);
  pending_.last = value;
}

std::optional<SignalDecimator::Point> SignalDecimator::take() {
  if (pending_.count == 0) return std::nullopt;
  const Point point = pending_;
  pending_ = {};
  return point;
}

MonitorModel::ChannelState::ChannelState(const ChannelInfo& info, const MonitorLimits& limits)
    : load(info.bitrate, info.data_bitrate, limits.load_window_us, limits.stuffing) {}

MonitorModel::MonitorModel(std::vector<ChannelInfo> channels, DBC_HANDLE db, MonitorLimits limits)
    : channels_(std::move(channels)), db_(db), limits_(limits) {
  for (const auto& info : channels_) state_.emplace_back(info, limits_);
  trace_.resize(limits_.trace_rows_per_update);
}

namespace {

// The units of every signal, read from the database's description ("  Speed: start 0 ...
// unit \"km/h\"" under the message's line), the one public call that names them.
std::map<std::string, std::map<std::string, std::string>> units_of(DBC_HANDLE db) {
  std::map<std::string, std::map<std::string, std::string>> units;
  const int size = VARNEL_DbcDescribe(db, nullptr, 0);
  if (size <= 0) return units;
  std::string text(size_t(size) + 1, '\0');
  VARNEL_DbcDescribe(db, text.data(), int(text.size()));
  std::string message;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(at, end - at);
    at = end + 1;
    if (!line.empty() && line[0] != ' ') {
      message = line.substr(0, line.find("  0x"));
      continue;
    }
    const size_t colon = line.find(": start "), unit = line.rfind(" unit \"");
    if (line.rfind("  ", 0) != 0 || line[2] == ' ' || colon == std::string::npos ||
        unit == std::string::npos || line.back() != '"')
      continue;
    units[message][line.substr(2, colon - 2)] = line.substr(unit + 7, line.size() - unit - 8);
  }
  return units;
}

}  // namespace

const MonitorModel::MessageMeta& MonitorModel::message_of(uint32_t msg_id) {
  auto found = messages_.find(msg_id);
  if (found != messages_.end()) return found->second;
  MessageMeta& meta = messages_[msg_id];
  char name[VARNEL_DBC_TEXT_MAX];
  // look-ups compare 29 bits: a standard frame must not take an extended message's name
  if (!db_ || DBC_GetMsgNameByID(db_, msg_id, name) != 0 ||
      uint32_t(DBC_GetMsgIDByName(db_, name)) != msg_id)
    return meta;
  static std::map<DBC_HANDLE, std::map<std::string, std::map<std::string, std::string>>> units;
  if (!units.count(db_)) units[db_] = units_of(db_);
  meta.known = true;
  meta.name = name;
  const int count = DBC_GetMsgSignalQuantity(db_, name);
  for (int i = 0; i < count; ++i) {
    char signal[VARNEL_DBC_TEXT_MAX];
    if (DBC_GetMsgSignalName(db_, name, uint32_t(i), signal) != 0) break;
    meta.signals.push_back({signal, units[db_][meta.name][signal]});
  }
  return meta;
}

void MonitorModel::add_frame(const MonitorFrame& frame, bool plot, bool load) {
  if (frame.channel >= state_.size()) return;
  ChannelState& channel = state_[frame.channel];
  if (is_device_event(frame.msg)) {
    // the adapter's error state change: counters and state flags ride in the event's data
    ++channel.device_events;
    channel.health.tx_errors = frame.msg.Data[1];
    channel.health.rx_errors = frame.msg.Data[2];
    channel.health.error_flags = frame.msg.Data[3] & 7;
    return;
  }
  const BusFrame bus = bus_frame_of(frame.msg);
  if (load) channel.load.add(bus, frame.at_us);
  channel.ids.add(bus, frame.at_us);
  ++channel.frames;
  changed_rows_.insert({frame.channel, IdStatistics::key_of(bus)});
  trace_[trace_next_] = frame;
  trace_next_ = (trace_next_ + 1) % trace_.size();
  ++trace_seen_;
  if (plot && db_ && !bus.remote) decode_into_plots(frame, message_of(frame.msg.Id & 0x9FFFFFFFu));
}

void MonitorModel::decode_into_plots(const MonitorFrame& frame, const MessageMeta& meta) {
  if (!meta.known || meta.signals.empty()) return;
  values_.resize(meta.signals.size());
  selected_.resize(meta.signals.size());
  const int n =
      VARNEL_DbcDecodeFrame(db_, frame.msg.Id & 0x9FFFFFFFu, frame.msg.Data, frame.msg.DataLen,
                            values_.data(), selected_.data(), int(values_.size()));
  for (int i = 0; i < n && i < int(values_.size()); ++i) {
    if (!selected_[size_t(i)]) continue;
    auto& decimator = plots_[channels_[frame.channel].name + "/" + meta.name + "." +
                             meta.signals[size_t(i)].name];
    decimator.add(frame.at_us, values_[size_t(i)]);
  }
}

void MonitorModel::set_health(size_t channel, const ChannelHealth& health) {
  if (channel < state_.size()) state_[channel].health = health;
}

void MonitorModel::note(std::string text, bool sticky) {
  if (sticky) sticky_notes_.push_back(text);
  notes_.push_back(std::move(text));
}

void MonitorModel::clear() {
  for (size_t i = 0; i < state_.size(); ++i) {
    const ChannelHealth health = state_[i].health;
    state_[i] = ChannelState(channels_[i], limits_);
    state_[i].health = health;
  }
  changed_rows_.clear();
  trace_seen_ = 0;
  plots_.clear();
  points_.clear();
}

std::string replay_json(const ReplayState& r) {
  return "{\"first\":" + std::to_string(r.first_us) + ",\"last\":" + std::to_string(r.last_us) +
         ",\"at\":" + std::to_string(r.at_us) + ",\"seeks\":" + std::to_string(r.seeks) +
         ",\"seek\":" + std::to_string(r.seek_us) + ",\"paused\":" + (r.paused ? "true" : "false") +
         ",\"fast\":" + (r.fast ? "true" : "false") + ",\"ended\":" + (r.ended ? "true" : "false") +
         "}";
}

void MonitorModel::settle_after_seek() {
  trace_seen_ = std::min<uint64_t>(trace_seen_, trace_.size());
}

namespace {

const char* error_state(uint8_t flags) {
  if (flags & 4) return "bus off";
  if (flags & 2) return "error passive";
  if (flags & 1) return "warning";
  return "error active";
}

}  // namespace

void MonitorModel::append_channels(std::string& out, uint64_t now_us) {
  out += "\"channels\":[";
  for (size_t i = 0; i < state_.size(); ++i) {
    ChannelState& c = state_[i];
    const auto figures = c.load.figures(now_us);
    const ChannelHealth& h = c.health;
    out += i ? ",{" : "{";
    out += "\"name\":";
    append_json_string(out, channels_[i].name);
    out += ",\"bitrate\":" + std::to_string(channels_[i].bitrate);
    out += ",\"load\":";
    append_json_number(out, figures.load_percent);
    out += ",\"fps\":";
    append_json_number(out, figures.frames * 1e6 / double(limits_.load_window_us));
    out += ",\"frames\":" + std::to_string(c.frames);
    out += ",\"load_forgotten\":" + std::to_string(figures.frames_forgotten);
    out += ",\"live\":" + std::string(h.known ? "true" : "false");
    out += ",\"state\":";
    append_json_string(out, error_state(h.error_flags));
    out += ",\"tec\":" + std::to_string(h.tx_errors) + ",\"rec\":" + std::to_string(h.rx_errors);
    out += ",\"app_dropped\":" + std::to_string(h.application_dropped);
    out += ",\"diag_dropped\":" + std::to_string(h.diagnostic_dropped);
    out += ",\"fetch_dropped\":" + std::to_string(h.fetches_dropped);
    out += ",\"poller\":" + std::string(h.poller_running ? "true" : "false");
    out += ",\"poller_stop\":" + std::to_string(h.poller_stop_result);
    out += ",\"reconnects\":" + std::to_string(h.reconnects);
    out += ",\"events\":" + std::to_string(c.device_events) + "}";
  }
  out += "]";
}

void MonitorModel::append_row(std::string& out, const RowKey& key,
                              const IdStatistics::Entry& entry) {
  const BusFrame& f = entry.flags;
  char id[16];
  std::snprintf(id, sizeof id, f.extended ? "%08X" : "%03X", f.id);
  out += "{\"ch\":" + std::to_string(key.first) + ",\"id\":\"" + id + "\"";
  out += ",\"ext\":" + std::string(f.extended ? "true" : "false");
  out += ",\"fd\":" + std::string(f.fd ? "true" : "false");
  out += ",\"brs\":" + std::string(f.brs ? "true" : "false");
  out += ",\"rtr\":" + std::string(f.remote ? "true" : "false");
  out += ",\"len\":" + std::to_string(f.length);
  out += ",\"count\":" + std::to_string(entry.count);
  out += ",\"period_ms\":";
  append_json_number(out, entry.count > 1 ? entry.period_us / 1000 : NAN);
  out += ",\"jitter_ms\":";
  append_json_number(out, entry.count > 2 ? entry.jitter_us / 1000 : NAN);
  out += ",\"data\":\"";
  append_hex(out, entry.data);
  out += "\",\"changed\":[";
  for (size_t i = 0; i < entry.changed.size(); ++i)
    out += entry.changed[i] ? (i ? ",1" : "1") : (i ? ",0" : "0");
  out += "]";
  if (!db_ || f.remote) {
    out += "}";
    return;
  }
  const uint32_t msg_id = f.id | (f.extended ? 0x80000000u : 0);
  const MessageMeta& meta = message_of(msg_id);
  if (!meta.known) {
    out += "}";
    return;
  }
  out += ",\"msg\":";
  append_json_string(out, meta.name);
  std::vector<double> values(meta.signals.size());
  std::vector<uint8_t> selected(meta.signals.size());
  std::vector<const char*> choices(meta.signals.size());
  const int n = VARNEL_DbcDecodeFrame(db_, msg_id, entry.data.data(), int(entry.data.size()),
                                      values.data(), selected.data(), int(values.size()));
  if (n < 0) {
    out += ",\"decode_error\":" + std::to_string(n) + "}";
    return;
  }
  VARNEL_DbcDecodeChoices(db_, msg_id, entry.data.data(), int(entry.data.size()), choices.data(),
                          int(choices.size()));
  out += ",\"signals\":[";
  bool first = true;
  for (size_t i = 0; i < meta.signals.size() && int(i) < n; ++i) {
    if (!selected[i]) continue;
    out += first ? "{" : ",{";
    first = false;
    out += "\"name\":";
    append_json_string(out, meta.signals[i].name);
    out += ",\"value\":";
    append_json_number(out, values[i]);
    out += ",\"unit\":";
    append_json_string(out, meta.signals[i].unit);
    if (choices[i]) {
      out += ",\"choice\":";
      append_json_string(out, choices[i]);
    }
    out += "}";
  }
  out += "]}";
}

void MonitorModel::append_trace(std::string& out) {
  const size_t kept = size_t(std::min<uint64_t>(trace_seen_, trace_.size()));
  out += "\"trace_skipped\":" + std::to_string(trace_seen_ - kept) + ",\"trace\":[";
  for (size_t n = 0; n < kept; ++n) {
    const MonitorFrame& f = trace_[(trace_next_ + trace_.size() - kept + n) % trace_.size()];
    const BusFrame bus = bus_frame_of(f.msg);
    char head[192];
    std::snprintf(head, sizeof head,
                  "%s{\"ch\":%zu,\"t\":%llu,\"id\":\"%0*X\",\"ext\":%s,\"fd\":%s,\"brs\":%s,"
                  "\"rtr\":%s,\"len\":%u,\"data\":\"",
                  n ? "," : "", f.channel, (unsigned long long)f.at_us, bus.extended ? 8 : 3,
                  bus.id, bus.extended ? "true" : "false", bus.fd ? "true" : "false",
                  bus.brs ? "true" : "false", bus.remote ? "true" : "false", bus.length);
    out += head;
    append_hex(out, bus.data);
    out += "\"}";
  }
  out += "]";
}

void MonitorModel::append_points(std::string& out) {
  if (!points_taken_) {
    for (auto& [name, decimator] : plots_)
      if (auto point = decimator.take()) points_.emplace_back(name, *point);
    points_taken_ = true;
  }
  out += "\"points\":{";
  for (size_t i = 0; i < points_.size(); ++i) {
    const auto& [name, p] = points_[i];
    if (i) out += ",";
    append_json_string(out, name);
    out += ":[" + std::to_string(p.at_us) + ",";
    append_json_number(out, p.min);
    out += ",";
    append_json_number(out, p.max);
    out += ",";
    append_json_number(out, p.last);
    out += "," + std::to_string(p.count) + "]";
  }
  out += "}";
}

std::string MonitorModel::update_json(uint64_t now_us, bool full) {
  std::string out = "{\"t\":" + std::to_string(now_us) + ",\"full\":";
  out += full ? "true," : "false,";
  append_channels(out, now_us);
  out += ",\"rows\":[";
  bool first = true;
  auto row = [&](const RowKey& key, const IdStatistics::Entry& entry) {
    if (!first) out += ",";
    first = false;
    append_row(out, key, entry);
  };
  if (full) {
    for (size_t ch = 0; ch < state_.size(); ++ch)
      for (const auto& [key, entry] : state_[ch].ids.entries()) row({ch, key}, entry);
  } else {
    for (const RowKey& key : changed_rows_) {
      const auto& entries = state_[key.first].ids.entries();
      if (auto found = entries.find(key.second); found != entries.end()) row(key, found->second);
    }
  }
  out += "],";
  append_trace(out);
  out += ",";
  append_points(out);
  out += ",\"notes\":[";
  const auto& notes = full ? sticky_notes_ : notes_;
  for (size_t i = 0; i < notes.size(); ++i) {
    if (i) out += ",";
    append_json_string(out, notes[i]);
  }
  out += "]";
  if (replay_) out += ",\"replay\":" + replay_json(*replay_);
  out += "}";
  return out;
}

void MonitorModel::end_interval() {
  changed_rows_.clear();
  trace_seen_ = 0;
  points_.clear();
  points_taken_ = false;
  notes_.clear();
}

}  // namespace varnel_cli::monitor
