// The few JSON pieces the monitor writes: strings escaped as JSON wants them, numbers that stay
// valid JSON (NaN and infinities become null), bytes as hex.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>

namespace varnel_cli::monitor {

inline void append_json_string(std::string& out, std::string_view text) {
  out += '"';
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += char(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += char(c);
    }
  }
  out += '"';
}

inline void append_json_number(std::string& out, double value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.10g", value);
  out += text;
}

inline void append_hex(std::string& out, std::span<const uint8_t> bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  for (uint8_t b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
}

}  // namespace varnel_cli::monitor
