// `varnel uart`: a UART channel from the shell. TARGET is HANDLE:CHANNEL (channel 0 when left out);
// each command configures the channel first: --baud (-b, 115200 by default), and picocom's framing
// options --parity (-y) n, o or e, --stopbits (-p) 1 or 2 and --databits (-d, 8 only); 8N1
// unless told otherwise.
//   varnel uart TARGET send DEADBEEF             bytes in hex
//   varnel uart TARGET send -t 'AT\r\n'          text, with echo -e's escapes
//   varnel uart TARGET read [--timeout MS] [--count N] [--raw]
//   varnel uart TARGET term [-c] [--imap|--omap|--emap MAPS] [-q]
//                                                stdin to the channel, the channel to stdout
#include <unistd.h>

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
#include "periph/uart_term.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

struct UartOptions {
  std::string target, data;
  uint32_t baud = 115200;
  char parity = 'n';
  uint8_t stop_bits = 1;
  bool text = false, raw = false;
  int32_t timeout_ms = 1000;
  uint32_t count = 0;  // 0: all that comes
  unsigned data_bits = 8;
  TerminalSettings term;
};

using Target = ChannelTarget;

bool parse_target(const std::string& text, Target& t) {
  return parse_channel_target(text, VARNEL_UART_MAX_CHANNELS, true, t);
}

int hex_digit(char c) {
  if (std::isdigit(static_cast<unsigned char>(c))) return c - '0';
  c = char(std::tolower(static_cast<unsigned char>(c)));
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// "DEADBEEF", "de ad be ef": pairs of hex digits, spaces ignored.
bool parse_hex(const std::string& text, std::vector<uint8_t>& out) {
  std::string digits;
  for (char c : text)
    if (c != ' ') digits += c;
  if (digits.size() % 2) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    const int high = hex_digit(digits[i]), low = hex_digit(digits[i + 1]);
    if (high < 0 || low < 0) return false;
    out.push_back(uint8_t(high << 4 | low));
  }
  return true;
}

// Up to `max` digits of `base` from text[at]; advances `at` past them.
unsigned digits_value(const std::string& text, size_t& at, int base, int max) {
  unsigned value = 0;
  for (int n = 0; n < max && at < text.size(); ++n, ++at) {
    const int d = hex_digit(text[at]);
    if (d < 0 || d >= base) break;
    value = value * unsigned(base) + unsigned(d);
  }
  return value;
}

// echo -e: \\ \a \b \e \f \n \r \t \v, \0NNN octal, \xHH hex; an unknown escape stays as written.
std::vector<uint8_t> unescape(const std::string& text) {
  static const std::string from = "\\abefnrtv", to = "\\\a\b\x1b\f\n\r\t\v";
  std::vector<uint8_t> out;
  for (size_t i = 0; i < text.size();) {
    const char c = text[i++];
    if (c != '\\' || i == text.size()) {
      out.push_back(uint8_t(c));
      continue;
    }
    const char e = text[i];
    if (const size_t k = from.find(e); k != std::string::npos) {
      out.push_back(uint8_t(to[k]));
      ++i;
    } else if (e == '0') {
      out.push_back(uint8_t(digits_value(text, ++i, 8, 3)));
    } else if (e == 'x' && i + 1 < text.size() && hex_digit(text[i + 1]) >= 0) {
      out.push_back(uint8_t(digits_value(text, ++i, 16, 2)));
    } else {
      out.push_back('\\');
    }
  }
  return out;
}

UART_CONFIG uart_config(const UartOptions& o) {
  UART_CONFIG config{};
  config.BaudRate = o.baud;
  config.Parity = o.parity == 'o' ? 1 : o.parity == 'e' ? 2 : 0;  // the firmware's codes
  config.StopBits = o.stop_bits;
  return config;
}

// A session on the channel, configured with the framing asked for.
void with_channel(const UartOptions& o, const std::string& what, const SessionStep& work) {
  Target target;
  parse_target(o.target, target);
  run_channel_session(
      {"uart " + what}, target,
      [&o](const Target& t) {
        const UART_CONFIG config = uart_config(o);
        return CallResult(UART_Init(t.handle, t.channel, &config),
                          {"UART_Init", {{"baud rate", std::to_string(o.baud)}}});
      },
      work);
}

void run_send(const UartOptions& o) {
  std::vector<uint8_t> bytes;
  if (o.text) {
    bytes = unescape(o.data);
  } else if (!parse_hex(o.data, bytes)) {
    std::fprintf(stderr, "uart send: '%s' is not hex (or use --text)\n", o.data.c_str());
    exit_code() = 2;
    return;
  }
  with_channel(o, "send", [&](Target t) {
    return UART_WriteBytes(t.handle, t.channel, bytes.data(), int32_t(bytes.size()));
  });
}

void print_received(const std::vector<uint8_t>& bytes, bool raw) {
  if (raw) {
    (void)!write(STDOUT_FILENO, bytes.data(), bytes.size());
    return;
  }
  for (size_t i = 0; i < bytes.size(); ++i) std::printf(i ? " %02X" : "%02X", bytes[i]);
  if (!bytes.empty()) std::printf("\n");
}

// Reads until a wait of --timeout brings nothing, or --count bytes came.
void run_read(const UartOptions& o) {
  with_channel(o, "read", [&](Target t) {
    std::vector<uint8_t> got;
    uint8_t buffer[VARNEL_UART_READ_SIZE];
    while (o.count == 0 || got.size() < o.count) {
      const int n = UART_ReadBytes(t.handle, t.channel, buffer, o.timeout_ms);
      if (n < 0) return n;
      if (n == 0) break;
      got.insert(got.end(), buffer, buffer + n);
    }
    if (o.count && got.size() > o.count) got.resize(o.count);
    print_received(got, o.raw);
    return 0;
  });
}

void run_term(const UartOptions& o) {
  TerminalSettings settings = o.term;
  settings.config = uart_config(o);
  with_channel(o, "term",
               [&](Target t) { return run_uart_terminal(t.handle, t.channel, settings); });
}

void add_uart_commands(CLI::App& app) {
  CLI::App* uart = app.add_subcommand("uart", "UART channel: send, read, terminal");
  uart->require_subcommand(1);
  auto o = std::make_shared<UartOptions>();
  uart->add_option("TARGET", o->target, "HANDLE:CHANNEL, e.g. 0x12345678:0")
      ->required()
      ->check(CLI::Validator(
          [](std::string& text) {
            Target t;
            return parse_target(text, t) ? std::string()
                                         : "TARGET must be HANDLE:CHANNEL (channel 0 to 7)";
          },
          "HANDLE:CH", "target"));
  uart->add_option("-b,--baud", o->baud, "baud rate (default 115200)")
      ->check(CLI::Range(1u, 20000000u));
  uart->add_option("-y,--parity", o->parity, "parity: n (none, the default), o (odd), e (even)")
      ->check(CLI::IsMember({'n', 'o', 'e'}));
  uart->add_option("-p,--stopbits", o->stop_bits, "stop bits: 1 (the default) or 2")
      ->check(CLI::IsMember({1, 2}));
  // The adapter's UART frames 8 data bits (its configuration has no field for fewer): -d is taken
  // for picocom's sake, and 5, 6 or 7 are refused rather than ignored.
  uart->add_option("-d,--databits", o->data_bits, "data bits: 8 (the adapter's only framing)")
      ->check(CLI::IsMember({8}));

  CLI::App* send = uart->add_subcommand("send", "send bytes (hex, or text with --text)");
  send->add_option("DATA", o->data, "DEADBEEF, or text with --text")->required();
  send->add_flag("-t,--text", o->text, "DATA is text with echo -e's escapes (\\r \\n \\x41 ...)");
  send->callback([o] { run_send(*o); });

  CLI::App* read = uart->add_subcommand("read", "print what the channel received, in hex");
  read->add_option("--timeout", o->timeout_ms, "ms to wait for bytes (default 1000)")
      ->check(CLI::Range(0, 3600000));
  read->add_option("--count", o->count, "stop after this many bytes");
  read->add_flag("--raw", o->raw, "write the bytes as they are instead of hex");
  read->callback([o] { run_read(*o); });

  CLI::App* term = uart->add_subcommand("term", "terminal: stdin to the channel, it to stdout");
  term->fallthrough();  // picocom puts -b, -y, -p, -d after the command: `term -b 9600`
  term->add_flag("-c,--echo", o->term.echo, "local echo (Ctrl-A Ctrl-C toggles it)");
  term->add_flag("-q,--quiet", o->term.quiet, "no greeting or leaving messages");
  const auto map_option = [&](const char* name, unsigned& map, const char* what) {
    term->add_option_function<std::string>(
            name, [&map](const std::string& text) { parse_char_map(text, map); },  // validated
            std::string(what) + ": picocom's maps, e.g. crlf,delbs")
        ->type_name("MAPS")
        ->check(CLI::Validator(
            [](std::string& text) {
              unsigned map;
              return parse_char_map(text, map)
                         ? std::string()
                         : "maps are crlf, crcrlf, igncr, lfcr, lfcrlf, ignlf, bsdel, delbs, "
                           "spchex, tabhex, crhex, lfhex, 8bithex, nrmhex";
            },
            "MAPS"));
  };
  map_option("--imap", o->term.input_map, "what comes in, before it is shown");
  map_option("--omap", o->term.output_map, "what is typed, before it goes out");
  map_option("--emap", o->term.echo_map, "the local echo (default crcrlf,delbs)");
  term->callback([o] { run_term(*o); });
}

VARNEL_COMMAND_GROUP(add_uart_commands)

}  // namespace
}  // namespace varnel_cli
