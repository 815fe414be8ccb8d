#include "monitor/family_view.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "monitor/json_text.h"
#include "src/lin/kline_frames.h"

namespace varnel_cli::monitor {
namespace {

std::string hex_of(const uint8_t* bytes, size_t count) {
  std::string out;
  append_hex(out, {bytes, count});
  return out;
}

void append_field(std::string& out, const char* key, const std::string& value) {
  out += ",\"";
  out += key;
  out += "\":";
  append_json_string(out, value);
}

std::string lin_row(size_t channel, uint64_t at_us, const LIN_EX_MSG& m) {
  std::string out = "{\"ch\":" + std::to_string(channel) + ",\"t\":" + std::to_string(at_us);
  const uint8_t length = std::min<uint8_t>(m.DataLen, 8);
  append_field(out, "id", hex_of(std::array<uint8_t, 1>{uint8_t(m.PID & 0x3F)}.data(), 1));
  append_field(out, "pid", hex_of(&m.PID, 1));
  append_field(out, "data", hex_of(m.Data, length));
  append_field(out, "check", length ? hex_of(&m.Check, 1) : "");
  append_field(out, "verdict", lin_verdict(m));
  return out + "}";
}

// The parts of a K-line frame: format, addresses, SID, data, checksum (as far as it came).
std::string kline_row(size_t channel, const KlineFrame& f) {
  std::string out = "{\"ch\":" + std::to_string(channel) + ",\"t\":" + std::to_string(f.at_us);
  const auto& b = f.bytes;
  append_field(out, "bytes", hex_of(b.data(), b.size()));
  append_field(out, "verdict", !f.complete ? "incomplete" : f.checksum_ok ? "ok" : "bad");
  if (f.complete && !b.empty()) {
    const bool addressed = varnel::kline::has_addresses(b[0]);
    size_t at = 1;
    append_field(out, "tgt", addressed ? hex_of(&b[1], 1) : "");
    append_field(out, "src", addressed ? hex_of(&b[2], 1) : "");
    at += addressed ? 2 : 0;
    if (varnel::kline::length_bits(b[0]) == 0) ++at;  // the length byte
    if (at + 1 < b.size()) {
      append_field(out, "sid", hex_of(&b[at], 1));
      append_field(out, "data", hex_of(&b[at + 1], b.size() - at - 2));
    }
    append_field(out, "check", hex_of(&b.back(), 1));
  }
  return out + "}";
}

}  // namespace

const char* family_word(Family family) {
  return family == Family::kLin ? "lin" : family == Family::kUart ? "uart" : "kline";
}

const char* lin_verdict(const LIN_EX_MSG& msg) {
  if (msg.DataLen == 0) return "none";
  switch (msg.CheckType) {
    case LIN_EX_CHECK_STD:
      return "classic";
    case LIN_EX_CHECK_EXT:
      return "enhanced";
    case LIN_EX_CHECK_ERROR:
      return "bad";
    case LIN_EX_CHECK_NONE:
      return "none";
    default:
      return "unchecked";
  }
}

FamilyView::FamilyView(std::vector<FamilyChannelInfo> channels, size_t rows_per_update,
                       size_t bytes_per_update)
    : channels_(std::move(channels)),
      rows_per_update_(rows_per_update),
      bytes_per_update_(bytes_per_update),
      state_(channels_.size()) {}

void FamilyView::keep(std::deque<Row>& rows, Row row, size_t channel) {
  size_t& fresh = &rows == &lin_ ? lin_fresh_ : kline_fresh_;
  rows.push_back(std::move(row));
  ++fresh;
  ++state_[channel].items;
  if (rows.size() <= rows_per_update_) return;
  // the oldest goes; had no update carried it yet, its channel counts it as skipped
  if (fresh > rows_per_update_) {
    ++state_[rows.front().channel].skipped;
    --fresh;
  }
  rows.pop_front();
}

void FamilyView::add(const FamilyBatch& batch) {
  for (const auto& f : batch.lin) {
    if (f.channel >= state_.size()) continue;
    if (f.msg.DataLen && f.msg.CheckType == LIN_EX_CHECK_ERROR) ++state_[f.channel].errors;
    keep(lin_, {f.channel, f.at_us, lin_row(f.channel, f.at_us, f.msg)}, f.channel);
  }
  for (const auto& f : batch.kline) {
    if (f.channel >= state_.size()) continue;
    if (!f.frame.checksum_ok) ++state_[f.channel].errors;
    keep(kline_, {f.channel, f.frame.at_us, kline_row(f.channel, f.frame)}, f.channel);
  }
  for (const auto& u : batch.uart) {
    if (u.channel >= state_.size()) continue;
    ChannelState& c = state_[u.channel];
    if (c.new_bytes == 0) c.first_new_us = u.at_us;
    c.items += u.bytes.size();
    c.kept_bytes.insert(c.kept_bytes.end(), u.bytes.begin(), u.bytes.end());
    c.new_bytes += u.bytes.size();
    if (c.kept_bytes.size() > bytes_per_update_) {
      const size_t drop = c.kept_bytes.size() - bytes_per_update_;
      c.kept_bytes.erase(c.kept_bytes.begin(), c.kept_bytes.begin() + long(drop));
    }
    if (c.new_bytes > bytes_per_update_) {
      c.skipped += c.new_bytes - bytes_per_update_;
      c.new_bytes = bytes_per_update_;
    }
  }
}

void FamilyView::clear() {
  for (auto& c : state_) c = {};
  lin_.clear();
  kline_.clear();
  lin_fresh_ = kline_fresh_ = 0;
}

void FamilyView::append_rows(std::string& out, const char* key, const std::deque<Row>& rows,
                             size_t fresh) const {
  out += ",\"";
  out += key;
  out += "\":[";
  for (size_t i = rows.size() - fresh; i < rows.size(); ++i) {
    if (i != rows.size() - fresh) out += ",";
    out += rows[i].json;
  }
  out += "]";
}

std::string FamilyView::json(bool full) const {
  if (channels_.empty()) return "";
  std::string out = "\"families\":{\"full\":";
  out += full ? "true" : "false";
  out += ",\"channels\":[";
  for (size_t i = 0; i < channels_.size(); ++i) {
    const FamilyChannelInfo& info = channels_[i];
    const ChannelState& c = state_[i];
    out += i ? ",{\"name\":" : "{\"name\":";
    append_json_string(out, info.name);
    append_field(out, "family", family_word(info.family));
    out += ",\"baud\":" + std::to_string(info.baud) + ",\"count\":" + std::to_string(c.items) +
           ",\"errors\":" + std::to_string(c.errors) + ",\"skipped\":" + std::to_string(c.skipped) +
           "}";
  }
  out += "]";
  append_rows(out, "lin", lin_, full ? lin_.size() : lin_fresh_);
  append_rows(out, "kline", kline_, full ? kline_.size() : kline_fresh_);
  out += ",\"uart\":[";
  bool first = true;
  for (size_t i = 0; i < state_.size(); ++i) {
    const ChannelState& c = state_[i];
    const size_t count = full ? c.kept_bytes.size() : c.new_bytes;
    if (count == 0) continue;
    out += first ? "{\"ch\":" : ",{\"ch\":";
    first = false;
    out += std::to_string(i) + ",\"t\":" + std::to_string(c.first_new_us) + ",\"hex\":\"";
    const std::vector<uint8_t> bytes(c.kept_bytes.end() - long(count), c.kept_bytes.end());
    append_hex(out, bytes);
    out += "\"}";
  }
  return out + "]}";
}

void FamilyView::end_interval() {
  lin_fresh_ = kline_fresh_ = 0;
  for (auto& c : state_) c.new_bytes = 0;
}

}  // namespace varnel_cli::monitor
