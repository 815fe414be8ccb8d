// The text form of the traffic the virtual adapter's LIN and UART lines carry without a host
// asking (a master on each LIN bus, a talker on a UART wire), so that a monitor has something to
// watch. Header-only, so that the CLI checks what a user typed before it starts the adapter.
//   LIN   "21@10,22#0102@20,23#A1A2!@50"   a header answered by the bus's slave nodes (21@10), or
//         a frame the master writes with its data; the checksum is enhanced (classic for 3C and
//         3D), and `!` after the data sends it inverted; each item with its period in ms
//   UART  "0#48690D0A@100,1#8110F13E@200"   bytes in hex a device on channel 0 (1...) sends
//         every period
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/bus/can_scene_text.h"

namespace sim::scene_text {

struct PeriodicLinFrame {
  uint8_t id = 0;  // 0..3F
  bool write = false;
  std::vector<uint8_t> data;
  bool bad_checksum = false;
  uint32_t period_ms = 0;
};

struct PeriodicBytes {
  uint8_t channel = 0;
  std::vector<uint8_t> bytes;
  uint32_t period_ms = 0;
};

// "0102A0" (an even number of hex digits, at most `max_bytes`).
inline std::optional<std::vector<uint8_t>> parse_hex_bytes(const std::string& text,
                                                           size_t max_bytes) {
  if (text.size() % 2 || text.size() / 2 > max_bytes) return std::nullopt;
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    const std::string pair = text.substr(i, 2);
    if (pair.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) return std::nullopt;
    bytes.push_back(uint8_t(std::stoul(pair, nullptr, 16)));
  }
  return bytes;
}

inline std::optional<std::vector<PeriodicLinFrame>> parse_lin_traffic(
    const std::string& text, std::string* bad_item = nullptr) {
  std::vector<PeriodicLinFrame> out;
  const auto parse_head = [](std::string head, auto& f, std::string*) {
    const size_t hash = head.find('#');
    const auto id = parse_hex_bytes(head.substr(0, hash), 1);
    if (!id || id->size() != 1 || (*id)[0] > 0x3F) return false;
    f.id = (*id)[0];
    if (hash == std::string::npos) return true;
    std::string data = head.substr(hash + 1);
    f.write = true;
    f.bad_checksum = !data.empty() && data.back() == '!';
    if (f.bad_checksum) data.pop_back();
    auto bytes = parse_hex_bytes(data, 8);
    if (!bytes || bytes->empty()) return false;
    f.data = *bytes;
    return true;
  };
  if (!parse_periodic_items(text, out, bad_item, nullptr, parse_head)) return std::nullopt;
  return out;
}

inline std::optional<std::vector<PeriodicBytes>> parse_uart_traffic(
    const std::string& text, std::string* bad_item = nullptr) {
  std::vector<PeriodicBytes> out;
  const auto parse_head = [](const std::string& head, auto& b, std::string*) {
    const size_t hash = head.find('#');
    if (hash != 1 || head[0] < '0' || head[0] > '7') return false;
    b.channel = uint8_t(head[0] - '0');
    auto bytes = parse_hex_bytes(head.substr(2), 256);
    if (!bytes || bytes->empty()) return false;
    b.bytes = *bytes;
    return true;
  };
  if (!parse_periodic_items(text, out, bad_item, nullptr, parse_head)) return std::nullopt;
  return out;
}

}  // namespace sim::scene_text
