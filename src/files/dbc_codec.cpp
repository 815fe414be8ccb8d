#include "files/dbc_codec.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace varnel::dbc {

namespace {

// Adds bits [bit, bit + count) of `byte` as the next raw bits, merging with the previous run
// when it continues it.
void add_run(Signal& s, uint32_t byte, uint32_t bit, uint32_t raw_shift) {
  if (!s.runs.empty()) {
    BitRun& last = s.runs.back();
    if (last.byte == byte && uint32_t(last.bit + last.count) == bit &&
        uint32_t(last.raw_shift + last.count) == raw_shift) {
      ++last.count;
      return;
    }
  }
  s.runs.push_back(BitRun{uint8_t(byte), uint8_t(bit), 1, uint16_t(raw_shift)});
}

}  // namespace

void prepare_codec(Signal& s) {
  s.mask = bit_mask(s.length);
  s.runs.clear();
  if (s.byte_order == kIntel) {
    // Raw bit i sits at position start + i, rising through the bytes.
    for (uint32_t i = 0; i < s.length; ++i) {
      const uint32_t p = uint32_t(s.start_bit) + i;
      if (p / 8 >= kPayloadBytes) break;
      add_run(s, p / 8, p % 8, i);
    }
    return;
  }
  // Motorola: up through the byte, then to bit 0 of the byte before; bit 7 of byte 0 is the
  // end of the frame, whatever bits remain.
  uint32_t p = s.start_bit;
  for (uint32_t i = 0; i < s.length; ++i) {
    if (p / 8 < kPayloadBytes) add_run(s, p / 8, p % 8, i);
    if (p == 7) break;
    p = ((p + 1) % 8 != 0) ? p + 1 : p - 15;
  }
}

uint64_t extract(const Signal& s, const uint8_t* payload, size_t size) {
  uint64_t raw = 0;
  for (const BitRun& r : s.runs) {
    if (r.byte >= size || r.raw_shift >= 64) continue;
    const uint64_t bits = (payload[r.byte] >> r.bit) & ((1u << r.count) - 1);
    raw |= bits << r.raw_shift;
  }
  return raw & s.mask;
}

void insert(const Signal& s, uint64_t raw, uint8_t* payload, size_t size) {
  for (const BitRun& r : s.runs) {
    if (r.byte >= size) continue;
    const uint8_t field = uint8_t(((1u << r.count) - 1) << r.bit);
    const uint8_t bits = r.raw_shift >= 64 ? 0 : uint8_t((raw >> r.raw_shift) << r.bit);
    payload[r.byte] = uint8_t((payload[r.byte] & ~field) | (bits & field));
  }
}

double physical_from_raw(const Signal& s, uint64_t raw) {
  if (s.is_signed) {
    if (s.value_type == kFloat32) {
      float f;
      const uint32_t low = uint32_t(raw);
      std::memcpy(&f, &low, sizeof f);
      return double(f);
    }
    if (s.value_type == kFloat64) {
      double d;
      std::memcpy(&d, &raw, sizeof d);
      return d;
    }
    if (s.value_type != kInteger) return 0.0;
    if (s.length >= 1 && s.length <= 64 && ((raw >> (s.length - 1)) & 1)) {
      const int64_t negative = int64_t(~((s.mask >> 1) & ~raw));
      return double(negative) * s.factor + s.offset;
    }
  }
  // Unsigned signals never consult the value type: a float declared on one reads as integer.
  return double(raw) * s.factor + s.offset;
}

uint64_t wrap_to_u64(double v) {
  if (!std::isfinite(v)) return 0;
  constexpr double two64 = 18446744073709551616.0;
  constexpr double two63 = 9223372036854775808.0;
  v = std::fmod(std::round(v), two64);  // both exact
  if (v < 0) {
    if (v >= -two63) return uint64_t(int64_t(v));
    v += two64;  // exact: such a v is a multiple of 2^11
  }
  if (v >= two63) return uint64_t(int64_t(v - two63)) | (uint64_t(1) << 63);
  return uint64_t(v);
}

uint64_t raw_from_physical(const Signal& s, double value, uint64_t current) {
  // fmin/fmax skip a NaN, so a NaN value lands on the maximum and a NaN bound clamps nothing.
  const double v = std::fmax(s.minimum, std::fmin(s.maximum, value));
  if (s.is_signed) {
    if (s.value_type == kFloat32) {
      const float f = float(v);
      uint32_t bits;
      std::memcpy(&bits, &f, sizeof bits);
      return bits;
    }
    if (s.value_type == kFloat64) {
      uint64_t bits;
      std::memcpy(&bits, &v, sizeof bits);
      return bits;
    }
    if (s.value_type != kInteger) return current;
    return wrap_to_u64((v - s.offset) / s.factor) & s.mask;
  }
  // Unsigned raw values are not masked here: only the low bits reach a frame.
  return wrap_to_u64((v - s.offset) / s.factor);
}

std::string value_table_text(const Signal& s, double physical) {
  int key;
  if (std::isnan(physical)) {
    key = 0;
  } else if (physical >= 2147483647.0) {
    key = INT_MAX;
  } else if (physical <= -2147483648.0) {
    key = INT_MIN;
  } else {
    key = int(physical);  // truncated toward zero
  }
  auto it = s.value_table.find(key);
  if (it != s.value_table.end()) return it->second;
  // The marker callers look for when a value has no description.
  return std::to_string(key) + "-123456";
}

bool signal_active(const Message& m, const Signal& s, const uint8_t* payload, size_t size) {
  if (s.multiplex_indicator != kMultiplexed) return true;
  if (m.multiplexor < 0) return false;
  return extract(m.signals[size_t(m.multiplexor)], payload, size) == s.multiplex_value;
}

std::string format_decoded(const Message& m, const uint8_t* payload, size_t size) {
  char head[64];
  std::snprintf(head, sizeof head, "(0x%X):", m.id & 0x1FFFFFFFu);
  std::string line = m.name + head;
  for (const Signal& s : m.signals) {
    if (!signal_active(m, s, payload, size)) continue;
    const double value = physical_from_raw(s, extract(s, payload, size));
    line += ' ';
    line += s.name;
    line += '=';
    if (!s.value_table.empty() && value > -2147483649.0 && value < 2147483648.0) {
      auto it = s.value_table.find(int32_t(value));
      if (it != s.value_table.end()) {
        line += it->second;
        continue;
      }
    }
    char number[64];
    std::snprintf(number, sizeof number, "%.10g", value);
    line += number;
    if (!s.unit.empty()) {
      line += ' ';
      line += s.unit;
    }
  }
  return line;
}

}  // namespace varnel::dbc
