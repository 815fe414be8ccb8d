// One name for each CAN channel, the same wherever the tool prints or takes one: the interface in
// `can dump|send|gen` lines, the bus list of `varnel socketcand`, and the targets of both.
//
// canN is the N-th CAN channel in scan order: channels 0 and 1 of the first adapter found are
// can0 and can1, those of the second can2 and can3, and so on (the USB adapters in the order
// `varnel scan` lists them, then, with --net, the network adapters that answer the probe).
// HANDLE:CH names a channel directly, wherever it sits in the scan.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel_cli {

struct CanChannelId {
  uint32_t handle = 0;
  uint8_t channel = 0;
  auto operator<=>(const CanChannelId&) const = default;
};

// A channel name as given: "canN" (`numbered`, N in `index`) or "HANDLE:CH" with the handle in 0x
// hex or decimal and CH 0 or 1 (in `id`).
struct CanChannelName {
  bool numbered = false;
  unsigned index = 0;
  CanChannelId id;
};
std::optional<CanChannelName> parse_can_channel_name(std::string_view text);

std::string can_channel_text(CanChannelId id);  // "0x12345678:0"
std::string can_channel_name(size_t index);     // "can3"

// The channel a name stands for among the scanned channels; nullopt for canN beyond them.
std::optional<CanChannelId> resolve_can_channel(const std::vector<CanChannelId>& scanned,
                                                const CanChannelName& name);
// The name that resolves back to `id`: canN, or HANDLE:CH for a channel the scan did not find.
std::string can_interface_name(const std::vector<CanChannelId>& scanned, CanChannelId id);

// Every CAN channel of every adapter found, in scan order (adapter.cpp: it scans USB, and the
// network with --net).
std::vector<CanChannelId> scan_can_channels();

}  // namespace varnel_cli
