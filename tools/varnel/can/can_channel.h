// CAN channels by name for a command: the adapters prepared (--sim), the names resolved among one
// scan, and the channel session (core/channel_session.h) run over them with each channel
// initialised at the command's rates.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/adapter.h"
#include "core/can_names.h"
#include "core/channel_session.h"
#include "core/result_text.h"
#include "varnel.h"

namespace varnel_cli {

struct OpenCanChannel {
  uint32_t handle = 0;
  uint8_t channel = 0;
  std::string interface;  // its name in output lines (canN or HANDLE:CH)
  bool found_by_scan = false;
  ChannelTarget target() const { return {handle, channel, found_by_scan}; }
};

struct CanRates {
  uint32_t bitrate = 500000;
  uint32_t data_bitrate = 2000000;
};

// What a failed CAN_Init2 / CANFD_Init2 was about: the rates, when the library has no bit timing
// for them (the call's -4 then), else the call itself.
CallContext can_init_context(uint32_t handle, bool fd, uint32_t bitrate, uint32_t data_bitrate);

// The set-up step of a CAN session: the channel started at the rates (CAN_Init2, or CANFD_Init2
// on a CAN FD adapter); a failure is reported, named after the call and explained by the rates.
CallResult init_can_channel(const ChannelTarget& t, const CanRates& rates);

// One scan of the CAN channels, the adapters made reachable first (--sim), in which names are
// resolved: the channels found are then opened without scanning again.
class CanScan {
 public:
  // Nullopt (exit code 1, having said why) when no adapter can be reached.
  static std::optional<CanScan> make();
  // The channel a name stands for; nullopt (exit code 1) after saying there is none.
  std::optional<OpenCanChannel> find(const CanChannelName& name) const;
  // Every channel found, in scan order (candump's `any`).
  std::vector<OpenCanChannel> every() const;

 private:
  OpenCanChannel channel(CanChannelId id) const;
  std::vector<CanChannelId> scanned_;
};

// Opens the adapters of `channels`, initialises each channel at `rates`, runs `work` and closes
// (run_channels_session). False when a step failed (it has said why).
bool run_can_session(const SessionReport& report, const std::vector<OpenCanChannel>& channels,
                     const CanRates& rates, const std::function<CallResult()>& work);

// The same on the one channel a name (canN or HANDLE:CH) stands for.
bool run_can_session(const SessionReport& report, const std::string& name, const CanRates& rates,
                     const std::function<CallResult(const OpenCanChannel&)>& work);

// For a tool that keeps a channel open beyond one command's work (the monitor's live source, the
// extcap capture, a UDS link): the channel a name stands for, opened and initialised as a session
// would; the caller closes its adapter. Nullopt (exit code 1, having said why) when it cannot be.
std::optional<OpenCanChannel> open_can_channel(const CanChannelName& name, uint32_t bitrate,
                                               uint32_t data_bitrate);

// The TARGET argument of a command on one channel (canN or HANDLE:CH), checked as it parses.
CLI::Option* add_channel_argument(CLI::App* command, std::string& target);

// `varnel can filter` and `varnel can schedule` (can_services_command.cpp), under `varnel can`;
// they bring `varnel can play` (can_play_command.cpp) along.
void add_can_service_commands(CLI::App* can);
void add_can_play_command(CLI::App* can);

// Sends the frames on an open channel, in order (a classic adapter gets classic records; a CAN FD
// frame on it is refused). 0, or the failed call with its code; a short send is reported.
CallResult send_frames(const OpenCanChannel& c, std::vector<CANFD_MSG>& frames);

// -b/--bitrate (--bitrate alone without `short_bitrate`) and --data-bitrate of a CAN command.
void add_can_rates(CLI::App* command, CanRates& rates, bool short_bitrate = true);

// `varnel can dump` (can_dump_command.cpp), under `varnel can`.
void add_can_dump_command(CLI::App* can);

// `varnel can gen` (can_gen_command.cpp), under `varnel can`.
void add_can_gen_command(CLI::App* can);

// `varnel can stat` (stat_command.cpp): canbusload's view of the channels.
void add_can_stat_command(CLI::App* can);

}  // namespace varnel_cli
