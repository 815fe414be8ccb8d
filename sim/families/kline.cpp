// The K-line units of the virtual adapter (see kline.h): each listens on its channel's UART as a
// peer of the wire and to the levels of the channel's pin.
#include "sim/families/kline.h"

#include <atomic>
#include <cstring>

#include "sim/bus/uart_line.h"
#include "sim/families/gpio.h"
#include "sim/families/lin.h"
#include "sim/families/uart.h"
#include "sim/virtual_adapter.h"

namespace sim {
namespace {

// The far end of one channel's K-line, with the unit on it.
class KLineWire final : public UartPeer {
 public:
  KLineWire(VirtualAdapter& adapter, int channel)
      : adapter_(adapter), channel_(channel), ecu([this](uint8_t byte, uint64_t at_us) {
          uart_model(adapter_).line(channel_).deliver(byte, at_us);
        }) {}

  void on_transmit(UartLine& line, uint8_t byte, uint64_t end_us) override {
    if (flip_echo) line.deliver(byte ^ 0x01, end_us);
    if (powered() && k_line_mode(line)) ecu.tester_byte(byte, end_us);
  }
  void on_init(UartLine& line) override {
    uint32_t baud = 0;
    const auto config = line.config();
    std::memcpy(&baud, config.data(), sizeof baud);
    if (baud) ecu.config.baud = baud;
  }
  void line_level(bool high, uint64_t at_us) {
    if (powered()) ecu.line_level(high, at_us);
  }

 private:
  // The K-line transceiver is on the channel while the UART is configured with one of the K-line
  // letters (mode byte 'B', 'R' or 'Z'); a plain UART (mode 0) does not reach the unit.
  static bool k_line_mode(UartLine& line) {
    const uint8_t mode = line.config()[7];
    return mode == 'B' || mode == 'R' || mode == 'Z';
  }
  // The unit is fed by the channel's power output.
  bool powered() {
    LinModel& lin = lin_model(adapter_);
    std::lock_guard guard(lin.mutex);
    return lin.channels[size_t(channel_)].power != 0;
  }
  VirtualAdapter& adapter_;
  int channel_;

 public:
  KLineEcu ecu;
  std::atomic<bool> flip_echo = false;  // the line's own echo is off meanwhile
};

struct KLineModel {
  std::array<std::shared_ptr<KLineWire>, kKlineChannels> wires;
  // The GPIO pin wired to each channel's K-line; read by the GPIO model's listener thread.
  std::array<std::atomic<int>, kKlineChannels> wakeup_pins{};
};

}  // namespace

KLineEcu& kline_ecu(VirtualAdapter& adapter, int channel) {
  return adapter.state<KLineModel>().wires.at(size_t(channel))->ecu;
}

void set_kline_echo(VirtualAdapter& adapter, int channel, KlineEcho echo) {
  uart_model(adapter).set_echo(channel, echo == KlineEcho::kClean);
  adapter.state<KLineModel>().wires.at(size_t(channel))->flip_echo = echo == KlineEcho::kFlipped;
}

void set_kline_wakeup_pin(VirtualAdapter& adapter, int channel, int pin) {
  adapter.state<KLineModel>().wakeup_pins.at(size_t(channel)) = pin;
}

void install_kline(VirtualAdapter& adapter) {
  KLineModel& model = adapter.state<KLineModel>();
  for (int ch = 0; ch < kKlineChannels; ++ch) {
    model.wires[size_t(ch)] = std::make_shared<KLineWire>(adapter, ch);
    model.wakeup_pins[size_t(ch)] = ch;
    uart_model(adapter).attach(ch, model.wires[size_t(ch)]);
  }
  // One pin may be wired to several channels' lines.
  adapter.state<GpioModel>().on_level([&model](const GpioModel::Level& level) {
    for (int ch = 0; ch < kKlineChannels; ++ch)
      if (model.wakeup_pins[size_t(ch)] == level.pin)
        model.wires[size_t(ch)]->line_level(level.high, level.at_us);
  });
}

VARNEL_SIM_FAMILY(install_kline)

}  // namespace sim
