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
#include <string_view>
#include <utility>

#include "varnel.h"

namespace varnel::can_text {

inline int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = char(std::tolower(static_cast<unsigned char>(c)));
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// A number in hex digits only (no 0x), at most `max_digits` of them; nullopt for anything else.
inline std::optional<uint32_t> parse_hex_number(std::string_view text, size_t max_digits = 8) {
  if (text.empty() || text.size() > max_digits) return std::nullopt;
  uint32_t value = 0;
  for (char c : text) {
    const int digit = hex_digit(c);
    if (digit < 0) return std::nullopt;
    value = value << 4 | uint32_t(digit);
  }
  return value;
}

// The lengths a CAN FD length code names, in code order.
inline constexpr uint8_t kFdLengths[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};

// Parses "ID#DATA", "ID#R", "ID##FDATA". Identifiers of more than 3 digits are extended. The
// result is a CAN FD record (bit 31 extended, bit 30 remote, Flags bit 2 for CAN FD, the flags
// nibble's bit-rate switch and error state indicator in Flags bits 0 and 1). When the text is no
// frame, `why` (when given) says what is wrong with it.
inline std::optional<CANFD_MSG> parse_frame(const std::string& text, std::string* why = nullptr) {
  auto refuse = [why](std::string reason) -> std::optional<CANFD_MSG> {
    if (why) *why = std::move(reason);
    return std::nullopt;
  };
  const size_t hash = text.find('#');
  if (hash == std::string::npos) return refuse("no '#' between identifier and data");
  if (hash == 0 || hash > 8) return refuse("the identifier takes 1 to 8 hex digits");
  CANFD_MSG msg{};
  uint32_t id = 0;
  for (size_t i = 0; i < hash; ++i) {
    const int d = hex_digit(text[i]);
    if (d < 0) return refuse(text.substr(0, hash) + " is not a hex identifier");
    id = id << 4 | uint32_t(d);
  }
  const bool extended = hash > 3;
  if (id > (extended ? 0x1FFFFFFFu : 0x7FFu))
    return refuse(text.substr(0, hash) + (extended ? " is beyond 29 bits" : " is beyond 11 bits"));
  msg.Id = id | (extended ? 0x80000000u : 0);
  size_t at = hash + 1;
  size_t max = 8;
  if (at < text.size() && text[at] == '#') {
    const int flags = at + 1 < text.size() ? hex_digit(text[at + 1]) : -1;
    if (flags < 0) return refuse("CAN FD data starts with a flags digit (0-F)");
    msg.Flags = uint8_t(0x04 | (flags & 3));  // bit-rate switch, error state indicator
    at += 2;
    max = 64;
  } else if (at < text.size() && (text[at] == 'R' || text[at] == 'r')) {
    msg.Id |= 0x40000000u;
    if (at + 1 < text.size()) {
      const int len = hex_digit(text[at + 1]);
      if (len < 0 || len > 8 || at + 2 != text.size())
        return refuse("a remote frame's length is one digit, 0-8");
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
    if (at + 1 >= text.size()) return refuse("an odd number of data digits");
    const int hi = hex_digit(text[at]), lo = hex_digit(text[at + 1]);
    if (hi < 0 || lo < 0) return refuse(text.substr(at, 2) + " is not a hex byte");
    if (len < max) msg.Data[len] = uint8_t(hi << 4 | lo);
    ++len;
    at += 2;
  }
  if (max == 8 && len > 8)
    return refuse(std::to_string(len) + " bytes: a classic CAN frame carries 0-8");
  if (max == 64 && len > 8) {  // CAN FD lengths come in fixed sizes
    bool ok = false;
    for (size_t s : kFdLengths) ok = ok || s == len;
    if (!ok)
      return refuse(std::to_string(len) +
                    " is not a CAN FD length: 0\u20138, 12, 16, 20, 24, 32, 48, 64");
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

// A record's data length as shown: a classic frame carries 8 bytes at most, a CAN FD one 64.
inline int shown_length(const CANFD_MSG& msg) {
  return msg.DataLen > 64 ? 64 : msg.DataLen;
}

// The frame as candump shows it behind the interface: "123   [4]  DE AD BE EF"; CAN FD lengths in
// two digits one column further left, so the brackets close in one column ("123  [12]  ...");
// "remote request" for a remote frame. With `ascii` (candump -a) a frame of up to 8 bytes gets
// its bytes as text in a column behind, '.' for what is not printable.
inline std::string candump_frame_text(const CANFD_MSG& msg, bool ascii = false) {
  const bool fd = msg.Flags & 0x04;
  const int len = shown_length(msg);
  char head[32];
  std::snprintf(head, sizeof head, "%*s%s[%s%d]", (msg.Id & 0x80000000u) ? 8 : 3,
                id_text(msg.Id).c_str(), fd ? "  " : "   ", fd && len < 10 ? "0" : "", len);
  std::string line = head;
  if (!fd && (msg.Id & 0x40000000u)) return line + "  remote request";
  line += " ";
  for (int i = 0; i < len; ++i) {
    char byte[4];
    std::snprintf(byte, sizeof byte, " %02X", msg.Data[i]);
    line += byte;
  }
  if (!ascii || len > 8) return line;
  // the column starts where the eighth byte would have ended, and three spaces on
  line += std::string(size_t(3 * (8 - len) + 3), ' ') + "'";
  for (int i = 0; i < len; ++i)
    line += msg.Data[i] > 0x1F && msg.Data[i] < 0x7F ? char(msg.Data[i]) : '.';
  return line + "'";
}

// "  can0  123   [4]  DE AD BE EF", as candump prints a frame.
inline std::string candump_line(const std::string& interface, const CANFD_MSG& msg) {
  return "  " + interface + "  " + candump_frame_text(msg);
}

// The frame in cansend syntax: "123#DEADBEEF", "123##1DEADBEEF" for CAN FD (the flags digit:
// bit-rate switch 1, error state indicator 2), "7FF#R" or with its length "7FF#R4". With `dots`
// the data bytes are separated as cangen -v prints them: "123#DE.AD.BE.EF", "123##1.DE.AD".
inline std::string cansend_text(const CANFD_MSG& msg, bool dots = false) {
  const bool fd = msg.Flags & 0x04;
  std::string text = id_text(msg.Id) + "#";
  if (!fd && (msg.Id & 0x40000000u)) {
    if (msg.DataLen > 0 && msg.DataLen <= 8) return text + "R" + char('0' + msg.DataLen);
    return text + "R";
  }
  const int len = shown_length(msg);
  if (fd) {
    text += '#';
    text += "0123"[msg.Flags & 3];
    if (dots && len > 0) text += '.';
  }
  for (int i = 0; i < len; ++i) {
    char byte[4];
    std::snprintf(byte, sizeof byte, dots && i + 1 < len ? "%02X." : "%02X", msg.Data[i]);
    text += byte;
  }
  return text;
}

// "(1700000000.123456) can0 123#DEADBEEF", "... 123##1DEADBEEF..." for CAN FD.
inline std::string candump_log_line(const std::string& interface, const CANFD_MSG& msg,
                                    uint64_t host_us) {
  char head[64];
  std::snprintf(head, sizeof head, "(%llu.%06llu) %s ", (unsigned long long)(host_us / 1000000),
                (unsigned long long)(host_us % 1000000), interface.c_str());
  return head + cansend_text(msg);
}

}  // namespace varnel::can_text
