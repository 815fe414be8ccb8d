// varnel can send CHANNEL FRAME...   frames in can-utils syntax (123#DEADBEEF, 123##1..., 123#R)
// (can dump, gen, play, stat, filter and schedule have files of their own in this folder)
// CHANNEL is canN or HANDLE:CH (can_names.h); output lines name the channel canN.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "can/can_channel.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "src/can/can_text.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

CAN_MSG to_classic(const CANFD_MSG& fd) {
  CAN_MSG msg{};
  msg.Id = fd.Id & 0x1FFFFFFFu;
  msg.Extended = (fd.Id >> 31) & 1;
  msg.Flags = (fd.Id >> 30) & 1;
  msg.DataLen = fd.DataLen > 8 ? 8 : fd.DataLen;
  std::memcpy(msg.Data, fd.Data, 8);
  return msg;
}

}  // namespace

CallResult send_frames(const OpenCanChannel& c, std::vector<CANFD_MSG>& frames) {
  if (is_fd_adapter(c.handle)) {
    const int rc = CANFD_SendMsg(c.handle, c.channel, frames.data(), uint32_t(frames.size()));
    if (rc >= 0 && rc < int(frames.size())) {
      std::fprintf(stderr, "CANFD_SendMsg: %d of %zu frames went out (no node acknowledged?)\n", rc,
                   frames.size());
      return CallResult::reported();
    }
    return {rc, {"CANFD_SendMsg", {}}};
  }
  std::vector<CAN_MSG> msgs;
  for (auto& f : frames) {
    if (f.Flags & 0x04) {
      std::fprintf(stderr, "this adapter has no CAN FD controller\n");
      return CallResult::reported();
    }
    msgs.push_back(to_classic(f));
  }
  const int rc = CAN_SendMsg(c.handle, c.channel, msgs.data(), uint32_t(msgs.size()));
  return {rc == int(msgs.size()) ? 0 : rc < 0 ? rc : -4, {"CAN_SendMsg", {}}};
}

void add_can_rates(CLI::App* command, CanRates& rates, bool short_bitrate) {
  command->add_option(short_bitrate ? "-b,--bitrate" : "--bitrate", rates.bitrate,
                      "nominal bit rate (default 500000)");
  command->add_option("--data-bitrate", rates.data_bitrate,
                      "CAN FD data bit rate (default 2000000)");
}

namespace {

void run_send(const std::string& target, const CanRates& rates,
              const std::vector<std::string>& texts) {
  std::vector<CANFD_MSG> frames;
  for (auto& text : texts) {
    auto frame = varnel::can_text::parse_frame(text);
    if (!frame) {
      std::fprintf(stderr, "not a frame: %s (use 123#DEADBEEF, 123#R, 123##1...)\n", text.c_str());
      exit_code() = 2;
      return;
    }
    frames.push_back(*frame);
  }
  run_can_session({}, target, rates, [&](const OpenCanChannel& c) {
    const CallResult sent = send_frames(c, frames);
    if (sent.code >= 0)
      for (auto& f : frames)
        std::printf("%s\n", varnel::can_text::candump_line(c.interface, f).c_str());
    return sent;
  });
}

struct SendArguments {
  std::string target;
  CanRates rates;
};

void add_can_commands(CLI::App& app) {
  CLI::App* can = app.add_subcommand("can", "CAN and CAN FD: send, dump and generate frames");
  can->require_subcommand(1);

  auto send_args = std::make_shared<SendArguments>();
  auto frames = std::make_shared<std::vector<std::string>>();
  CLI::App* send = can->add_subcommand("send", "send frames: 123#DEADBEEF, 1ABCDEF0#R, 123##1...");
  add_channel_argument(send, send_args->target);
  add_can_rates(send, send_args->rates);
  send->add_option("FRAME", *frames, "frames in can-utils syntax")->required();
  send->callback([send_args, frames] { run_send(send_args->target, send_args->rates, *frames); });

  add_can_dump_command(can);
  add_can_service_commands(can);
  add_can_gen_command(can);
}

}  // namespace

VARNEL_COMMAND_GROUP(add_can_commands)

}  // namespace varnel_cli
