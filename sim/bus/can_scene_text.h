// The text form of a CAN scene on the virtual bus: a node's bit timing and the frames it sends
// periodically. Header-only, so that the CLI can check what a user typed before it starts the
// virtual adapter with it.
//   timing   "500000" or "500000/2000000" (nominal / data bit rate)
//   traffic  "123#11223344@100,18FEF100##1AABB@20": can-utils frames, each with its period in ms
#pragma once

#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "src/can/can_text.h"

namespace sim::scene_text {

struct Timing {
  uint32_t nominal_bps = 0;
  uint32_t data_bps = 0;
};

struct PeriodicFrame {
  CANFD_MSG frame{};
  uint32_t period_ms = 0;
};

// A decimal number in [1, max], the whole text.
inline std::optional<uint32_t> parse_positive(const std::string& text, uint32_t max) {
  if (text.empty() || text.size() > 10) return std::nullopt;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + uint64_t(c - '0');
  }
  if (value == 0 || value > max) return std::nullopt;
  return uint32_t(value);
}

inline std::optional<Timing> parse_timing(const std::string& text) {
  constexpr uint32_t kMaxBps = 16000000;
  const size_t slash = text.find('/');
  auto nominal = parse_positive(text.substr(0, slash), kMaxBps);
  if (!nominal) return std::nullopt;
  Timing timing{*nominal, 0};
  if (slash != std::string::npos) {
    auto data = parse_positive(text.substr(slash + 1), kMaxBps);
    if (!data) return std::nullopt;
    timing.data_bps = *data;
  }
  return timing;
}

// Items "HEAD@MS" separated by commas (empty ones skipped), each head handed to
// `parse_head(head, item, &why)`; false at the first item that does not parse, with the item in
// `bad_item` and what is wrong with it in `why` (each when given).
template <typename Item, typename ParseHead>
bool parse_periodic_items(const std::string& text, std::vector<Item>& out, std::string* bad_item,
                          std::string* why, ParseHead parse_head) {
  constexpr uint32_t kMaxPeriodMs = 3600000;
  for (size_t start = 0; start <= text.size();) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(start, end - start);
    start = end + 1;
    if (item.empty()) continue;
    const size_t at = item.rfind('@');
    std::string reason = "no period: add @MS";
    Item parsed;
    bool head_parsed = false;
    std::optional<uint32_t> period;
    if (at != std::string::npos) {
      head_parsed = parse_head(item.substr(0, at), parsed, &reason);
      period = parse_positive(item.substr(at + 1), kMaxPeriodMs);
      if (head_parsed && !period)
        reason = "the period is a whole number of ms, 1-" + std::to_string(kMaxPeriodMs);
    }
    if (!head_parsed || !period) {
      if (bad_item) *bad_item = item;
      if (why) *why = reason;
      return false;
    }
    parsed.period_ms = *period;
    out.push_back(std::move(parsed));
  }
  return true;
}

// Parses the traffic list; on failure `bad_item` (when given) holds the item that did not parse
// and `why` (when given) what is wrong with it.
inline std::optional<std::vector<PeriodicFrame>> parse_traffic(const std::string& text,
                                                               std::string* bad_item = nullptr,
                                                               std::string* why = nullptr) {
  std::vector<PeriodicFrame> traffic;
  const auto parse_head = [](const std::string& head, PeriodicFrame& f, std::string* reason) {
    const auto frame = varnel::can_text::parse_frame(head, reason);
    if (frame) f.frame = *frame;
    return frame.has_value();
  };
  if (!parse_periodic_items(text, traffic, bad_item, why, parse_head)) return std::nullopt;
  return traffic;
}

}  // namespace sim::scene_text
