// `varnel i2c` and `varnel smbus`, in the manner of i2c-tools. TARGET is HANDLE:CHANNEL (the
// channel defaults to 0); each command initialises the channel as a 7-bit master first.
//   varnel i2c detect TARGET                     the 16 x 8 grid of answering addresses
//   varnel i2c get TARGET ADDR REG [b|w]         a register byte, or a word (SMBus order)
//   varnel i2c set TARGET ADDR REG VALUE [b|w]
//   varnel i2c dump TARGET ADDR                  256 registers as hex and ASCII
//   varnel i2c transfer TARGET w2@0x50 0x00 0x10 r8
//   varnel smbus TARGET block-read|block-write|block-call ADDR CMD [BYTES...] [--pec]
#include <cctype>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/adapter.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
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
  uint32_t clock = 100000;
  bool pec = false;
};

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

void run_detect(const I2cOptions& o) {
  with_channel(o, "i2c detect", [](Target t) {
    uint16_t found[1024];
    int n = IIC_GetSlaveAddr(t.handle, t.channel, found);
    if (n < 0) return n;
    std::vector<bool> present(128);
    for (int i = 0; i < n; ++i)
      if (found[i] < 128) present[found[i]] = true;
    // i2cdetect's grid: the reserved addresses 0x00-0x02 and 0x78-0x7F are left blank.
    std::printf("     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n");
    for (int row = 0; row < 128; row += 16) {
      std::printf("%02x:", row);
      for (int a = row; a < row + 16; ++a) {
        if (a < 0x03 || a > 0x77)
          std::printf("   ");
        else if (present[size_t(a)])
          std::printf(" %02x", a);
        else
          std::printf(" --");
      }
      std::printf("\n");
    }
    return 0;
  });
}

void run_get(const I2cOptions& o) {
  with_channel(o, "i2c get", [&o](Target t) {
    uint8_t reg = uint8_t(number(o.reg)), in[2] = {};
    int length = o.mode == "w" ? 2 : 1;
    int rc = IIC_WriteReadBytes(t.handle, t.channel, uint16_t(number(o.address)), &reg, 1, in,
                                length, 100);
    if (rc != 0) return rc;
    if (length == 2)
      std::printf("0x%04x\n", in[0] | in[1] << 8);  // low byte first, as i2cget shows words
    else
      std::printf("0x%02x\n", in[0]);
    return 0;
  });
}

void run_set(const I2cOptions& o) {
  with_channel(o, "i2c set", [&o](Target t) {
    uint32_t value = number(o.value);
    std::vector<uint8_t> out{uint8_t(number(o.reg)), uint8_t(value)};
    if (o.mode == "w") out.push_back(uint8_t(value >> 8));
    return IIC_WriteBytes(t.handle, t.channel, uint16_t(number(o.address)), out.data(),
                          int32_t(out.size()), 100);
  });
}

void run_dump(const I2cOptions& o) {
  with_channel(o, "i2c dump", [&o](Target t) {
    uint8_t all[256];
    for (int row = 0; row < 256; row += 16) {
      uint8_t reg = uint8_t(row);
      int rc = IIC_WriteReadBytes(t.handle, t.channel, uint16_t(number(o.address)), &reg, 1,
                                  all + row, 16, 100);
      if (rc != 0) return rc;
    }
    std::printf("     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f    0123456789abcdef\n");
    for (int row = 0; row < 256; row += 16) {
      std::printf("%02x:", row);
      for (int i = 0; i < 16; ++i) std::printf(" %02x", all[row + i]);
      std::printf("    ");
      for (int i = 0; i < 16; ++i) {
        uint8_t c = all[row + i];
        // i2cdump shows 0x00 and 0xff apart from the other unprintable bytes
        std::putchar(c == 0x00 || c == 0xFF ? '.' : std::isprint(c) ? c : '?');
      }
      std::printf("\n");
    }
    return 0;
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
  detect->callback([o] { run_detect(*o); });

  CLI::App* get = i2c->add_subcommand("get", "read a register (i2cget)");
  add_target(get, *o);
  add_address(get, *o);
  get->add_option("REG", o->reg, "register")->required()->check(number_validator("REG", 0xFF));
  get->add_option("MODE", o->mode, "b byte (default), w word")->check(CLI::IsMember({"b", "w"}));
  get->callback([o] { run_get(*o); });

  CLI::App* set = i2c->add_subcommand("set", "write a register (i2cset)");
  add_target(set, *o);
  add_address(set, *o);
  set->add_option("REG", o->reg, "register")->required()->check(number_validator("REG", 0xFF));
  set->add_option("VALUE", o->value, "value")->required()->check(number_validator("VALUE", 0xFFFF));
  set->add_option("MODE", o->mode, "b byte (default), w word")->check(CLI::IsMember({"b", "w"}));
  set->callback([o] { run_set(*o); });

  CLI::App* dump = i2c->add_subcommand("dump", "show 256 registers (i2cdump)");
  add_target(dump, *o);
  add_address(dump, *o);
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
