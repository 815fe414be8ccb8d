// The wire behind one of the virtual adapter's UART channels, as something on its far side sees it
// (a K-line control unit, a modem, a test bench). The adapter's firmware tells the peer about
// every byte it transmits, in device time; the peer answers by putting bytes on the line, each
// with the device time at which its stop bit ends. The host reads a byte only once the device
// clock has reached that time, so a peer models its response times without sleeping.
//
//   auto peer = std::make_shared<MyUnit>();
//   sim::uart_model(adapter).attach(channel, peer);   // sim/families/uart.h
//
// The firmware calls the peer with the channel's lock held; the peer may call back into the line
// (deliver, now_us...) from inside its callbacks, and from any other thread at any time.
#pragma once

#include <array>
#include <cstdint>

namespace sim {

// One channel's wire, seen from its far end.
class UartLine {
 public:
  virtual ~UartLine() = default;
  // Puts `byte` into the channel's receive buffer, readable from device time `end_us` on. Bytes
  // are read in the order of their times (equal times: in the order delivered).
  virtual void deliver(uint8_t byte, uint64_t end_us) = 0;
  // The device clock now.
  virtual uint64_t now_us() const = 0;
  // What the channel was last configured with (UART_Init's 8 bytes; all 0 before the first).
  virtual std::array<uint8_t, 8> config() const = 0;
  // One character on the wire at the channel's configuration: start, 8 data bits, parity if any,
  // stop bits, in microseconds (rounded down; 0 before the channel has a baud rate).
  virtual uint64_t byte_time_us() const = 0;
};

// Whatever sits on the far side. Only on_transmit is required.
class UartPeer {
 public:
  virtual ~UartPeer() = default;
  // The adapter sent `byte` on the line; its stop bit ends at device time `end_us` (which may lie
  // ahead of now: the firmware plays a whole write at once).
  virtual void on_transmit(UartLine& line, uint8_t byte, uint64_t end_us) = 0;
  // The adapter held the line low (a break) from `start_us` to `end_us`.
  virtual void on_break(UartLine& line, uint64_t start_us, uint64_t end_us) {
    (void)line, (void)start_us, (void)end_us;
  }
  // UART_Init configured the channel (line.config() has the record).
  virtual void on_init(UartLine& line) { (void)line; }
};

}  // namespace sim
