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

std::optional<OpenCanChannel> open_can_channel(const CanChannelName& name, uint32_t bitrate,
                                               uint32_t data_bitrate) {
  auto failed = [] {
    exit_code() = 1;
    return std::nullopt;
  };
  if (!prepare_adapters()) return failed();
  const auto scanned = scan_can_channels();
  const auto id = resolve_can_channel(scanned, name);
  if (!id) {
    std::fprintf(stderr, "%s: no such channel (%zu CAN channels found; see `varnel scan`)\n",
                 can_channel_name(name.index).c_str(), scanned.size());
    return failed();
  }
  OpenCanChannel out{id->handle, id->channel, can_interface_name(scanned, *id)};
  const bool found = std::find(scanned.begin(), scanned.end(), *id) != scanned.end();
  if (!(found ? open_found_adapter(out.handle) : open_adapter(out.handle))) return failed();
  const bool fd = is_fd_adapter(out.handle);
  const int rc = fd ? CANFD_Init2(out.handle, out.channel, bitrate, data_bitrate, 1, 1)
                    : CAN_Init2(out.handle, out.channel, bitrate);
  if (rc != 0) {
    std::fprintf(
        stderr, "%s: %s\n", fd ? "CANFD_Init2" : "CAN_Init2",
        describe_result(rc, can_init_context(out.handle, fd, bitrate, data_bitrate)).c_str());
    return failed();
  }
  return out;
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
