// `varnel dbc`: CAN databases.
//   varnel dbc info FILE                       messages, signals, attributes
//   varnel dbc decode FILE [LOG]               candump lines (file or stdin) with decoded signals
//   varnel dbc encode FILE MESSAGE SIG=VALUE   the frame, as a candump "ID#DATA" line
// Files are read as other DBC tools read them (IEEE floats, SG_MUL_VAL_, tabs, no invented
// ranges); --legacy reads them as the DBC_ calls do.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "core/command_group.h"
#include "src/can/can_text.h"
#include "varnel.h"

namespace {

struct DbcOptions {
  std::string file;
  std::string log;
  std::string message;
  std::vector<std::string> assignments;
  bool legacy = false;
  bool clamp = false;
};

int fail(const std::string& what) {
  std::fprintf(stderr, "varnel dbc: %s\n", what.c_str());
  varnel_cli::exit_code() = 1;
  return 1;
}

DBC_HANDLE load(const DbcOptions& o) {
  const std::string& file = o.file;
  DBC_HANDLE h = VARNEL_DbcLoadFileEx(file.c_str(), o.legacy ? 0 : VARNEL_DBC_STANDARD);
  if (!h) {
    fail("cannot load " + file);
  } else if (DBC_GetMsgQuantity(h) == 0) {
    // the parser skips every line it does not know, so any text file loads
    std::fprintf(stderr, "varnel dbc: warning: %s defines no messages\n", file.c_str());
  }
  return h;
}

void run_info(const DbcOptions& o) {
  DBC_HANDLE h = load(o);
  if (!h) return;
  const int n = VARNEL_DbcDescribe(h, nullptr, 0);
  std::string text(size_t(n) + 1, '\0');
  VARNEL_DbcDescribe(h, text.data(), int(text.size()));
  text.resize(size_t(n));
  std::fwrite(text.data(), 1, text.size(), stdout);
}

struct Frame {
  uint32_t id = 0;  // bit 31: extended
  std::vector<uint8_t> data;
};

bool parse_hex_bytes(const std::string& s, std::vector<uint8_t>& out) {
  std::string digits;
  for (char c : s) {
    if (c == ' ' || c == '.') continue;
    if (varnel::can_text::hex_digit(c) < 0) return false;
    digits += c;
  }
  if (digits.size() % 2) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    out.push_back(uint8_t(varnel::can_text::hex_digit(digits[i]) * 16 +
                          varnel::can_text::hex_digit(digits[i + 1])));
  }
  return out.size() <= 64;
}

bool parse_id(const std::string& s, uint32_t& id) {
  if (s.empty() || s.size() > 8) return false;
  uint32_t v = 0;
  for (char c : s) {
    const int d = varnel::can_text::hex_digit(c);
    if (d < 0) return false;
    v = v * 16 + uint32_t(d);
  }
  // candump writes 3 digits for a standard identifier and 8 for an extended one.
  id = s.size() == 8 ? (v | 0x80000000u) : v;
  return true;
}

// Accepts the candump log form "(time) if ID#DATA" / "ID##<flags>DATA" and the default
// candump output "if  ID   [len]  11 22 ...".
bool parse_candump(const std::string& line, Frame& f) {
  std::vector<std::string> words;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
    const size_t b = i;
    while (i < line.size() && !std::isspace(static_cast<unsigned char>(line[i]))) ++i;
    if (i > b) words.push_back(line.substr(b, i - b));
  }
  for (size_t w = 0; w < words.size(); ++w) {
    const std::string& word = words[w];
    const size_t hash = word.find('#');
    if (hash != std::string::npos) {
      if (!parse_id(word.substr(0, hash), f.id)) return false;
      std::string data = word.substr(hash + 1);
      if (!data.empty() && data[0] == 'R') return false;           // remote frame: no payload
      if (!data.empty() && data[0] == '#') data = data.substr(2);  // FD: "##" and a flag digit
      return parse_hex_bytes(data, f.data);
    }
    if (word.size() >= 3 && word.front() == '[' && word.back() == ']' && w >= 1) {
      if (!parse_id(words[w - 1], f.id)) return false;
      std::string bytes;
      for (size_t k = w + 1; k < words.size(); ++k) bytes += words[k];
      return parse_hex_bytes(bytes, f.data);
    }
  }
  return false;
}

// One output line per input line: the frame, then the decoded signals when the database knows
// the identifier.
std::string decode_line(DBC_HANDLE h, const std::string& line) {
  Frame f;
  if (!parse_candump(line, f)) return line;
  const int n = VARNEL_DbcFormatFrame(h, f.id, f.data.data(), int(f.data.size()), nullptr, 0);
  if (n == -6) return line + " :: error: frame shorter than its message";
  if (n < 0) return line;
  std::string text(size_t(n) + 1, '\0');
  VARNEL_DbcFormatFrame(h, f.id, f.data.data(), int(f.data.size()), text.data(), int(text.size()));
  text.resize(size_t(n));
  return line + " :: " + text;
}

void run_decode(const DbcOptions& o) {
  DBC_HANDLE h = load(o);
  if (!h) return;
  std::ifstream file;
  std::istream* in = &std::cin;
  if (!o.log.empty() && o.log != "-") {
    file.open(o.log);
    if (!file) {
      fail("cannot read " + o.log);
      return;
    }
    in = &file;
  }
  std::string line;
  while (std::getline(*in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::printf("%s\n", decode_line(h, line).c_str());
  }
}

void run_encode(const DbcOptions& o) {
  DBC_HANDLE h = load(o);
  if (!h) return;
  if (DBC_GetMsgSignalQuantity(h, o.message.c_str()) < 0) {
    fail("no message " + o.message);
    return;
  }
  // Values in the message's signal order; NaN leaves a signal at its start value.
  const int count = DBC_GetMsgSignalQuantity(h, o.message.c_str());
  std::vector<double> values(size_t(count), std::nan(""));
  std::vector<std::string> names(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    char name[VARNEL_DBC_TEXT_MAX];
    DBC_GetMsgSignalName(h, o.message.c_str(), uint32_t(i), name);
    names[size_t(i)] = name;
  }
  for (const std::string& a : o.assignments) {
    const size_t eq = a.find('=');
    char* end = nullptr;
    const double v = eq == std::string::npos ? 0 : std::strtod(a.c_str() + eq + 1, &end);
    if (eq == std::string::npos || end == a.c_str() + eq + 1 || *end != '\0') {
      fail("expected SIGNAL=VALUE, got " + a);
      return;
    }
    const std::string name = a.substr(0, eq);
    auto it = std::find(names.begin(), names.end(), name);
    if (it == names.end()) {
      fail("no signal " + name + " in " + o.message);
      return;
    }
    values[size_t(it - names.begin())] = v;
  }
  CANFD_MSG msg;  // identifier, length and flags of the message
  DBC_SyncValueToCANFDMsg(h, o.message.c_str(), &msg);
  const uint32_t flags = o.clamp || o.legacy ? VARNEL_DBC_CLAMP : 0;  // the DBC_ calls clamp
  const int built = VARNEL_DbcEncodeFrame(h, msg.Id, values.data(), count, flags, msg.Data, 64);
  if (built == -6) {
    fail("a signal given is not selected by the multiplexor values (give the multiplexor too)");
    return;
  }
  if (built == -8) {
    for (size_t i = 0; i < values.size(); ++i) {
      std::vector<double> one(values.size(), std::nan(""));
      one[i] = values[i];
      uint8_t scratch[64];
      if (VARNEL_DbcEncodeFrame(h, msg.Id, one.data(), count, 0, scratch, 64) == -8) {
        char value[32];
        std::snprintf(value, sizeof value, "%.10g", values[i]);
        fail(names[i] + "=" + value + " is outside its range (--clamp clamps)");
        return;
      }
    }
  }
  const bool fd = msg.Flags & 4;
  const bool extended = msg.Id >> 31;
  std::printf(extended ? "%08X" : "%03X", msg.Id & 0x1FFFFFFFu);
  const size_t len = std::min<size_t>(msg.DataLen, fd ? 64 : 8);
  if (fd) {
    std::printf("##%X", msg.Flags & 1);
  } else {
    std::printf("#");
  }
  for (size_t i = 0; i < len; ++i) std::printf("%02X", msg.Data[i]);
  std::printf("\n");
}

void add_dbc_commands(CLI::App& app) {
  auto* dbc = app.add_subcommand("dbc", "CAN databases (DBC files)");
  dbc->require_subcommand(1);
  auto opts = std::make_shared<DbcOptions>();
  dbc->add_flag("--legacy", opts->legacy,
                "read the file as the DBC_ calls do (floats on unsigned signals as integers, "
                "[0|0] as the whole range, no SG_MUL_VAL_, blanks only)");

  auto* info = dbc->add_subcommand("info", "List messages, signals and attributes");
  info->add_option("FILE", opts->file, "DBC file")->required();
  info->callback([opts] { run_info(*opts); });

  auto* decode = dbc->add_subcommand("decode", "Decode candump lines (a file, or stdin)");
  decode->add_option("FILE", opts->file, "DBC file")->required();
  decode->add_option("LOG", opts->log, "candump log (default: stdin)");
  decode->callback([opts] { run_decode(*opts); });

  auto* encode = dbc->add_subcommand("encode", "Build a frame from signal values");
  encode->add_option("FILE", opts->file, "DBC file")->required();
  encode->add_option("MESSAGE", opts->message, "message name")->required();
  encode->add_option("SIGNALS", opts->assignments, "SIGNAL=VALUE ...");
  encode->add_flag("--clamp", opts->clamp, "clamp values to their signal's range");
  encode->callback([opts] { run_encode(*opts); });
}

}  // namespace

VARNEL_COMMAND_GROUP(add_dbc_commands)
