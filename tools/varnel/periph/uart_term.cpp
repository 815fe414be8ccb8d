#include "periph/uart_term.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

namespace varnel_cli {

bool parse_char_map(const std::string& text, unsigned& map) {
  static const char* const names[] = {"crlf",  "crcrlf", "igncr",   "lfcr",   "lfcrlf",
                                      "ignlf", "bsdel",  "delbs",   "spchex", "tabhex",
                                      "crhex", "lfhex",  "8bithex", "nrmhex"};
  map = 0;
  for (size_t at = 0; at <= text.size();) {
    size_t comma = text.find(',', at);
    if (comma == std::string::npos) comma = text.size();
    const std::string name = text.substr(at, comma - at);
    at = comma + 1;
    if (name.empty()) continue;  // picocom writes its own lists with a trailing comma
    size_t k = 0;
    while (k < std::size(names) && name != names[k]) ++k;
    if (k == std::size(names)) return false;
    map |= 1u << k;
  }
  return true;
}

std::string map_char(uint8_t c, unsigned map) {
  auto has = [map](unsigned bit) { return (map & bit) != 0; };
  if (c == '\r' && has(kMapCrLf)) return "\n";
  if (c == '\r' && has(kMapCrCrLf)) return "\r\n";
  if (c == '\r' && has(kMapIgnCr)) return "";
  if (c == '\n' && has(kMapLfCr)) return "\r";
  if (c == '\n' && has(kMapLfCrLf)) return "\r\n";
  if (c == '\n' && has(kMapIgnLf)) return "";
  if (c == '\b' && has(kMapBsDel)) return "\x7f";
  if (c == 0x7F && has(kMapDelBs)) return "\b";
  const bool special = (c < 0x20 || c == 0x7F) && c != '\r' && c != '\n' && c != '\t';
  if ((special && has(kMapSpcHex)) || (c == '\t' && has(kMapTabHex)) ||
      (c == '\r' && has(kMapCrHex)) || (c == '\n' && has(kMapLfHex)) ||
      (c >= 0x80 && has(k8BitHex)) || (c >= 0x20 && c < 0x7F && has(kMapNrmHex))) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "[%02x]", c);
    return hex;
  }
  return std::string(1, char(c));
}

namespace {

// The command keys after the escape, Ctrl-A.
enum Key : uint8_t {
  kEscape = 0x01,    // Ctrl-A
  kSetBaud = 0x02,   // Ctrl-B
  kEchoKey = 0x03,   // Ctrl-C
  kBaudDown = 0x04,  // Ctrl-D
  kHelp = 0x08,      // Ctrl-H
  kKeys = 0x0B,      // Ctrl-K
  kQuit = 0x11,      // Ctrl-Q
  kBaudUp = 0x15,    // Ctrl-U
  kExit = 0x18,      // Ctrl-X
};

// The rates the baud-up and baud-down keys step through, picocom's list.
constexpr uint32_t kBaudSteps[] = {
    50,     75,      110,     134,     150,     200,     300,     600,     1200,   2400,
    4800,   9600,    19200,   38400,   57600,   115200,  230400,  460800,  500000, 576000,
    921600, 1000000, 1152000, 1500000, 2000000, 2500000, 3000000, 3500000, 4000000};

uint32_t next_baud(uint32_t now, bool up) {
  uint32_t next = now;
  for (uint32_t b : kBaudSteps)
    if (up ? b > now && (next == now || b < next) : b < now) next = b;
  return next;
}

constexpr const char* kHelpText =
    "\r\n*** Commands (all prefixed by [C-a])\r\n\r\n"
    "*** [C-x] : Exit (the channel is stopped)\r\n"
    "*** [C-q] : Exit without stopping the channel\r\n"
    "*** [C-b] : Set baudrate\r\n"
    "*** [C-u] : Increase baudrate (baud-up)\r\n"
    "*** [C-d] : Decrease baudrate (baud-down)\r\n"
    "*** [C-c] : Toggle local echo\r\n"
    "*** [C-a] : Send C-a\r\n"
    "*** [C-h] : Show this message\r\n";

// After the end of a piped input, what the channel still gives back within this time is shown.
constexpr int32_t kDrainTimeoutMs = 200;

// Raw mode for the life of the object, the previous settings restored after.
class RawTerminal {
 public:
  RawTerminal() {
    if (!isatty(STDIN_FILENO) || tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios raw = saved_;
    cfmakeraw(&raw);
    active_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
  }
  ~RawTerminal() {
    if (active_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
  }
  RawTerminal(const RawTerminal&) = delete;
  RawTerminal& operator=(const RawTerminal&) = delete;
  bool active() const { return active_; }

 private:
  termios saved_{};
  bool active_ = false;
};

void show(const std::string& text) {
  (void)!write(STDOUT_FILENO, text.data(), text.size());
}

// The session's state: what is typed goes out (or is a command), what comes in is shown.
class Terminal {
 public:
  enum class End { kNone, kExit, kQuit };

  Terminal(uint32_t handle, uint8_t channel, TerminalSettings settings)
      : handle_(handle), channel_(channel), s_(settings) {}

  End end() const { return end_; }

  // Typed bytes: sent, or taken as commands. A negative UART result ends the session.
  int typed(const uint8_t* in, size_t n) {
    for (size_t i = 0; i < n && end_ == End::kNone; ++i) {
      const uint8_t c = in[i];
      int rc = 0;
      if (mode_ == Mode::kCommand)
        rc = command(c);
      else if (mode_ == Mode::kBaudPrompt)
        rc = baud_prompt(c);
      else if (c == kEscape)
        mode_ = Mode::kCommand;
      else
        out(c);
      if (rc < 0) return rc;
    }
    return flush();
  }

  // Shows what the channel has received: the number of bytes, or a failure code.
  int show_received(int32_t timeout_ms) {
    uint8_t buffer[VARNEL_UART_READ_SIZE];
    const int n = UART_ReadBytes(handle_, channel_, buffer, timeout_ms);
    std::string text;
    for (int i = 0; i < n; ++i) text += map_char(buffer[i], s_.input_map);
    show(text);
    return n;
  }

 private:
  enum class Mode { kTransparent, kCommand, kBaudPrompt };

  void out(uint8_t c) {
    for (char m : map_char(c, s_.output_map)) pending_.push_back(uint8_t(m));
    if (s_.echo) show(map_char(c, s_.echo_map));
  }

  int flush() {
    if (pending_.empty()) return 0;
    const int rc = UART_WriteBytes(handle_, channel_, pending_.data(), int32_t(pending_.size()));
    pending_.clear();
    return rc;
  }

  int command(uint8_t c) {
    mode_ = Mode::kTransparent;
    if (int rc = flush()) return rc;  // what was typed before goes at the old rate
    switch (c) {
      case kEscape:
        pending_.push_back(c);
        return 0;
      case kExit:
      case kQuit:
        end_ = c == kExit ? End::kExit : End::kQuit;
        return 0;
      case kEchoKey:
        s_.echo = !s_.echo;
        show(std::string("\r\n*** local echo: ") + (s_.echo ? "yes" : "no") + " ***\r\n");
        return 0;
      case kBaudUp:
      case kBaudDown:
        return set_baud(next_baud(s_.config.BaudRate, c == kBaudUp));
      case kSetBaud:
        mode_ = Mode::kBaudPrompt;
        typed_baud_.clear();
        show("\r\n*** baud: ");
        return 0;
      case kHelp:
      case kKeys:
        show(kHelpText);
        return 0;
      default:  // not a command: nothing happens, as in picocom
        return 0;
    }
  }

  // Digits up to Enter; Backspace takes one back; any other key gives up.
  int baud_prompt(uint8_t c) {
    if (c >= '0' && c <= '9' && typed_baud_.size() < 8) {
      typed_baud_ += char(c);
      show(std::string(1, char(c)));
      return 0;
    }
    if ((c == '\b' || c == 0x7F) && !typed_baud_.empty()) {
      typed_baud_.pop_back();
      show("\b \b");
      return 0;
    }
    mode_ = Mode::kTransparent;
    show("\r\n");
    if (c != '\r' && c != '\n') return 0;
    const uint32_t baud = typed_baud_.empty() ? 0 : uint32_t(std::stoul(typed_baud_));
    if (baud == 0) {
      show("\r\n*** invalid baudrate ***\r\n");
      return 0;
    }
    return set_baud(baud);
  }

  // The channel at another rate; a rate the adapter refuses leaves the one before.
  int set_baud(uint32_t baud) {
    const uint32_t before = s_.config.BaudRate;
    s_.config.BaudRate = baud;
    int rc = UART_Init(handle_, channel_, &s_.config);
    if (rc != 0) {
      show("\r\n*** baud: " + std::to_string(baud) + " refused (" + std::to_string(rc) +
           ") ***\r\n");
      s_.config.BaudRate = before;
      rc = UART_Init(handle_, channel_, &s_.config);
    }
    show("\r\n*** baud: " + std::to_string(s_.config.BaudRate) + " ***\r\n");
    return rc;
  }

  uint32_t handle_;
  uint8_t channel_;
  TerminalSettings s_;
  Mode mode_ = Mode::kTransparent;
  End end_ = End::kNone;
  std::string typed_baud_;
  std::vector<uint8_t> pending_;
};

}  // namespace

int run_uart_terminal(uint32_t handle, uint8_t channel, TerminalSettings settings) {
  RawTerminal raw;
  if (raw.active() && !settings.quiet)
    show("Type [C-a] [C-h] to see available commands\r\nTerminal ready\r\n");
  Terminal terminal(handle, channel, settings);
  bool input_open = true;
  while (input_open && terminal.end() == Terminal::End::kNone) {
    pollfd in{STDIN_FILENO, POLLIN, 0};
    if (poll(&in, 1, 5) > 0) {
      uint8_t chunk[256];
      const ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
      input_open = n > 0;
      if (int rc = terminal.typed(chunk, n > 0 ? size_t(n) : 0); rc < 0) return rc;
    }
    if (int rc = terminal.show_received(0); rc < 0) return rc;
  }
  if (terminal.end() == Terminal::End::kNone) {  // the input ended: show what still comes
    for (int n; (n = terminal.show_received(kDrainTimeoutMs)) != 0;)
      if (n < 0) return n;
  } else if (!settings.quiet) {
    show("\r\nTerminating...\r\n");
  }
  if (terminal.end() == Terminal::End::kQuit) {
    if (!settings.quiet) show("Skipping channel stop...\r\n");
    return 0;
  }
  return UART_Stop(handle, channel);
}

}  // namespace varnel_cli
