// The virtual adapter's UART firmware: eight channels (the LIN/K channels' UARTs), commands
// 0xA00-0xA0A. Each channel has a receive buffer of bytes stamped with the device time at which
// they finish arriving, and a transmitter that plays writes in device time (characters at the
// baud rate, breaks, pauses between bytes).
//
// Wiring at power-up: every channel's receiver hears its own transmitter (a loopback plug; on a
// K-line, the single wire on which the adapter reads back its own bytes). join(a, b) replaces the
// loopback plugs of two channels by a cable between them; attach() puts a peer
// (sim/bus/uart_line.h) on a channel's wire beside whatever else is there.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/bus/uart_line.h"

namespace sim {

class DeviceClock;
class VirtualAdapter;

class UartModel {
 public:
  static constexpr int kChannels = 8;
  static constexpr size_t kFetchLimit = 4096;        // bytes one read (0xA03) hands out
  static constexpr size_t kReceiveBuffer = 0x10000;  // bytes beyond are lost (an overrun)
  // The refusal of a command that only acknowledges: one status byte.
  enum Status : uint8_t { kNotInitialised = 1, kBadRequest = 2 };

  class Channel final : public UartLine {
   public:
    // UartLine
    void deliver(uint8_t byte, uint64_t end_us) override;
    uint64_t now_us() const override;
    std::array<uint8_t, 8> config() const override;
    uint64_t byte_time_us() const override;

    uint32_t baud() const;
    uint32_t bits_per_byte() const;

    struct Byte {
      uint8_t value;
      uint64_t end_us;
    };
    bool initialised = false;
    std::array<uint8_t, 8> configuration{};
    std::deque<Byte> received;  // in order of end_us
    uint64_t overruns = 0;
    uint64_t transmitter_free_us = 0;  // when the current write's last byte has gone
    bool echo = true;
    int partner = -1;  // the channel at the other end of the cable, or -1
    std::shared_ptr<UartPeer> peer;

   private:
    friend class UartModel;
    UartModel* model_ = nullptr;
  };

  UartModel();
  void bind_clock(DeviceClock& clock) { clock_ = &clock; }
  uint64_t now_us() const;
  std::recursive_mutex& mutex() const { return mutex_; }
  Channel& channel(int index) { return channels_.at(size_t(index)); }

  // Test benches and peers (each takes the lock).
  void join(int a, int b);
  void set_echo(int channel, bool on);
  void attach(int channel, std::shared_ptr<UartPeer> peer);
  UartLine& line(int index) { return channel(index); }
  // The bytes a channel holds that have arrived by now, without taking them.
  std::vector<uint8_t> arrived(int channel);

  // The firmware: plays a write (break, then bytes with `gap_us` between them) from when the
  // transmitter is free, hands every byte to whoever hears the channel, and returns the device
  // time at the end of the last byte (or of the break).
  uint64_t transmit(int channel, const std::vector<uint8_t>& bytes, uint8_t break_bits,
                    uint64_t gap_us);

  // A device on a channel's wire sending the same bytes every period while the channel is
  // initialised (VARNEL_SIM_UART_TRAFFIC, sim/bus/serial_scene_text.h); played up to now
  // whenever a UART command comes.
  struct Talker {
    int channel = 0;
    std::vector<uint8_t> bytes;
    uint64_t period_us = 0;
    uint64_t next_us = 0;  // 0: from the next command on
  };
  void play_talkers();

 private:
  void hear(int channel, uint8_t byte, uint64_t end_us);

  mutable std::recursive_mutex mutex_;
  DeviceClock* clock_ = nullptr;
  std::array<Channel, kChannels> channels_;
  std::vector<Talker> talkers_;
};

UartModel& uart_model(VirtualAdapter& adapter);
void install_uart(VirtualAdapter& adapter);

}  // namespace sim
