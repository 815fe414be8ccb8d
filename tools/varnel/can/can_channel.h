// Opening one CAN channel by name for a command: the adapters prepared (--sim), the name resolved
// among the scanned channels, the adapter opened and the channel initialised.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "core/can_names.h"
#include "core/result_text.h"

namespace varnel_cli {

struct OpenCanChannel {
  uint32_t handle = 0;
  uint8_t channel = 0;
  std::string interface;  // its name in output lines (canN or HANDLE:CH)
};

// Prints why not on stderr, sets the exit code and returns nullopt when the channel cannot be had.
// What a failed CAN_Init2 / CANFD_Init2 was about: the rates, when the library has no bit timing
// for them (the call's -4 then), else the call itself.
CallContext can_init_context(uint32_t handle, bool fd, uint32_t bitrate, uint32_t data_bitrate);

std::optional<OpenCanChannel> open_can_channel(const CanChannelName& name, uint32_t bitrate,
                                               uint32_t data_bitrate);

// The TARGET argument of a command on one channel (canN or HANDLE:CH), checked as it parses.
CLI::Option* add_channel_argument(CLI::App* command, std::string& target);

// `varnel can filter` and `varnel can schedule` (can_services_command.cpp), under `varnel can`;
// they bring `varnel can play` (can_play_command.cpp) along.
void add_can_service_commands(CLI::App* can);
void add_can_play_command(CLI::App* can);

// `varnel can stat` (stat_command.cpp): canbusload's view of the channels.
void add_can_stat_command(CLI::App* can);

}  // namespace varnel_cli
