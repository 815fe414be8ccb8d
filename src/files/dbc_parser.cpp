// The DBC loader: a main pass over every line but BA_, an attribute pass over the BA_ lines,
// then the attribute resolution (cycle times, frame formats, bit-rate switch).
#include "files/dbc_parser.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "files/dbc_codec.h"

namespace varnel::dbc {

namespace {

// C-library conversions on a token (std::string is zero-terminated, so they stop where the
// token ends). Numbers that do not parse read as 0.
unsigned long to_ulong0(const std::string& s) {
  return std::strtoul(s.c_str(), nullptr, 0);
}
double to_double(const std::string& s) {
  return std::strtod(s.c_str(), nullptr);
}
long long to_llong(const std::string& s) {
  return std::strtoll(s.c_str(), nullptr, 10);
}
int to_int(const std::string& s) {
  long v = std::strtol(s.c_str(), nullptr, 10);
  return int(std::clamp<long>(v, INT_MIN, INT_MAX));
}

std::string without(std::string s, std::string_view chars) {
  s.erase(std::remove_if(s.begin(), s.end(),
                         [&](char c) { return chars.find(c) != std::string_view::npos; }),
          s.end());
  return s;
}

std::vector<std::string> split_at(std::string_view s, std::string_view separators) {
  std::vector<std::string> parts;
  size_t begin = 0;
  for (size_t i = 0; i <= s.size(); ++i) {
    if (i == s.size() || separators.find(s[i]) != std::string_view::npos) {
      parts.emplace_back(s.substr(begin, i - begin));
      begin = i + 1;
    }
  }
  return parts;
}

std::string join(const std::vector<std::string>& tokens, size_t from, std::string_view glue) {
  std::string text;
  for (size_t i = from; i < tokens.size(); ++i) {
    if (i > from) text += glue;
    text += tokens[i];
  }
  return text;
}

const std::string& token_or_empty(const std::vector<std::string>& t, size_t i) {
  static const std::string empty;
  return i < t.size() ? t[i] : empty;
}

// A comment is the rest of the line with every ';' and double quote taken out.
std::string comment_text(const std::vector<std::string>& t, size_t from) {
  return without(join(t, from, " "), ";\"");
}

bool contains(std::string_view s, char c) {
  return s.find(c) != std::string_view::npos;
}

// A CAN identifier has 29 bits and an extended flag; bits 29 and 30 of a file's number belong to
// neither (tools mark pseudo-messages or relayed frames with bit 30), so DBC tools drop them.
// What is left is extended when bit 31 says so or when it does not fit 11 bits.
uint32_t can_identifier(unsigned long file_id) {
  const uint32_t id = uint32_t(file_id) & 0x1FFFFFFFu;
  return (file_id & 0x80000000ul) || id > 2047 ? id | 0x80000000u : id;
}

// The pseudo-message that holds the signals of no frame keeps its file number, so that no frame
// finds it.
constexpr std::string_view kNoFrameMessage = "VECTOR__INDEPENDENT_SIG_MSG";

class Loader {
 public:
  explicit Loader(Database& db) : db_(db), standard_(db.standard) {}

  bool main_line(std::vector<std::string>& t);
  void attribute_line(const std::vector<std::string>& t);
  void resolve();

 private:
  bool message(std::vector<std::string>& t);
  void signal(const std::vector<std::string>& t);
  void comment(const std::vector<std::string>& t);
  void value_table(const std::vector<std::string>& t);
  void value_type(const std::vector<std::string>& t);
  void multiplex_ranges(const std::vector<std::string>& t);
  void attribute_definition(const std::vector<std::string>& t);
  void attribute_default(const std::vector<std::string>& t);
  Attribute* definition(const std::string& name);
  uint32_t reference_id(const std::string& token) const;
  void add_to_id_index(uint32_t id);
  Message* first_message(uint32_t id);
  template <typename Visit>
  void for_each_message(uint32_t id, Visit visit);

  Database& db_;
  const bool standard_;
  // Definitions by name (first one wins), for the attribute lines.
  std::unordered_map<std::string, size_t> definitions_;
  // Messages by identifier as the BO_ lines stored it, for the lines that refer to them: the
  // first in file order, and for each message the next one with the same identifier, so a
  // reference costs the same whatever the number of messages.
  struct SameId {
    size_t first, last;
  };
  std::unordered_map<uint32_t, SameId> by_id_;
  std::vector<size_t> next_same_id_;
  static constexpr size_t kNone = SIZE_MAX;
};

uint32_t Loader::reference_id(const std::string& token) const {
  const unsigned long id = to_ulong0(token);
  return standard_ ? can_identifier(id) : uint32_t(id);
}

void Loader::add_to_id_index(uint32_t id) {
  const size_t index = db_.messages.size() - 1;
  next_same_id_.push_back(kNone);
  auto [it, inserted] = by_id_.try_emplace(id, SameId{index, index});
  if (inserted) return;
  next_same_id_[it->second.last] = index;
  it->second.last = index;
}

Message* Loader::first_message(uint32_t id) {
  auto it = by_id_.find(id);
  return it == by_id_.end() ? nullptr : &db_.messages[it->second.first];
}

template <typename Visit>
void Loader::for_each_message(uint32_t id, Visit visit) {
  auto it = by_id_.find(id);
  for (size_t i = it == by_id_.end() ? kNone : it->second.first; i != kNone; i = next_same_id_[i]) {
    if (visit(db_.messages[i])) return;
  }
}

bool Loader::main_line(std::vector<std::string>& t) {
  const std::string& kind = t[0];
  if (kind == "BO_") return message(t);
  if (kind == "SG_") signal(t);
  if (kind == "CM_") comment(t);
  if (kind == "VAL_") value_table(t);
  if (kind == "SIG_VALTYPE_") value_type(t);
  if (kind == "SG_MUL_VAL_" && standard_) multiplex_ranges(t);
  if (kind == "BA_DEF_") attribute_definition(t);
  if (kind == "BA_DEF_DEF_") attribute_default(t);
  return true;
}

bool Loader::message(std::vector<std::string>& t) {
  if (t.size() < 4) return true;
  unsigned long id = to_ulong0(t[1]);
  // Both the file's own convention (bit 31 already set) and a bare 29-bit number end up
  // flagged as extended.
  if (id > 2047) id |= 0x80000000ul;
  if (standard_ && without(t[2], ":") != kNoFrameMessage) id = can_identifier(to_ulong0(t[1]));
  std::string name = t[2];
  if (!contains(name, ':') && contains(t[3], ':')) t.erase(t.begin() + 3);
  name = without(std::move(name), ":");
  // DLC at 3, transmitter at 4: a line that runs out before the transmitter is not a message
  // we can represent, and the whole load fails rather than guess.
  if (t.size() < 5) return false;
  if (name.empty()) return true;
  Message& m = db_.messages.emplace_back();
  m.name = std::move(name);
  m.id = uint32_t(id);
  m.dlc = uint8_t(to_ulong0(t[3]));
  m.transmitter = t[4];
  add_to_id_index(m.id);
  return true;
}

void Loader::signal(const std::vector<std::string>& t) {
  if (t.size() < 7 || db_.messages.empty()) return;
  Signal s;
  s.name = without(t[1], ":");
  size_t i = 2;
  if (standard_ && contains(t[2], 'm') && contains(t[2], 'M')) {
    // Extended multiplexing: selected by one switch, and itself a switch for others.
    s.multiplex_indicator = kMultiplexed;
    s.multiplex_value = uint16_t(to_ulong0(without(t[2], "mM:")));
    s.switch_too = true;
    ++i;
  } else if (contains(t[2], 'M')) {
    s.multiplex_indicator = kMultiplexor;
    ++i;
  } else if (contains(t[2], 'm')) {
    const std::string value = without(t[2], "m:");
    // An "m" without a number selects on no value: DBC tools show such a signal in every frame
    // (and an SG_MUL_VAL_ line may still give it a switch).
    if (!standard_ || !value.empty()) {
      s.multiplex_indicator = kMultiplexed;
      s.multiplex_value = uint16_t(to_ulong0(value));
    }
    ++i;
  }
  // The colon stands alone or is glued to the name, the multiplex token or the position.
  if (t[i] == ":") ++i;
  std::string position = token_or_empty(t, i++);
  if (!position.empty() && position[0] == ':') position.erase(0, 1);

  std::vector<std::string> pos = split_at(position, "|@");
  s.start_bit = uint16_t(to_ulong0(pos[0]));
  if (pos.size() > 1) s.length = uint16_t(to_ulong0(pos[1]));
  const std::string order = pos.size() > 2 ? pos[2] : std::string();
  if (contains(order, '0')) s.byte_order = kMotorola;
  if (contains(order, '1')) s.byte_order = kIntel;
  if (contains(order, '+')) s.is_signed = 0;
  if (contains(order, '-')) s.is_signed = 1;
  if (s.byte_order == kMotorola) s.start_bit = motorola_lsb_start(s.start_bit, s.length);

  std::vector<std::string> scale = split_at(without(token_or_empty(t, i++), "()"), ",");
  s.factor = to_double(scale[0]);
  s.offset = scale.size() > 1 ? to_double(scale[1]) : 0.0;

  std::vector<std::string> range = split_at(without(token_or_empty(t, i++), "[]"), "|");
  s.minimum = to_double(range[0]);
  s.maximum = range.size() > 1 ? to_double(range[1]) : 0.0;
  if (s.minimum == s.maximum && !standard_) {
    // A zero-width range (usually [0|0]) stands for the whole range of the bit length.
    s.minimum = s.offset;
    s.maximum = double(bit_mask(s.length)) * s.factor + s.offset;
  }

  // The unit runs until the token that closes its quotes; inner blanks collapse to one.
  std::string unit;
  int quotes = 0;
  for (bool first = true; i < t.size() && (first || quotes < 2); first = false, ++i) {
    if (!first) unit += ' ';
    unit += t[i];
    quotes += int(std::count(t[i].begin(), t[i].end(), '"'));
  }
  s.unit = without(std::move(unit), "\"");

  const std::string receivers = join(t, i, " ");
  if (!receivers.empty()) s.receivers = split_at(receivers, ",");

  if (s.name.empty()) return;
  Message& m = db_.messages.back();
  m.signal_index.emplace(s.name, m.signals.size());
  m.signals.push_back(std::move(s));
}

void Loader::comment(const std::vector<std::string>& t) {
  if (t.size() < 3) return;
  const uint32_t id = reference_id(t[2]);
  if (t[1] == "BO_") {
    if (Message* m = first_message(id)) m->comment = comment_text(t, 3);
  } else if (t[1] == "SG_" && t.size() >= 4) {
    auto text = std::make_shared<const std::string>(comment_text(t, 4));
    for_each_message(id, [&](Message& m) {
      for (Signal& s : m.signals) {
        if (s.name == t[3]) s.comment = text;
      }
      return false;
    });
  }
}

void Loader::value_table(const std::vector<std::string>& t) {
  if (t.size() < 3) return;
  const uint32_t id = reference_id(t[1]);
  const std::string text = join(t, 3, " ");
  std::map<int32_t, std::string> table;
  std::string number, description;
  bool quoted = false;
  for (char c : text) {
    if (c == '"') {
      if (quoted) {
        // Read as unsigned long and stored as i32, so "-1" gives -1.
        table[int32_t(uint32_t(to_ulong0(number)))] = description;
        number.clear();
        description.clear();
      }
      quoted = !quoted;
    } else {
      (quoted ? description : number) += c;
    }
  }
  for_each_message(id, [&](Message& m) {
    Signal* s = m.find_signal(t[2]);
    if (s) s->value_table = std::move(table);
    return s != nullptr;
  });
}

void Loader::value_type(const std::vector<std::string>& t) {
  if (t.size() < 3) return;
  const uint32_t id = reference_id(t[1]);
  std::vector<std::string> parts = split_at(without(join(t, 2, ""), ";"), ":");
  const unsigned long number = parts.size() > 1 ? to_ulong0(parts[1]) : 0;
  const uint32_t type = (number == 1 || number == 2) ? uint32_t(number) : kInteger;
  for_each_message(id, [&](Message& m) {
    if (Signal* s = m.find_signal(parts[0])) s->value_type = type;
    return false;
  });
}

// SG_MUL_VAL_ <id> <signal> <switch> <from>-<to>, <from>-<to> ...;
void Loader::multiplex_ranges(const std::vector<std::string>& t) {
  if (t.size() < 5) return;
  Message* m = first_message(reference_id(t[1]));
  Signal* s = m ? m->find_signal(t[2]) : nullptr;
  if (!s) return;
  s->switch_name = t[3];
  s->switch_ranges.clear();
  for (const std::string& range : split_at(without(join(t, 4, ""), ";"), ",")) {
    const std::vector<std::string> ends = split_at(range, "-");
    if (ends.size() != 2) continue;
    s->switch_ranges.emplace_back(std::strtoull(ends[0].c_str(), nullptr, 10),
                                  std::strtoull(ends[1].c_str(), nullptr, 10));
  }
}

void Loader::attribute_definition(const std::vector<std::string>& t) {
  const bool typed = t.size() > 1 && (t[1] == "BO_" || t[1] == "SG_" || t[1] == "BU_");
  size_t i = typed ? 2 : 1;
  auto shape = std::make_shared<AttributeShape>();
  shape->object_type.assign(typed ? t[1].c_str() : " ");
  if (i + 1 >= t.size()) return;
  shape->name = without(t[i], "\"");
  shape->value_type = t[i + 1];
  i += 2;
  if (shape->value_type == "ENUM") {
    // Only one token: a list written with blanks after its commas is cut at the first blank.
    shape->enum_values = split_at(without(token_or_empty(t, i), "\";"), ",");
  } else if (shape->value_type == "FLOAT" || shape->value_type == "INT" ||
             shape->value_type == "HEX") {
    shape->minimum = to_double(token_or_empty(t, i));
    shape->maximum = to_double(token_or_empty(t, i + 1));
  }
  if (definitions_.count(shape->name)) return;
  definitions_.emplace(shape->name, db_.attribute_definitions.size());
  db_.attribute_definitions.push_back(Attribute{std::move(shape), std::string()});
}

Attribute* Loader::definition(const std::string& name) {
  auto it = definitions_.find(name);
  return it == definitions_.end() ? nullptr : &db_.attribute_definitions[it->second];
}

void Loader::attribute_default(const std::vector<std::string>& t) {
  if (t.size() < 3) return;
  if (Attribute* def = definition(without(t[1], "\""))) def->value = without(t[2], "\"");
}

void Loader::attribute_line(const std::vector<std::string>& t) {
  if (t.size() < 3 || t[0] != "BA_") return;
  const Attribute* def = definition(without(t[1], "\""));
  if (!def) return;
  if (t[2] == "BO_" && t.size() >= 5) {
    if (Message* m = first_message(reference_id(t[3]))) {
      m->attributes.push_back(Attribute{def->shape, t[4]});
    }
  } else if (t[2] == "SG_" && t.size() >= 6) {
    Message* m = first_message(reference_id(t[3]));
    Signal* s = m ? m->find_signal(t[4]) : nullptr;
    if (!s) return;
    s->attributes.push_back(Attribute{def->shape, t[5]});
    // Whatever the attribute, its value becomes the signal's start value.
    s->raw_value = uint64_t(to_llong(t[5]));
  }
}

// atof(value) truncated toward zero into a u32; values a u32 cannot hold wrap like a 64-bit
// integer would, and what not even that can hold reads as 0.
uint32_t cycle_time_of(const std::string& value) {
  const double v = std::trunc(to_double(value));
  if (!(v > -9.2e18 && v < 9.2e18)) return 0;
  return uint32_t(int64_t(v));
}

void Loader::resolve() {
  const Attribute* brs_default = definition("CANFD_BRS");
  uint8_t brs = (brs_default && brs_default->value == "1") ? 1 : 0;
  for (Message& m : db_.messages) {
    // The bit-rate switch carries over: a message without its own CANFD_BRS takes the setting
    // of the last message that had one.
    for (const Attribute& a : m.attributes) {
      if (a.name() == "CANFD_BRS") brs = a.value == "1" ? 1 : 0;
    }
    for (const Attribute& a : m.attributes) {
      const std::string& type = a.value_type();
      if (a.name() == "GenMsgCycleTime" && (type == "INT" || type == "FLOAT" || type == "HEX")) {
        m.cycle_time = cycle_time_of(a.value);
      } else if (a.name() == "VFrameFormat" && type == "ENUM") {
        const int i = to_int(a.value);
        const auto& names = a.shape->enum_values;
        if (i < 0 || size_t(i) >= names.size()) continue;
        const std::string& format = names[size_t(i)];
        if (format == "StandardCAN") {
          m.id &= ~0x80000000u, m.fd = 0, m.brs = 0;
        } else if (format == "ExtendedCAN" || format == "J1939PG") {
          m.id |= 0x80000000u, m.fd = 0, m.brs = 0;
        } else if (format == "StandardCAN_FD") {
          m.id &= ~0x80000000u, m.fd = 1, m.brs = brs;
        } else if (format == "ExtendedCAN_FD") {
          m.id |= 0x80000000u, m.fd = 1, m.brs = brs;
        }
      }
    }
  }
}

void build_message_index(Message& m) {
  m.signal_index.clear();
  for (size_t i = 0; i < m.signals.size(); ++i) m.signal_index.emplace(m.signals[i].name, i);
}

// An SG_MUL_VAL_ switch must be another signal of the same message; anything else selects
// nothing.
void resolve_switches(Message& m) {
  for (size_t k = 0; k < m.signals.size(); ++k) {
    Signal& s = m.signals[k];
    s.switch_index = -1;
    if (s.switch_name.empty()) continue;
    auto it = m.signal_index.find(s.switch_name);
    if (it == m.signal_index.end() || it->second == k) continue;
    s.switch_index = int(it->second);
    // A switch that is not the message's multiplexor is still written before what it selects.
    Signal& sw = m.signals[it->second];
    if (sw.multiplex_indicator != kMultiplexor) sw.switch_too = true;
  }
}

void build_indexes(Database& db) {
  db.name_index.clear();
  db.id_index.clear();
  db.id29_index.clear();
  for (size_t i = 0; i < db.messages.size(); ++i) {
    Message& m = db.messages[i];
    build_message_index(m);
    db.name_index.emplace(m.name, i);
    db.id_index.emplace(m.id, i);
    db.id29_index.emplace(m.id & 0x1FFFFFFFu, i);
    m.multiplexor = -1;
    for (size_t k = 0; k < m.signals.size(); ++k) {
      Signal& s = m.signals[k];
      if (m.multiplexor < 0 && s.multiplex_indicator == kMultiplexor) m.multiplexor = int(k);
      s.standard = db.standard;
      s.initial_raw = s.raw_value;
      prepare_codec(s);
    }
    resolve_switches(m);
  }
}

}  // namespace

const std::string& Signal::comment_text() const {
  static const std::string empty;
  return comment ? *comment : empty;
}

Signal* Message::find_signal(std::string_view signal_name) {
  if (!signal_index.empty() || signals.empty()) {
    auto it = signal_index.find(signal_name);
    return it == signal_index.end() ? nullptr : &signals[it->second];
  }
  // While loading, before the index exists.
  for (Signal& s : signals) {
    if (s.name == signal_name) return &s;
  }
  return nullptr;
}

const Signal* Message::find_signal(std::string_view signal_name) const {
  return const_cast<Message*>(this)->find_signal(signal_name);
}

Message* Database::find_message(std::string_view name) {
  auto it = name_index.find(name);
  return it == name_index.end() ? nullptr : &messages[it->second];
}

Message* Database::find_message_by_id(uint32_t id) {
  if (id_index.empty()) {
    for (Message& m : messages) {
      if (m.id == id) return &m;
    }
    return nullptr;
  }
  auto it = id_index.find(id);
  return it == id_index.end() ? nullptr : &messages[it->second];
}

Message* Database::find_message_by_id29(uint32_t id) {
  auto it = id29_index.find(id & 0x1FFFFFFFu);
  return it == id29_index.end() ? nullptr : &messages[it->second];
}

Signal* Database::find_signal(std::string_view message_name, std::string_view signal_name) {
  Message* m = find_message(message_name);
  return m ? m->find_signal(signal_name) : nullptr;
}

uint16_t motorola_lsb_start(uint32_t file_start_bit, uint16_t length) {
  // Walk from the most significant bit down the sawtooth numbering: within a byte the bit
  // number falls, and below bit 0 of a byte comes bit 7 of the next byte (+16 from bit -1+8).
  int64_t p = int64_t(file_start_bit) + 1;
  for (uint32_t i = 0; i < length; ++i) {
    p -= 1;
    if (p % 8 == 0 && i + 1 < length) p += 16;
  }
  return uint16_t(p);
}

namespace {

// Longest VAL_ statement the standard reading joins from several lines.
constexpr size_t kMaxStatementChars = 1u << 20;

// Has the statement text come to its closing ';' (outside quotes)?
bool statement_closed(std::string_view text) {
  bool quoted = false;
  char last = 0;
  for (char c : text) {
    if (c == '"') quoted = !quoted;
    if (!quoted && !std::isspace(static_cast<unsigned char>(c))) last = c;
  }
  return !quoted && last == ';';
}

// Does a line carry on a VAL_ statement: more "number description" pairs, or the closing ';'?
bool continues_values(std::string_view line, bool inside_quotes) {
  if (inside_quotes) return true;
  const size_t first = line.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return false;
  const char c = line[first];
  return std::isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '+' || c == '"' ||
         c == ';';
}

// Files written by some tools wrap a long VAL_ statement over several lines; DBC tools read up to
// the ';'. Appends the continuation lines to `line`; a line read that does not continue it is
// left in `next` (returns true).
bool join_value_lines(LineReader& lines, std::string& line, std::string& next) {
  while (!statement_closed(line) && line.size() < kMaxStatementChars && lines.next(next)) {
    const bool inside_quotes = std::count(line.begin(), line.end(), '"') % 2 == 1;
    if (!continues_values(next, inside_quotes)) return true;
    line += next;
  }
  return false;
}

// A comment's text may run over several lines (DBC tools keep reading up to its closing quote):
// appends the lines that follow until the quotes close.
void join_comment_lines(LineReader& lines, std::string& line, std::string& next) {
  while (std::count(line.begin(), line.end(), '"') % 2 == 1 && line.size() < kMaxStatementChars &&
         lines.next(next))
    line += next;
}

// The main pass: everything but BA_ lines. False when the input cannot be a database.
bool main_pass(Loader& loader, LineReader& lines, bool standard) {
  std::string line, next;
  bool pending = false;  // `next` holds a line read ahead
  std::vector<std::string> t;
  while (pending || lines.next(line)) {
    if (pending) line.swap(next), pending = false;
    if (lines.bytes_read() > kMaxFileBytes) return false;
    tokenize(line, t, standard);
    if (t.empty() || t[0] == "BA_") continue;
    if (standard && t[0] == "VAL_" && !statement_closed(line)) {
      pending = join_value_lines(lines, line, next);
      tokenize(line, t, standard);
    } else if (standard && t[0] == "CM_" && std::count(line.begin(), line.end(), '"') % 2 == 1) {
      join_comment_lines(lines, line, next);
      tokenize(line, t, standard);
    }
    if (!loader.main_line(t)) return false;
  }
  return !lines.failed();
}

// The attribute pass: the BA_ lines, once every message and definition is known.
bool attribute_pass(Loader& loader, LineReader& lines, bool standard) {
  std::string line;
  std::vector<std::string> t;
  while (lines.next(line)) {
    if (line.size() < 3 || line.find("BA_") == std::string::npos) continue;
    tokenize(line, t, standard);
    loader.attribute_line(t);
  }
  return !lines.failed();
}

std::unique_ptr<Database> finish(Loader& loader, std::unique_ptr<Database> db) {
  loader.resolve();
  build_indexes(*db);
  return db;
}

}  // namespace

std::unique_ptr<Database> parse(std::string_view text, bool standard) {
  auto db = std::make_unique<Database>();
  db->standard = standard;
  Loader loader(*db);
  LineReader main_lines(text), attribute_lines(text);
  if (!main_pass(loader, main_lines, standard)) return nullptr;
  attribute_pass(loader, attribute_lines, standard);
  return finish(loader, std::move(db));
}

// The file is read twice, line by line, and never held whole: memory follows what the file
// defines, not how long it is.
std::unique_ptr<Database> load_file(const char* path, bool standard) {
  if (!path) return nullptr;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path, "rb"), std::fclose);
  if (!file) return nullptr;
  auto db = std::make_unique<Database>();
  db->standard = standard;
  Loader loader(*db);
  LineReader main_lines(file.get());
  if (!main_pass(loader, main_lines, standard)) return nullptr;
  std::rewind(file.get());
  LineReader attribute_lines(file.get());
  if (!attribute_pass(loader, attribute_lines, standard)) return nullptr;
  return finish(loader, std::move(db));
}

}  // namespace varnel::dbc
