// `varnel i2c` and `varnel smbus`, in the manner of i2c-tools. TARGET is HANDLE:CHANNEL (the
// channel defaults to 0); each command initialises the channel as a 7-bit master first.
//   varnel i2c detect [-a] TARGET [FIRST LAST]   the 16 x 8 grid of answering addresses
//   varnel i2c get TARGET ADDR [REG [b|w]]       a register byte, a word (SMBus order), or with
//                                                no register a receive byte
//   varnel i2c set TARGET ADDR REG VALUE [b|w]
//   varnel i2c dump [-r FIRST-LAST] TARGET ADDR [b|w|c|s|i]   i2cdump's tables
// As in i2c-tools, -y is taken and changes nothing (we never ask), and addresses outside
// 0x08-0x77 need -a.
//   varnel i2c transfer TARGET w2@0x50 0x00 0x10 r8
//   varnel smbus TARGET block-read|block-write|block-call ADDR CMD [BYTES...] [--pec]
#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/adapter.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "periph/i2c_tables.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

constexpr ResultMeaning kI2cResults[] = {
    {VARNEL_IIC_STATUS_ADDRESS_NACK, "no acknowledge of the address"},
    {VARNEL_IIC_STATUS_DATA_NACK, "a data byte was not acknowledged"},
    {VARNEL_IIC_STATUS_BUS_ERROR, "bus error (the bus is held; try a bus reset)"},
    {VARNEL_IIC_STATUS_TIMEOUT, "bus time-out"},
    {VARNEL_IIC_STATUS_PEC_ERROR, "packet error code mismatch"},
    {VARNEL_IIC_STATUS_BAD_REQUEST, "the adapter refused the request"},
    {VARNEL_IIC_STATUS_NOT_MASTER, "the channel is not a master"},
};

using Target = ChannelTarget;

struct I2cOptions {
  std::string target;
  std::string address, reg, value, mode = "b";
  std::vector<std::string> words;
  std::vector<uint32_t> range;  // detect's FIRST LAST
  std::string registers;        // dump's -r FIRST-LAST
  uint32_t clock = 100000;
  bool pec = false;
  bool all_addresses = false;  // -a
  bool yes = false;            // -y: taken for habit's sake, we never ask
};

// The addresses i2c-tools leaves alone unless told (-a): the reserved ones at both ends.
constexpr uint32_t kFirstRegular = 0x08, kLastRegular = 0x77;

bool parse_number(const std::string& text, uint32_t max, uint32_t& value) {
  uint32_t v = 0;
  if (!parse_handle(text, v) || v > max) return false;
  value = v;
  return true;
}

CLI::Validator number_validator(const std::string& name, uint32_t max) {
  return CLI::Validator(
      [name, max](std::string& text) {
        uint32_t v;
        return parse_number(text, max, v) ? std::string()
                                          : name + " must be a number up to " + std::to_string(max);
      },
      "NUMBER", name);
}

bool parse_target(const std::string& text, Target& target) {
  return parse_channel_target(text, 256, true, target);
}

uint32_t number(const std::string& text) {
  uint32_t v = 0;
  parse_handle(text, v);  // checked by the validators
  return v;
}

// A session on the channel, set up as a 7-bit master at the chosen clock.
void with_channel(const I2cOptions& o, const std::string& what, const SessionStep& work) {
  Target target;
  parse_target(o.target, target);
  const SessionReport report{what, kI2cResults, 1, true};
  run_channel_session(
      report, target,
      [&o](const Target& t) {
        IIC_CONFIG config{o.clock, 0, 1, 7, 0, 0, {}};
        return CallResult(IIC_Init(t.handle, t.channel, &config),
                          {"IIC_Init", {{"channel", std::to_string(t.channel)}}});
      },
      work);
}

// i2cdetect's FIRST LAST: both or neither, FIRST from the lowest address scanned, LAST from
// FIRST. Sets `first` and `last`; false, having said why, when the range is refused.
bool detect_range(const I2cOptions& o, int& first, int& last) {
  const uint32_t low = o.all_addresses ? 0x00 : kFirstRegular;
  const uint32_t high = o.all_addresses ? 0x7F : kLastRegular;
  first = int(low);
  last = int(high);
  const char* refusal = nullptr;
  uint32_t from = low;
  if (o.range.size() == 1)
    refusal = "give both FIRST and LAST";
  else if (o.range.size() == 2 && (o.range[0] < low || o.range[0] > high))
    refusal = "FIRST";
  else if (o.range.size() == 2 && (o.range[1] < o.range[0] || o.range[1] > high))
    refusal = "LAST", from = o.range[0];
  if (!refusal) {
    if (o.range.size() == 2) first = int(o.range[0]), last = int(o.range[1]);
    return true;
  }
  if (o.range.size() == 1)
    std::fprintf(stderr, "i2c detect: %s\n", refusal);
  else
    std::fprintf(stderr, "i2c detect: %s argument out of range (0x%02x-0x%02x)\n", refusal, from,
                 high);
  exit_code() = 2;
  return false;
}

void run_detect(const I2cOptions& o) {
  int first, last;
  if (!detect_range(o, first, last)) return;
  with_channel(o, "i2c detect", [first, last](Target t) {
    uint16_t found[1024];
    int n = IIC_GetSlaveAddr(t.handle, t.channel, found);
    if (n < 0) return n;
    std::vector<bool> present(128);
    for (int i = 0; i < std::min(n, 1024); ++i)
      if (found[i] < 128) present[found[i]] = true;
    std::fputs(detect_grid(present, first, last).c_str(), stdout);
    return 0;
  });
}

// i2c-tools refuses the reserved addresses unless -a is given; false, having said so.
bool address_allowed(const I2cOptions& o, const std::string& what) {
  const uint32_t a = number(o.address);
  if (o.all_addresses || (a >= kFirstRegular && a <= kLastRegular)) return true;
  std::fprintf(stderr, "%s: chip address out of range (0x08-0x77; -a for 0x00-0x7f)\n",
               what.c_str());
  exit_code() = 2;
  return false;
}

void run_get(const I2cOptions& o) {
  if (!address_allowed(o, "i2c get")) return;
  with_channel(o, "i2c get", [&o](Target t) {
    uint8_t reg = uint8_t(number(o.reg)), in[2] = {};
    int length = o.mode == "w" ? 2 : 1;
    const uint16_t address = uint16_t(number(o.address));
    // Without a register, an SMBus receive byte: a plain read of one byte, from wherever the
    // device's register pointer stands.
    int rc = o.reg.empty()
                 ? IIC_ReadBytes(t.handle, t.channel, address, in, 1, 100)
                 : IIC_WriteReadBytes(t.handle, t.channel, address, &reg, 1, in, length, 100);
    if (rc != 0) return rc;
    if (length == 2)
      std::printf("0x%04x\n", in[0] | in[1] << 8);  // low byte first, as i2cget shows words
    else
      std::printf("0x%02x\n", in[0]);
    return 0;
  });
}

void run_set(const I2cOptions& o) {
  if (!address_allowed(o, "i2c set")) return;
  with_channel(o, "i2c set", [&o](Target t) {
    uint32_t value = number(o.value);
    std::vector<uint8_t> out{uint8_t(number(o.reg)), uint8_t(value)};
    if (o.mode == "w") out.push_back(uint8_t(value >> 8));
    return IIC_WriteBytes(t.handle, t.channel, uint16_t(number(o.address)), out.data(),
                          int32_t(out.size()), 100);
  });
}

// i2cdump's -r FIRST-LAST: registers 0x00-0xff, FIRST not after LAST.
bool parse_register_range(const std::string& text, int& first, int& last) {
  const auto dash = text.find('-');
  uint32_t a = 0, b = 0;
  if (dash == std::string::npos || !parse_number(text.substr(0, dash), 0xFF, a) ||
      !parse_number(text.substr(dash + 1), 0xFF, b) || a > b)
    return false;
  first = int(a);
  last = int(b);
  return true;
}

using RegisterRead = std::function<int(int reg, int& value)>;

// Reads registers first..last into `cells`. A register the device refused (a status byte) shows
// as XX, as in i2cdump; a failure of the adapter itself (negative) ends the dump.
int read_registers(std::array<int, 256>& cells, int first, int last, const RegisterRead& read) {
  for (int r = first; r <= last; ++r) {
    int value = 0;
    const int rc = read(r, value);
    if (rc < 0) return rc;
    cells[size_t(r)] = rc == 0 ? value : kFailed;
  }
  return 0;
}

// The dump's transactions, one mode each as i2cdump makes them: b a register byte each (write the
// register, repeated start, read 1), w a word each (read 2, low byte first), c one register write
// then a receive byte each, i 32-byte reads from FIRST on, s one SMBus block read of command 0.
CallResult dump_registers(const Target& t, uint16_t address, const std::string& mode, int first,
                          int& last, std::array<int, 256>& cells) {
  const auto h = t.handle;
  const auto ch = t.channel;
  uint8_t in[VARNEL_SMBUS_BLOCK_MAX > 32 ? VARNEL_SMBUS_BLOCK_MAX : 32];
  if (mode == "b" || mode == "w") {
    const int length = mode == "w" ? 2 : 1;
    return read_registers(cells, first, last, [&](int reg, int& value) {
      const uint8_t r = uint8_t(reg);
      const int rc = IIC_WriteReadBytes(h, ch, address, &r, 1, in, length, 100);
      value = length == 2 ? in[0] | in[1] << 8 : in[0];
      return rc;
    });
  }
  if (mode == "c") {
    const uint8_t start = uint8_t(first);
    if (int rc = IIC_WriteBytes(h, ch, address, &start, 1, 100)) return rc;
    return read_registers(cells, first, last, [&](int, int& value) {
      const int rc = IIC_ReadBytes(h, ch, address, in, 1, 100);
      value = in[0];
      return rc;
    });
  }
  if (mode == "i") {
    for (int at = first; at <= last; at += 32) {
      const uint8_t r = uint8_t(at);
      if (int rc = IIC_WriteReadBytes(h, ch, address, &r, 1, in, 32, 100)) return rc;
      for (int k = 0; k < 32 && at + k <= last; ++k) cells[size_t(at + k)] = in[k];
    }
    return 0;
  }
  uint32_t count = 0;
  if (int rc = SMBUS_BlockRead(h, ch, address, 0, in, &count, false)) return rc;
  if (count == 0 || count > VARNEL_SMBUS_BLOCK_MAX) {
    std::fprintf(stderr, "i2c dump: the block read gave %u bytes\n", count);
    exit_code() = 1;
    return CallResult::reported();
  }
  for (uint32_t k = 0; k < count; ++k) cells[k] = in[k];
  last = int(count) - 1;
  return 0;
}

void run_dump(const I2cOptions& o) {
  if (!address_allowed(o, "i2c dump")) return;
  int first = 0, last = 0xFF;
  if (!o.registers.empty() && o.mode == "s") {
    std::fprintf(stderr, "i2c dump: -r does not go with mode s (the block sets the range)\n");
    exit_code() = 2;
    return;
  }
  if (!o.registers.empty()) parse_register_range(o.registers, first, last);  // validated
  with_channel(o, "i2c dump", [&](Target t) {
    std::array<int, 256> cells;
    cells.fill(kOutside);
    CallResult result = dump_registers(t, uint16_t(number(o.address)), o.mode, first, last, cells);
    if (result.code != 0) return result;
    const std::string table = o.mode == "w" ? word_table(cells, first, last)
                                            : byte_table(cells, first, last, o.mode == "s");
    std::fputs(table.c_str(), stdout);
    return CallResult();
  });
}

// i2ctransfer's messages: {r|w}LENGTH[@ADDRESS], a write followed by its bytes; the address
// carries over from the message before.
struct Message {
  bool read = false;
  uint16_t address = 0;
  std::vector<uint8_t> bytes;
  int length = 0;
};

bool parse_messages(const std::vector<std::string>& words, std::vector<Message>& messages,
                    std::string& error) {
  int address = -1;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& w = words[i];
    Message m;
    uint32_t length = 0, at = 0;
    auto sep = w.find('@');
    if (w.empty() || (w[0] != 'r' && w[0] != 'w') ||
        !parse_number(w.substr(1, sep == std::string::npos ? sep : sep - 1), 0xFFFF, length)) {
      error = "expected a message like w2@0x50 or r8, not '" + w + "'";
      return false;
    }
    if (sep != std::string::npos) {
      if (!parse_number(w.substr(sep + 1), 0x7F, at)) {
        error = "bad address in '" + w + "'";
        return false;
      }
      address = int(at);
    }
    if (address < 0) {
      error = "the first message needs an address (w1@0x50)";
      return false;
    }
    m.read = w[0] == 'r';
    m.address = uint16_t(address);
    m.length = int(length);
    for (uint32_t k = 0; !m.read && k < length; ++k) {
      uint32_t byte = 0;
      if (++i >= words.size() || !parse_number(words[i], 0xFF, byte)) {
        error = "'" + w + "' needs " + std::to_string(length) + " data bytes";
        return false;
      }
      m.bytes.push_back(uint8_t(byte));
    }
    messages.push_back(std::move(m));
  }
  return !messages.empty();
}

void print_bytes(const std::vector<uint8_t>& bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) std::printf(i ? " 0x%02x" : "0x%02x", bytes[i]);
  std::printf("\n");
}

void run_transfer(const I2cOptions& o) {
  std::vector<Message> messages;
  std::string error;
  if (!parse_messages(o.words, messages, error)) {
    std::fprintf(stderr, "i2c transfer: %s\n", error.c_str());
    exit_code() = 2;
    return;
  }
  with_channel(o, "i2c transfer", [&messages](Target t) {
    for (size_t i = 0; i < messages.size(); ++i) {
      Message& m = messages[i];
      std::vector<uint8_t> in;
      int rc;
      // A write and a read of the same address go as one transfer with a repeated start; other
      // messages each as a transfer of their own.
      if (!m.read && i + 1 < messages.size() && messages[i + 1].read &&
          messages[i + 1].address == m.address) {
        in.resize(size_t(messages[++i].length));
        rc = IIC_WriteReadBytes(t.handle, t.channel, m.address, m.bytes.data(),
                                int32_t(m.bytes.size()), in.data(), int32_t(in.size()), 100);
      } else if (m.read) {
        in.resize(size_t(m.length));
        rc = IIC_ReadBytes(t.handle, t.channel, m.address, in.data(), m.length, 100);
      } else {
        rc = IIC_WriteBytes(t.handle, t.channel, m.address, m.bytes.data(), int32_t(m.bytes.size()),
                            100);
      }
      if (rc != 0) return rc;
      if (messages[i].read) print_bytes(in);
    }
    return 0;
  });
}

void run_smbus(const I2cOptions& o, const std::string& protocol) {
  with_channel(o, "smbus " + protocol, [&](Target t) -> CallResult {
    uint16_t address = uint16_t(number(o.address));
    uint8_t code = uint8_t(number(o.reg)), in[VARNEL_SMBUS_BLOCK_MAX];
    std::vector<uint8_t> out;
    for (auto& w : o.words) out.push_back(uint8_t(number(w)));
    uint32_t count = 0;
    int rc = protocol == "block-write" ? SMBUS_BlockWrite(t.handle, t.channel, address, code,
                                                          out.data(), uint32_t(out.size()), o.pec)
             : protocol == "block-read"
                 ? SMBUS_BlockRead(t.handle, t.channel, address, code, in, &count, o.pec)
                 : SMBUS_BlockProcessCall(t.handle, t.channel, address, code, out.data(),
                                          uint32_t(out.size()), in, &count, o.pec);
    if (rc == 0 && protocol != "block-write") print_bytes(std::vector<uint8_t>(in, in + count));
    return rc;
  });
}

void add_target(CLI::App* command, I2cOptions& o) {
  command->add_option("TARGET", o.target, "HANDLE:CHANNEL, e.g. 0x12345678:0")
      ->required()
      ->check(CLI::Validator(
          [](std::string& text) {
            Target t;
            return parse_target(text, t) ? std::string() : "TARGET must be HANDLE:CHANNEL";
          },
          "HANDLE:CH", "target"));
  command->add_option("--clock", o.clock, "bus clock in Hz (default 100000)")
      ->check(CLI::Range(1000u, 5000000u));
  command->add_flag("-y", o.yes, "taken as i2c-tools takes it: we never ask anyway");
}

void add_all_addresses(CLI::App* command, I2cOptions& o, const char* what) {
  command->add_flag("-a", o.all_addresses, what);
}

void add_address(CLI::App* command, I2cOptions& o) {
  command->add_option("ADDR", o.address, "7-bit device address, e.g. 0x50")
      ->required()
      ->check(number_validator("ADDR", 0x7F));
}

void add_i2c_commands(CLI::App& app) {
  CLI::App* i2c = app.add_subcommand("i2c", "I2C master: scan, registers, dumps, transfers");
  i2c->require_subcommand(1);
  auto o = std::make_shared<I2cOptions>();

  CLI::App* detect = i2c->add_subcommand("detect", "show which addresses answer (i2cdetect)");
  add_target(detect, *o);
  add_all_addresses(detect, *o, "scan 0x00-0x7f instead of 0x08-0x77");
  detect->add_option("RANGE", o->range, "FIRST LAST: scan only these addresses")
      ->expected(0, 2)
      ->check(number_validator("FIRST and LAST", 0x7F));
  detect->callback([o] { run_detect(*o); });

  CLI::App* get = i2c->add_subcommand("get", "read a register (i2cget)");
  add_target(get, *o);
  add_address(get, *o);
  add_all_addresses(get, *o, "allow addresses 0x00-0x07 and 0x78-0x7f");
  get->add_option("REG", o->reg, "register (none: a receive byte)")
      ->check(number_validator("REG", 0xFF));
  get->add_option("MODE", o->mode, "b byte (default), w word")->check(CLI::IsMember({"b", "w"}));
  get->callback([o] { run_get(*o); });

  CLI::App* set = i2c->add_subcommand("set", "write a register (i2cset)");
  add_target(set, *o);
  add_address(set, *o);
  add_all_addresses(set, *o, "allow addresses 0x00-0x07 and 0x78-0x7f");
  set->add_option("REG", o->reg, "register")->required()->check(number_validator("REG", 0xFF));
  set->add_option("VALUE", o->value, "value")->required()->check(number_validator("VALUE", 0xFFFF));
  set->add_option("MODE", o->mode, "b byte (default), w word")->check(CLI::IsMember({"b", "w"}));
  set->callback([o] { run_set(*o); });

  CLI::App* dump = i2c->add_subcommand("dump", "show 256 registers (i2cdump)");
  add_target(dump, *o);
  add_address(dump, *o);
  add_all_addresses(dump, *o, "allow addresses 0x00-0x07 and 0x78-0x7f");
  dump->add_option("MODE", o->mode,
                   "b byte (default), w word, c consecutive bytes, s SMBus block, i I2C block")
      ->check(CLI::IsMember({"b", "w", "c", "s", "i"}));
  dump->add_option("-r", o->registers, "only registers FIRST-LAST, e.g. 0x00-0x3f")
      ->check(CLI::Validator(
          [](std::string& text) {
            int first, last;
            return parse_register_range(text, first, last)
                       ? std::string()
                       : "-r takes FIRST-LAST, registers 0x00-0xff, FIRST not after LAST";
          },
          "FIRST-LAST", "registers"));
  dump->callback([o] { run_dump(*o); });

  CLI::App* transfer =
      i2c->add_subcommand("transfer", "messages in i2ctransfer's form: w2@0x50 0x00 0x10 r8");
  add_target(transfer, *o);
  transfer->add_option("MESSAGES", o->words, "messages and their data bytes")->required();
  transfer->callback([o] { run_transfer(*o); });

  CLI::App* smbus = app.add_subcommand("smbus", "SMBus block protocols");
  smbus->require_subcommand(1);
  for (const char* protocol : {"block-read", "block-write", "block-call"}) {
    auto so = std::make_shared<I2cOptions>();
    CLI::App* sub = smbus->add_subcommand(protocol, std::string("SMBus ") + protocol);
    add_target(sub, *so);
    add_address(sub, *so);
    sub->add_option("CMD", so->reg, "command code")
        ->required()
        ->check(number_validator("CMD", 0xFF));
    if (std::string(protocol) != "block-read")
      sub->add_option("BYTES", so->words, "data bytes (at most 32)")
          ->check(number_validator("BYTE", 0xFF));
    sub->add_flag("--pec", so->pec, "with packet error checking");
    std::string name = protocol;
    sub->callback([so, name] { run_smbus(*so, name); });
  }
}

VARNEL_COMMAND_GROUP(add_i2c_commands)

}  // namespace
}  // namespace varnel_cli
