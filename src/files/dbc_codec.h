// The signal codec: raw bits in and out of a payload, raw <-> physical values, and the text of a
// decoded frame. Pure functions over a prepared Signal; the database state (raw values, stored
// payloads) is the caller's business.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "files/dbc_parser.h"

namespace varnel::dbc {

// 2^length - 1 as an unsigned 64-bit value, all ones from 64 bits on.
constexpr uint64_t bit_mask(uint32_t length) {
  return length >= 64 ? ~uint64_t(0) : (uint64_t(1) << length) - 1;
}

// Works out the signal's mask, bit runs and word position (called by the loader for every
// signal).
void prepare_codec(Signal& s);

// The first 8 bytes of a payload (zeros beyond its size) read both ways, once per frame.
struct FirstWord {
  FirstWord(const uint8_t* payload, size_t size);
  uint64_t little, big;
};

// The raw value from a payload of `size` bytes; bits beyond the payload read as zero.
uint64_t extract(const Signal& s, const uint8_t* payload, size_t size);
uint64_t extract(const Signal& s, const FirstWord& word, const uint8_t* payload, size_t size);
// The same through the bit runs alone, whatever the signal's place.
uint64_t extract_runs(const Signal& s, const uint8_t* payload, size_t size);
// Writes the low `length` bits of raw into the payload; bits beyond `size` bytes are dropped.
void insert(const Signal& s, uint64_t raw, uint8_t* payload, size_t size);

// The physical value of raw (raw already cut to the signal's mask).
double physical_from_raw(const Signal& s, uint64_t raw);
// The raw value for a physical value: clamped to the range, scaled and rounded half away from
// zero; returns `current` for a value type the codec does not know.
uint64_t raw_from_physical(const Signal& s, double value, uint64_t current);

// Is a physical value within the signal's range? A zero-width or reversed range limits nothing
// (what the standard reading checks before encoding).
bool in_range(const Signal& s, double value);

// Rounds half away from zero and wraps modulo 2^64 (so negative values come out in two's
// complement and 2^63 and above convert exactly); NaN and infinities give 0.
uint64_t wrap_to_u64(double v);

// Value-table text of a physical value: the description, or "<n>-123456" when the table has no
// entry for the value truncated to an integer.
std::string value_table_text(const Signal& s, double physical);

// Is a multiplexed signal selected by the frame? Plain signals and multiplexors always are.
bool signal_active(const Message& m, const Signal& s, const uint8_t* payload, size_t size);

// Every signal's physical value, in the message's signal order, into values[0..count); a
// multiplexed signal the frame does not select gets NaN.
// `selected` (may be null) gets 1 for a selected signal, 0 for the others.
void decode_all(const Message& m, const uint8_t* payload, size_t size, double* values,
                uint8_t* selected, size_t count);
// The choice name (value table entry) of each selected signal's raw value, in signal order, into
// names[0..count); null where there is none. Raw values are keyed as DBC tools key them: signed
// integer signals sign-extended, float signals never.
void decode_choices(const Message& m, const uint8_t* payload, size_t size, const char** names,
                    size_t count);
// Builds a payload (zeroed by the caller) from physical values in signal order; NaN, or an
// index at or past `count`, takes the signal's start value. Only selected signals are written.
void encode_all(const Message& m, const double* values, size_t count, uint8_t* payload,
                size_t size);

// One line for a frame decoded without touching the database state, for dumps and the CLI:
//   Name(0x123): Sig1=12.5 km/h Sig2=On ...
// Only the signals the multiplexor selects appear.
std::string format_decoded(const Message& m, const uint8_t* payload, size_t size);

}  // namespace varnel::dbc
