#include "periph/uart_term.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "varnel.h"

namespace varnel_cli {
namespace {

constexpr uint8_t kEscape = 0x01;  // Ctrl-A
constexpr uint8_t kQuit = 0x18;    // Ctrl-X
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

// Ctrl-A Ctrl-X ends the session; Ctrl-A Ctrl-A sends one Ctrl-A; any other byte goes out.
class KeyFilter {
 public:
  bool quit = false;
  std::vector<uint8_t> pass(const uint8_t* in, size_t n) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i < n && !quit; ++i) {
      const uint8_t c = in[i];
      if (escaped_) {
        escaped_ = false;
        quit = c == kQuit;
        if (c == kEscape) out.push_back(c);
      } else if (c == kEscape) {
        escaped_ = true;
      } else {
        out.push_back(c);
      }
    }
    return out;
  }

 private:
  bool escaped_ = false;
};

// Shows what the channel has received: the number of bytes, or a failure code.
int show_received(uint32_t handle, uint8_t channel, int32_t timeout_ms) {
  uint8_t buffer[VARNEL_UART_READ_SIZE];
  const int n = UART_ReadBytes(handle, channel, buffer, timeout_ms);
  if (n > 0) {
    (void)!write(STDOUT_FILENO, buffer, size_t(n));
  }
  return n;
}

}  // namespace

int run_uart_terminal(uint32_t handle, uint8_t channel) {
  RawTerminal terminal;
  if (terminal.active()) std::fprintf(stderr, "Terminal ready (Ctrl-A Ctrl-X leaves)\r\n");
  KeyFilter keys;
  bool input_open = true;
  while (input_open && !keys.quit) {
    pollfd in{STDIN_FILENO, POLLIN, 0};
    if (poll(&in, 1, 5) > 0) {
      uint8_t chunk[256];
      const ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
      input_open = n > 0;
      const auto out = keys.pass(chunk, n > 0 ? size_t(n) : 0);
      if (!out.empty())
        if (int rc = UART_WriteBytes(handle, channel, out.data(), int32_t(out.size()))) return rc;
    }
    if (int rc = show_received(handle, channel, 0); rc < 0) return rc;
  }
  if (keys.quit) {
    if (terminal.active()) std::fprintf(stderr, "\r\nTerminal closed\r\n");
    return 0;
  }
  for (int n; (n = show_received(handle, channel, kDrainTimeoutMs)) != 0;)
    if (n < 0) return n;
  return 0;
}

}  // namespace varnel_cli
