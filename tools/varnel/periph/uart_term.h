// `varnel uart ... term`: a terminal on a UART channel in the manner of picocom.
#pragma once

#include <cstdint>

namespace varnel_cli {

// Standard input goes to the channel, what the channel receives to standard output, until
// Ctrl-A Ctrl-X or, when standard input is not a terminal, its end (after what is still coming
// back has been shown). The terminal is put in raw mode only when standard input is one.
// Returns 0, or the failing UART call's result.
int run_uart_terminal(uint32_t handle, uint8_t channel);

}  // namespace varnel_cli
