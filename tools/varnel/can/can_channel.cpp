#include "can/can_channel.h"

#include <algorithm>
#include <cstdio>

#include "core/adapter.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "varnel.h"

namespace varnel_cli {

CallContext can_init_context(uint32_t handle, bool fd, uint32_t bitrate, uint32_t data_bitrate) {
  const std::string rate = std::to_string(bitrate);
  if (fd) {
    CANFD_INIT_CONFIG config{};
    if (CANFD_GetCANSpeedArg(handle, &config, bitrate, data_bitrate) != 0)
      return {"CANFD_GetCANSpeedArg",
              {{"bit rate", rate}, {"data bit rate", std::to_string(data_bitrate)}}};
    return {"CANFD_Init2", {}};
  }
  CAN_INIT_CONFIG config{};
  if (CAN_GetCANSpeedArg(handle, &config, bitrate) != 0)
    return {"CAN_GetCANSpeedArg", {{"bit rate", rate}}};
  return {"CAN_Init2", {}};
}

std::optional<CanScan> CanScan::make() {
  if (!prepare_adapters()) {
    exit_code() = 1;  // it said why
    return std::nullopt;
  }
  CanScan scan;
  scan.scanned_ = scan_can_channels();
  return scan;
}

OpenCanChannel CanScan::channel(CanChannelId id) const {
  const bool found = std::find(scanned_.begin(), scanned_.end(), id) != scanned_.end();
  return {id.handle, id.channel, can_interface_name(scanned_, id), found};
}

std::optional<OpenCanChannel> CanScan::find(const CanChannelName& name) const {
  const auto id = resolve_can_channel(scanned_, name);
  if (id) return channel(*id);
  std::fprintf(stderr, "%s: no such channel (%zu CAN channels found; see `varnel scan`)\n",
               can_channel_name(name.index).c_str(), scanned_.size());
  exit_code() = 1;
  return std::nullopt;
}

std::vector<OpenCanChannel> CanScan::every() const {
  std::vector<OpenCanChannel> out;
  for (CanChannelId id : scanned_) out.push_back(channel(id));
  return out;
}

CallResult init_can_channel(const ChannelTarget& t, const CanRates& rates) {
  const bool fd = is_fd_adapter(t.handle);
  const int rc = fd ? CANFD_Init2(t.handle, t.channel, rates.bitrate, rates.data_bitrate, 1, 1)
                    : CAN_Init2(t.handle, t.channel, rates.bitrate);
  if (rc == 0) return 0;
  // named after the call made, explained by what it was asked
  const CallContext context = can_init_context(t.handle, fd, rates.bitrate, rates.data_bitrate);
  std::fprintf(stderr, "%s: %s\n", fd ? "CANFD_Init2" : "CAN_Init2",
               describe_result(rc, context).c_str());
  return CallResult::reported();
}

bool run_can_session(const SessionReport& report, const std::vector<OpenCanChannel>& channels,
                     const CanRates& rates, const std::function<CallResult()>& work) {
  std::vector<ChannelTarget> targets;
  for (const OpenCanChannel& ch : channels) targets.push_back(ch.target());
  return run_channels_session(
      report, targets, [&](const ChannelTarget& t) { return init_can_channel(t, rates); }, work);
}

bool run_can_session(const SessionReport& report, const std::string& name, const CanRates& rates,
                     const std::function<CallResult(const OpenCanChannel&)>& work) {
  const auto parsed = parse_can_channel_name(name);  // the argument's check parsed it
  const auto scan = CanScan::make();
  const auto channel = scan && parsed ? scan->find(*parsed) : std::nullopt;
  if (!channel) return false;
  return run_can_session(report, {*channel}, rates, [&] { return work(*channel); });
}

std::optional<OpenCanChannel> open_can_channel(const CanChannelName& name, uint32_t bitrate,
                                               uint32_t data_bitrate) {
  const auto scan = CanScan::make();
  const auto channel = scan ? scan->find(name) : std::nullopt;
  if (!channel) return std::nullopt;
  const ChannelTarget t = channel->target();
  if (!(t.found_by_scan ? open_found_adapter(t.handle) : open_adapter(t.handle))) {
    exit_code() = 1;  // it said why
    return std::nullopt;
  }
  if (init_can_channel(t, {bitrate, data_bitrate}).was_reported()) {
    close_adapter(t.handle);
    exit_code() = 1;
    return std::nullopt;
  }
  return channel;
}

CLI::Option* add_channel_argument(CLI::App* command, std::string& target) {
  return command->add_option("TARGET", target, "CAN channel: canN or HANDLE:CH")
      ->required()
      ->check(CLI::Validator(
          [](std::string& text) {
            return parse_can_channel_name(text) ? std::string()
                                                : "expected canN or HANDLE:CH, got " + text;
          },
          "CHANNEL"));
}

}  // namespace varnel_cli
