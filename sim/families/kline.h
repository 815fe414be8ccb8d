// The K-line of each LIN/K channel of the virtual adapter: a KWP2000 unit (sim/ecu/kline_ecu.h)
// on channels 0..7, told the levels of the channel's wake-up pin and the bytes the channel's
// UART sends, and putting its answers into that UART's receive buffer. It hears the line while
// the channel's power output is on.
#pragma once

#include <array>
#include <memory>

#include "sim/ecu/kline_ecu.h"

namespace sim {

class VirtualAdapter;

constexpr int kKlineChannels = 8;

// The unit on a channel's K-line (channel 0..7).
KLineEcu& kline_ecu(VirtualAdapter& adapter, int channel);
// What the channel's receiver reads back of what it sends: the line's echo as sent (the default),
// nothing, or every byte with its lowest bit flipped (noise on the receive path).
enum class KlineEcho { kClean, kMissing, kFlipped };
void set_kline_echo(VirtualAdapter& adapter, int channel, KlineEcho echo);
// The pin of the GPIO model whose levels reach a channel's unit, as the adapter is wired: pin
// (channel) unless set (mirrors what the library's wake-up pin table says of a real adapter).
void set_kline_wakeup_pin(VirtualAdapter& adapter, int channel, int pin);

void install_kline(VirtualAdapter& adapter);

}  // namespace sim
