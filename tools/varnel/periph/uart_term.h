// `varnel uart ... term`: a terminal on a UART channel in the manner of picocom.
#pragma once

#include <cstdint>
#include <string>

#include "varnel.h"

namespace varnel_cli {

// picocom's character maps (--imap, --omap, --emap), as a set of these bits.
enum CharMap : unsigned {
  kMapCrLf = 1u << 0,     // CR to LF
  kMapCrCrLf = 1u << 1,   // CR to CR LF
  kMapIgnCr = 1u << 2,    // CR dropped
  kMapLfCr = 1u << 3,     // LF to CR
  kMapLfCrLf = 1u << 4,   // LF to CR LF
  kMapIgnLf = 1u << 5,    // LF dropped
  kMapBsDel = 1u << 6,    // BS to DEL
  kMapDelBs = 1u << 7,    // DEL to BS
  kMapSpcHex = 1u << 8,   // control characters but CR, LF and TAB as [xx]
  kMapTabHex = 1u << 9,   // TAB as [09]
  kMapCrHex = 1u << 10,   // CR as [0d]
  kMapLfHex = 1u << 11,   // LF as [0a]
  k8BitHex = 1u << 12,    // bytes from 0x80 as [xx]
  kMapNrmHex = 1u << 13,  // printable ASCII as [xx]
};

// "crlf,delbs" to its bits; false for a name picocom does not know.
bool parse_char_map(const std::string& text, unsigned& map);

// What `byte` becomes under `map`: of several mappings that apply, the first in the order above.
std::string map_char(uint8_t byte, unsigned map);

struct TerminalSettings {
  UART_CONFIG config{};  // what the channel was set up with; the baud-rate keys change it
  bool echo = false;     // --echo: typed characters shown as they go out
  bool quiet = false;    // --quiet: no greeting
  unsigned input_map = 0, output_map = 0, echo_map = kMapCrCrLf | kMapDelBs;
};

// Standard input goes to the channel, what the channel receives to standard output, until
// Ctrl-A Ctrl-X (which stops the channel, as picocom resets its port) or Ctrl-A Ctrl-Q (which
// leaves it running), or, when standard input is not a terminal, its end (after what is still
// coming back has been shown). Ctrl-A then: Ctrl-C local echo, Ctrl-U / Ctrl-D the next baud rate
// up / down, Ctrl-B a baud rate typed in, Ctrl-H or Ctrl-K the keys, Ctrl-A a Ctrl-A sent. The
// terminal is put in raw mode only when standard input is one. Returns 0, or the failing UART
// call's result.
int run_uart_terminal(uint32_t handle, uint8_t channel, TerminalSettings settings);

}  // namespace varnel_cli
