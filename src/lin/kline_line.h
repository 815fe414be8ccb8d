// What the K_ and KWP_ calls share: the UART configuration kept per adapter and channel, the
// wake-up patterns on the channel's pin, sending a frame and checking its echo, and polling the
// UART for what the unit answers.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "varnel.h"

namespace varnel::kline {

constexpr int kChannels = VARNEL_LIN_MAX_CHANNELS;
static_assert(kChannels <= VARNEL_UART_MAX_CHANNELS, "each K-line rides on a UART");
// The mode letters of the UART configuration (see docs/kline.md).
constexpr uint8_t kModeK = 'B', kModeRaw = 'R', kModeZ = 'Z';
constexpr int kPollIntervalMs = 10;

// The K-line's own result codes.
enum : int {
  kNoAnswer = -5,       // nothing before the time-out
  kBadAnswer = -6,      // wrong sync byte or inverted address, or a partial response
  kEchoError = -7,      // the echo of what was sent was missing or different
  kChecksumError = -8,  // the response's checksum did not match; the record is still filled
};

using UartConfig = UART_CONFIG;
// The baud rate as it lies in memory, three zero bytes, the mode letter.
UartConfig uart_config(uint32_t baud, uint8_t letter);

// -200 for an unknown handle, else 0. The channel must be below kChannels.
int store_config(uint32_t handle, uint8_t channel, const UartConfig& config);
// What the channel last stored; 10,400 baud and 'B' before that.
UartConfig stored_config(uint32_t handle, uint8_t channel);
// UART_Init with the stored configuration.
int init_uart(uint32_t handle, uint8_t channel);
bool known_handle(uint32_t handle);

// The wake-up patterns below draw on the channel's pin of the adapter's table
// (kline_wakeup_pins.h): bit (channel) of the digital outputs unless the user mapped another.
// Line high 300 ms, the start bit, the address least significant bit first, 200 ms a bit, then
// the stop bit and 10 ms. The first DIO error ends the pattern and is returned.
int send_five_baud_address(uint32_t handle, uint8_t channel, uint8_t address);
// Line high 300 ms, low 25 ms, high 25 ms, in millisecond sleeps (the K_ calls).
int send_fast_pattern_slept(uint32_t handle, uint8_t channel);
// Line high 300 ms, then low 25 ms and high 24 ms (23 ms on a network adapter, whose commands
// take longer to arrive) counted on the high-resolution counter from before each pin command.
int send_fast_pattern_counted(uint32_t handle, uint8_t channel);

// Sends with UART_WriteBytesInterval (P4 ms between bytes), or UART_WriteBytes when `p4` is
// kNoInterval, and reads the echo with UART_ReadBytes(echo_timeout_ms): the UART's error, -7 when
// the echo is not the frame exactly, else 0.
constexpr int kNoInterval = -1;
int send_with_echo(uint32_t handle, uint8_t channel, std::span<const uint8_t> frame, int p4,
                   int echo_timeout_ms);

// Polls UART_ReadBytes without waiting, handing each batch to `take`, with a 10 ms busy wait
// between polls, until `done` says so or the time elapsed on the counter since the first poll
// reaches the time-out (a slow transport makes fewer polls, not a longer wait). Returns 0, or
// the UART's error.
int poll(uint32_t handle, uint8_t channel, int timeout_ms,
         const std::function<void(std::span<const uint8_t>)>& take,
         const std::function<bool()>& done);
// Collects up to `want` bytes into `out` (see poll); returns 0 or the UART's error.
int collect(uint32_t handle, uint8_t channel, size_t want, int timeout_ms,
            std::vector<uint8_t>& out);

// The device time at the start of a KWP_ call, into the record: 0 when the command could not be
// sent, all ones when its reply could not be read.
void stamp(uint32_t handle, KWP_MSG& record);

}  // namespace varnel::kline
