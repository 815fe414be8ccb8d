#include "files/dbc_codec.h"

#include <algorithm>
#include <bit>
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

// Where the signal sits in the first 8 bytes read as one word, if it lies within them. Intel bit
// p is bit p of the little-endian word; Motorola bit p (byte p / 8, bit p % 8) is bit
// (7 - p / 8) * 8 + p % 8 of the big-endian word, where a Motorola signal's bits run upwards.
void place_in_first_word(Signal& s) {
  s.in_first_word = false;
  if (s.length == 0 || s.length > 64) return;
  uint32_t shift = s.start_bit;
  if (s.byte_order != kIntel) {
    if (s.start_bit >= 64) return;
    shift = (7 - s.start_bit / 8u) * 8 + s.start_bit % 8u;
  }
  if (shift + s.length > 64) return;
  s.in_first_word = true;
  s.word_shift = uint8_t(shift);
}

uint64_t byte_swapped(uint64_t v) {
  return __builtin_bswap64(v);
}

}  // namespace

FirstWord::FirstWord(const uint8_t* payload, size_t size) {
  uint64_t native = 0;
  if (size > 0) std::memcpy(&native, payload, std::min<size_t>(size, 8));
  if constexpr (std::endian::native == std::endian::little) {
    little = native;
    big = byte_swapped(native);
  } else {
    big = native;
    little = byte_swapped(native);
  }
}

void prepare_codec(Signal& s) {
  s.mask = bit_mask(s.length);
  s.runs.clear();
  place_in_first_word(s);
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

uint64_t extract(const Signal& s, const FirstWord& word, const uint8_t* payload, size_t size) {
  if (s.in_first_word) {
    return ((s.byte_order == kIntel ? word.little : word.big) >> s.word_shift) & s.mask;
  }
  return extract_runs(s, payload, size);
}

uint64_t extract(const Signal& s, const uint8_t* payload, size_t size) {
  if (s.in_first_word) return extract(s, FirstWord(payload, size), payload, size);
  return extract_runs(s, payload, size);
}

uint64_t extract_runs(const Signal& s, const uint8_t* payload, size_t size) {
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

namespace {

bool is_ieee(uint32_t value_type) {
  return value_type == kFloat32 || value_type == kFloat64;
}

// The IEEE value raw bits hold: single in the low 32 bits for value type 1, double for 2.
double ieee_value(uint32_t value_type, uint64_t raw) {
  if (value_type == kFloat32) return double(std::bit_cast<float>(uint32_t(raw)));
  return std::bit_cast<double>(raw);
}

uint64_t ieee_bits(uint32_t value_type, double v) {
  if (value_type == kFloat32) return std::bit_cast<uint32_t>(float(v));
  return std::bit_cast<uint64_t>(v);
}

// The standard reading: IEEE floats for value types 1 and 2 whatever the sign, scaled like
// integers, as other DBC tools decode them.
double standard_physical(const Signal& s, uint64_t raw) {
  if (is_ieee(s.value_type)) return ieee_value(s.value_type, raw) * s.factor + s.offset;
  if (s.is_signed && s.length >= 1 && s.length <= 64 && ((raw >> (s.length - 1)) & 1)) {
    return double(int64_t(raw | ~s.mask)) * s.factor + s.offset;
  }
  return double(raw) * s.factor + s.offset;
}

}  // namespace

double physical_from_raw(const Signal& s, uint64_t raw) {
  if (s.standard) return standard_physical(s, raw);
  if (s.is_signed) {
    if (is_ieee(s.value_type)) return ieee_value(s.value_type, raw);
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

bool in_range(const Signal& s, double value) {
  return !(s.minimum < s.maximum) || (value >= s.minimum && value <= s.maximum);
}

namespace {

// The standard reading clamps only to a range the file gives, and floats whatever the sign.
uint64_t standard_raw(const Signal& s, double value) {
  const bool ranged = s.minimum < s.maximum;
  const double v = ranged ? std::fmax(s.minimum, std::fmin(s.maximum, value)) : value;
  const double scaled = (v - s.offset) / s.factor;
  if (is_ieee(s.value_type)) return ieee_bits(s.value_type, scaled);
  return wrap_to_u64(scaled) & s.mask;
}

}  // namespace

uint64_t raw_from_physical(const Signal& s, double value, uint64_t current) {
  if (s.standard) return standard_raw(s, value);
  // fmin/fmax skip a NaN, so a NaN value lands on the maximum and a NaN bound clamps nothing.
  const double v = std::fmax(s.minimum, std::fmin(s.maximum, value));
  if (s.is_signed) {
    if (is_ieee(s.value_type)) return ieee_bits(s.value_type, v);
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

namespace {

bool active_in(const Message& m, const Signal& s, const FirstWord& word, const uint8_t* payload,
               size_t size, int depth) {
  if (s.multiplex_indicator != kMultiplexed) return true;
  if (s.switch_index >= 0) {
    // Selected when its switch is selected and holds a value in one of the ranges. Switch
    // chains deeper than any real file are cut, so a loop in a file cannot recurse forever.
    const Signal& sw = m.signals[size_t(s.switch_index)];
    const uint64_t v = extract(sw, word, payload, size);
    bool selected = false;
    for (auto [from, to] : s.switch_ranges) selected = selected || (v >= from && v <= to);
    return selected && depth < 8 && active_in(m, sw, word, payload, size, depth + 1);
  }
  if (m.multiplexor < 0) return false;
  return extract(m.signals[size_t(m.multiplexor)], word, payload, size) == s.multiplex_value;
}

}  // namespace

bool signal_active(const Message& m, const Signal& s, const uint8_t* payload, size_t size) {
  return active_in(m, s, FirstWord(payload, size), payload, size, 0);
}

void decode_all(const Message& m, const uint8_t* payload, size_t size, double* values,
                uint8_t* selected, size_t count) {
  const FirstWord word(payload, size);
  const size_t n = std::min(count, m.signals.size());
  for (size_t i = 0; i < n; ++i) {
    const Signal& s = m.signals[i];
    const bool active = active_in(m, s, word, payload, size, 0);
    values[i] = active ? physical_from_raw(s, extract(s, word, payload, size)) : std::nan("");
    if (selected) selected[i] = active;
  }
}

namespace {

const std::string* choice_of(const Signal& s, uint64_t raw) {
  if (s.value_table.empty() || is_ieee(s.value_type)) return nullptr;
  int64_t key = int64_t(raw);
  if (s.is_signed && s.length >= 1 && s.length < 64 && ((raw >> (s.length - 1)) & 1)) {
    key = int64_t(raw | ~s.mask);
  }
  if (raw > uint64_t(INT64_MAX) && !s.is_signed) return nullptr;
  if (key < INT32_MIN || key > INT32_MAX) return nullptr;
  auto it = s.value_table.find(int32_t(key));
  return it == s.value_table.end() ? nullptr : &it->second;
}

}  // namespace

void decode_choices(const Message& m, const uint8_t* payload, size_t size, const char** names,
                    size_t count) {
  const FirstWord word(payload, size);
  const size_t n = std::min(count, m.signals.size());
  for (size_t i = 0; i < n; ++i) {
    const Signal& s = m.signals[i];
    const std::string* name = active_in(m, s, word, payload, size, 0)
                                  ? choice_of(s, extract(s, word, payload, size))
                                  : nullptr;
    names[i] = name ? name->c_str() : nullptr;
  }
}

void encode_all(const Message& m, const double* values, size_t count, uint8_t* payload,
                size_t size) {
  const auto put = [&](size_t i) {
    const Signal& s = m.signals[i];
    const bool given = i < count && !std::isnan(values[i]);
    insert(s, given ? raw_from_physical(s, values[i], 0) : s.initial_raw, payload, size);
  };
  // The multiplexor first, then the switches it selects (a chain of them, one level a round),
  // so that what they select is known when the other signals are written.
  for (size_t i = 0; i < m.signals.size(); ++i) {
    if (m.signals[i].multiplex_indicator == kMultiplexor) put(i);
  }
  for (int level = 0; level < 8; ++level) {
    for (size_t i = 0; i < m.signals.size(); ++i) {
      if (m.signals[i].switch_too && signal_active(m, m.signals[i], payload, size)) put(i);
    }
  }
  for (size_t i = 0; i < m.signals.size(); ++i) {
    const Signal& s = m.signals[i];
    if (s.multiplex_indicator != kMultiplexor && !s.switch_too &&
        signal_active(m, s, payload, size))
      put(i);
  }
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
        // Choice names may hold blanks: the standard reading quotes them, as DBC tools do.
        line += s.standard ? '"' + it->second + '"' : it->second;
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
