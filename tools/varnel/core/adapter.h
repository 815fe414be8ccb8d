// What the device commands share: reading a handle argument, opening and closing an adapter.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>

namespace varnel_cli {

// "0x12345678" (or decimal) to a handle; false for anything else.
bool parse_handle(const std::string& text, uint32_t& handle);
// A CLI11 check that rejects what parse_handle rejects (a usage error, exit 2).
CLI::Validator handle_validator();
// The same for any 32-bit number (masks, pin values, times): hex with 0x, or decimal.
CLI::Validator u32_validator(const std::string& name);

// One channel of one adapter, as the commands on a channel take it: "HANDLE:CH".
struct ChannelTarget {
  uint32_t handle = 0;
  uint8_t channel = 0;
  // A scan just made listed the adapter (a channel found by its name, can_names.h): it is opened
  // without scanning again.
  bool found_by_scan = false;
};
// "HANDLE:CH" with CH below `channels`; "HANDLE" alone means channel 0 where `channel_optional`.
bool parse_channel_target(const std::string& text, uint32_t channels, bool channel_optional,
                          ChannelTarget& target);

std::string handle_text(uint32_t handle);
// "USB" or "network", and the controller the handle's kind brings.
std::string handle_kind(uint32_t handle);

// Handles 0x55.../0x56... with bit 0 clear are network adapters.
bool is_network_handle(uint32_t handle);
// Adapters whose handle has the top nibble 0x5 carry CAN FD controllers.
bool is_fd_adapter(uint32_t handle);

// The local IPv4 address given with the global --net option: device commands then find network
// adapters by a discovery probe from it. Empty without the option.
const std::string& network_local_ip();

// Scans (USB, or the network for a network handle) and opens the adapter; prints why not on
// stderr and returns false.
bool open_adapter(uint32_t handle);
// Opens an adapter that the scan just made (scan_can_channels) found, without scanning again.
bool open_found_adapter(uint32_t handle);
void close_adapter(uint32_t handle);

}  // namespace varnel_cli
