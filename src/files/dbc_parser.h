// CAN database (DBC) files: the in-memory database and the line-oriented loader.
//
// The loader understands only what the signal codec needs (messages, signals, comments, value
// tables, value types, attributes) and ignores every other line. It keeps a few habits of the
// format's original readers on purpose, because callers see them: a line that does not end in
// ";" keeps its line feed in its last token, blanks are the only separators, the first comment
// line is the whole comment, and a zero-width range means "the whole range of the bit length".
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "files/dbc_lines.h"

namespace varnel::dbc {

// What an attribute definition fixes once; shared by every value assigned from it, so a file
// that assigns one big ENUM definition many times costs one copy of the list.
struct AttributeShape {
  std::string name;         // quotes removed
  std::string value_type;   // "INT", "HEX", "FLOAT", "ENUM", or whatever word the file gives
  std::string object_type;  // "BO_", "SG_", "BU_", or " " for network attributes
  double minimum = 0;       // INT, HEX, FLOAT
  double maximum = 0;
  std::vector<std::string> enum_values;  // ENUM
};

// A definition (value = the BA_DEF_DEF_ default) or an assigned value.
struct Attribute {
  std::shared_ptr<const AttributeShape> shape;
  std::string value;

  const std::string& name() const { return shape->name; }
  const std::string& value_type() const { return shape->value_type; }
};

// One contiguous run of a signal's bits inside one payload byte, worked out at load so the
// codec does no per-bit walking: bits [bit, bit + count) of byte `byte` hold bits
// [raw_shift, raw_shift + count) of the raw value.
struct BitRun {
  uint8_t byte;
  uint8_t bit;
  uint8_t count;
  uint16_t raw_shift;  // 64 and more: bits beyond the raw value, written as zeros
};

// Hash maps keyed by name that can be searched with a string_view, without building a string.
struct TextHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
};
using NameIndex = std::unordered_map<std::string, size_t, TextHash, std::equal_to<>>;

enum : uint32_t { kMotorola = 0, kIntel = 1 };
enum : uint32_t { kPlainSignal = 0, kMultiplexed = 1, kMultiplexor = 2 };
enum : uint32_t { kInteger = 0, kFloat32 = 1, kFloat64 = 2 };

constexpr size_t kPayloadBytes = 64;

struct Signal {
  std::string name;
  uint32_t byte_order = kMotorola;
  uint16_t start_bit = 0;  // least significant bit, sawtooth numbering for Motorola
  uint16_t length = 0;
  uint32_t is_signed = 0;
  uint32_t value_type = kInteger;
  double minimum = 0, maximum = 0;
  double factor = 0, offset = 0;
  std::string unit;
  uint32_t multiplex_indicator = kPlainSignal;
  uint16_t multiplex_value = 0;
  std::vector<std::string> receivers;
  // CM_ SG_ gives one text to every signal of a name in every message of an identifier; they
  // share it rather than each holding a copy.
  std::shared_ptr<const std::string> comment;
  std::map<int32_t, std::string> value_table;
  uint64_t raw_value = 0;
  std::vector<Attribute> attributes;

  // Standard reading only (see Database::standard).
  bool switch_too = false;  // "m3M": multiplexed, and a multiplexor for others (SG_MUL_VAL_)
  std::string switch_name;  // SG_MUL_VAL_: the signal whose value selects this one...
  std::vector<std::pair<uint64_t, uint64_t>> switch_ranges;  // ...when it is in one of these

  // Codec data derived from the fields above when the load completes.
  uint64_t mask = 0;         // 2^length - 1, all ones from 64 bits on
  std::vector<BitRun> runs;  // inside the 64-byte payload, in raw bit order
  // A signal that lies within the first 8 bytes is one shift of the payload's first 8 bytes read
  // as one word: little-endian for Intel, big-endian for Motorola.
  bool in_first_word = false;
  uint8_t word_shift = 0;
  int switch_index = -1;     // switch_name resolved, -1 when there is none
  uint64_t initial_raw = 0;  // the start value the file gives, kept from later changes
  bool standard = false;     // copied from the database, for the codec

  const std::string& comment_text() const;
};

struct Message {
  std::string name;
  uint32_t id = 0;  // bit 31: extended identifier
  uint8_t dlc = 0;
  std::string transmitter;
  std::vector<Signal> signals;
  std::string comment;
  uint8_t fd = 0;
  uint8_t brs = 0;
  uint8_t data[kPayloadBytes] = {};
  uint8_t flag = 1;
  uint32_t cycle_time = 10;
  std::vector<Attribute> attributes;

  // Derived at load: index of the first multiplexor signal, or -1; first signal per name.
  int multiplexor = -1;
  NameIndex signal_index;

  Signal* find_signal(std::string_view signal_name);
  const Signal* find_signal(std::string_view signal_name) const;
};

struct Database {
  // Read as DBC tools read files rather than with the original readers' habits: tabs separate,
  // value types 1 and 2 are IEEE floats whatever the sign, a zero-width range is no range (not
  // a clamp), and SG_MUL_VAL_ selects multiplexed signals. Set by the extension load only.
  bool standard = false;
  std::vector<Message> messages;
  std::vector<Attribute> attribute_definitions;

  // Look-ups return the first message in file order, as a linear search would; the indexes
  // below are built at load and only remember the first occurrence of each key.
  Message* find_message(std::string_view name);
  Message* find_message_by_id(uint32_t id);    // exact, bit 31 included
  Message* find_message_by_id29(uint32_t id);  // low 29 bits only
  Signal* find_signal(std::string_view message_name, std::string_view signal_name);

  NameIndex name_index;
  std::unordered_map<uint32_t, size_t> id_index;
  std::unordered_map<uint32_t, size_t> id29_index;
};

// Largest file the loader accepts; real databases are well under a megabyte.
constexpr size_t kMaxFileBytes = 256u << 20;

// Parses DBC text. Returns null when the text cannot be a database (a BO_ line whose tokens run
// out before the transmitter).
std::unique_ptr<Database> parse(std::string_view text, bool standard = false);
// Reads and parses a file; null if it cannot be read, is too large or does not parse.
std::unique_ptr<Database> load_file(const char* path, bool standard = false);
// The stored (least significant bit) position of a Motorola signal from the file's start bit.
uint16_t motorola_lsb_start(uint32_t file_start_bit, uint16_t length);

}  // namespace varnel::dbc
