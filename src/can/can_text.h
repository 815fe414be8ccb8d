// Frames as text, in the can-utils forms: "123#DEADBEEF", "1ABCDEF0#R", "123##1DEAD" (CAN FD,
// flags nibble then data), candump lines and candump log lines. Header-only so the CLI can use it
// without reaching into the library's hidden symbols.
#pragma once

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "varnel.h"

namespace varnel::can_text {

inline int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = char(std::tolower(static_cast<unsigned char>(c)));
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Parses "ID#DATA", "ID#R", "ID##FDATA". Identifiers of more than 3 digits are extended. The
// result is a CAN FD record (bit 31 extended, bit 30 remote, Flags bit 2 for CAN FD).
inline std::optional<CANFD_MSG> parse_frame(const std::string& text) {
  const size_t hash = text.find('#');
  if (hash == std::string::npos || hash == 0 || hash > 8) return std::nullopt;
  CANFD_MSG msg{};
  uint32_t id = 0;
  for (size_t i = 0; i < hash; ++i) {
    const int d = hex_digit(text[i]);
    if (d < 0) return std::nullopt;
    id = id << 4 | uint32_t(d);
  }
  const bool extended = hash > 3;
  if (id > (extended ? 0x1FFFFFFFu : 0x7FFu)) return std::nullopt;
  msg.Id = id | (extended ? 0x80000000u : 0);
  size_t at = hash + 1;
  size_t max = 8;
  if (at < text.size() && text[at] == '#') {
    const int flags = at + 1 < text.size() ? hex_digit(text[at + 1]) : -1;
    if (flags < 0) return std::nullopt;
    msg.Flags = uint8_t(0x04 | (flags & 1));  // bit-rate switch
    at += 2;
    max = 64;
  } else if (at < text.size() && (text[at] == 'R' || text[at] == 'r')) {
    msg.Id |= 0x40000000u;
    if (at + 1 < text.size()) {
      const int len = hex_digit(text[at + 1]);
      if (len < 0 || len > 8 || at + 2 != text.size()) return std::nullopt;
      msg.DataLen = uint8_t(len);
    }
    return msg;
  }
  size_t len = 0;
  while (at < text.size()) {
    if (text[at] == '.') {
      ++at;
      continue;
    }
    if (at + 1 >= text.size() || len >= max) return std::nullopt;
    const int hi = hex_digit(text[at]), lo = hex_digit(text[at + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    msg.Data[len++] = uint8_t(hi << 4 | lo);
    at += 2;
  }
  if (max == 64 && len > 8) {  // CAN FD lengths come in fixed sizes
    static constexpr size_t kSizes[] = {12, 16, 20, 24, 32, 48, 64};
    bool ok = false;
    for (size_t s : kSizes) ok = ok || s == len;
    if (!ok) return std::nullopt;
  }
  msg.DataLen = uint8_t(len);
  return msg;
}

inline std::string id_text(uint32_t id) {
  char text[16];
  if (id & 0x80000000u)
    std::snprintf(text, sizeof text, "%08X", id & 0x1FFFFFFFu);
  else
    std::snprintf(text, sizeof text, "%03X", id & 0x7FFu);
  return text;
}

// "  can0  123   [4]  DE AD BE EF" (CAN FD lengths in two digits: "[20]"); remote frames show
// "remote request".
inline std::string candump_line(const std::string& interface, const CANFD_MSG& msg) {
  const bool fd = msg.Flags & 0x04;
  char head[64];
  const std::string id = id_text(msg.Id);
  std::snprintf(head, sizeof head, "  %s  %*s   [%s%u]", interface.c_str(),
                (msg.Id & 0x80000000u) ? 8 : 3, id.c_str(), fd && msg.DataLen < 10 ? "0" : "",
                msg.DataLen);
  std::string line = head;
  if (msg.Id & 0x40000000u) return line + "  remote request";
  line += " ";
  for (int i = 0; i < msg.DataLen && i < 64; ++i) {
    char byte[4];
    std::snprintf(byte, sizeof byte, " %02X", msg.Data[i]);
    line += byte;
  }
  return line;
}

// "(1700000000.123456) can0 123#DEADBEEF", "... 123##1DEADBEEF..." for CAN FD.
inline std::string candump_log_line(const std::string& interface, const CANFD_MSG& msg,
                                    uint64_t host_us) {
  char head[64];
  std::snprintf(head, sizeof head, "(%llu.%06llu) %s ", (unsigned long long)(host_us / 1000000),
                (unsigned long long)(host_us % 1000000), interface.c_str());
  std::string line = head + id_text(msg.Id) + "#";
  if (msg.Id & 0x40000000u) return line + "R";
  if (msg.Flags & 0x04) {
    char flags[4];
    std::snprintf(flags, sizeof flags, "#%X", msg.Flags & 1);
    line += flags;
  }
  for (int i = 0; i < msg.DataLen && i < 64; ++i) {
    char byte[4];
    std::snprintf(byte, sizeof byte, "%02X", msg.Data[i]);
    line += byte;
  }
  return line;
}

}  // namespace varnel::can_text
