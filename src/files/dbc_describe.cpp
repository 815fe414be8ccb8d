// A readable listing of a loaded database (messages, signals, attributes) for `varnel dbc info`.
#include <cstdio>
#include <string>

#include "files/dbc_signals.h"

namespace varnel::dbc {

namespace {

// Names keep their line feeds and carriage returns from the file; show them escaped.
std::string shown(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else {
      out += c;
    }
  }
  return out;
}

void append_attributes(std::string& out, const std::vector<Attribute>& attributes,
                       const char* indent) {
  for (const Attribute& a : attributes) {
    out += indent;
    out += "attribute " + shown(a.name()) + " = " + shown(a.value) + "\n";
  }
}

std::string format(const char* fmt, double a, double b) {
  char buf[128];
  std::snprintf(buf, sizeof buf, fmt, a, b);
  return buf;
}

const char* multiplex_text(const Signal& s) {
  if (s.multiplex_indicator == kMultiplexor) return " multiplexor";
  if (s.multiplex_indicator == kMultiplexed) return " multiplexed";
  return "";
}

}  // namespace

std::string describe(const Database& db) {
  std::string out;
  out += "messages: " + std::to_string(db.messages.size()) + "\n";
  for (const Message& m : db.messages) {
    char head[160];
    std::snprintf(head, sizeof head, "0x%X%s dlc %u%s%s cycle %u ms", m.id & 0x1FFFFFFFu,
                  (m.id >> 31) ? " extended" : "", unsigned(m.dlc), m.fd ? " fd" : "",
                  m.brs ? " brs" : "", unsigned(m.cycle_time));
    out += "\n" + m.name + "  " + head + "  from " + shown(m.transmitter) + "\n";
    if (!m.comment.empty()) out += "  comment: " + shown(m.comment) + "\n";
    append_attributes(out, m.attributes, "  ");
    for (const Signal& s : m.signals) {
      out += "  " + s.name + ": start " + std::to_string(s.start_bit) + " length " +
             std::to_string(s.length) + (s.byte_order == kIntel ? " intel" : " motorola") +
             (s.is_signed ? " signed" : " unsigned");
      if (s.value_type == kFloat32) out += " float";
      if (s.value_type == kFloat64) out += " double";
      out += multiplex_text(s);
      if (s.multiplex_indicator == kMultiplexed) out += " " + std::to_string(s.multiplex_value);
      out += format(" scale %.10g offset %.10g", s.factor, s.offset);
      out += format(" range [%.10g, %.10g]", s.minimum, s.maximum);
      if (!s.unit.empty()) out += " unit \"" + s.unit + "\"";
      out += "\n";
      for (const auto& [value, text] : s.value_table) {
        out += "    " + std::to_string(value) + " = " + shown(text) + "\n";
      }
      append_attributes(out, s.attributes, "    ");
    }
  }
  out += "\nattribute definitions: " + std::to_string(db.attribute_definitions.size()) + "\n";
  for (const Attribute& a : db.attribute_definitions) {
    out += "  " + a.name() + " " + a.shape->object_type + " " + shown(a.value_type());
    if (!a.shape->enum_values.empty()) {
      out += " {";
      for (size_t i = 0; i < a.shape->enum_values.size(); ++i) {
        out += (i ? ", " : "") + shown(a.shape->enum_values[i]);
      }
      out += "}";
    }
    if (!a.value.empty()) out += " default " + shown(a.value);
    out += "\n";
  }
  return out;
}

}  // namespace varnel::dbc
