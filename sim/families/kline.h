// The K-line of each LIN/K channel of the virtual adapter: a KWP2000 unit (sim/ecu/kline_ecu.h)
// on channels 0..7, told the levels of the channel's pin and the bytes the channel's UART sends,
// and putting its answers into that UART's receive buffer. It hears the line while the channel's
// power output is on.
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

void install_kline(VirtualAdapter& adapter);

}  // namespace sim
