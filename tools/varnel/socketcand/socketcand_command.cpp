// varnel socketcand [--port 29536] [--listen 127.0.0.1] [-b RATE] [--data-bitrate RATE] [--beacon]
// Serves the adapters' CAN channels to socketcand clients until SIGINT or SIGTERM.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>

#include "core/command_group.h"
#include "core/sim_mode.h"
#include "socketcand/socketcand_server.h"

namespace varnel_cli {
namespace {

// Written by the signal handler, read by the server's poll loop.
int stop_pipe[2] = {-1, -1};

void on_stop_signal(int) {
  const char byte = 1;
  [[maybe_unused]] const ssize_t n = write(stop_pipe[1], &byte, 1);
}

bool install_stop_handlers() {
  if (pipe2(stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  struct sigaction action {};
  action.sa_handler = on_stop_signal;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

void run_socketcand(const socketcand::ServerOptions& options) {
  follow_sim_can_timing(options.bitrate, options.data_bitrate);
  if (!prepare_adapters()) {
    exit_code() = 1;
    return;
  }
  if (!install_stop_handlers()) {
    std::perror("socketcand: signal handlers");
    exit_code() = 1;
    return;
  }
  const auto aliases = scan_can_channels();
  socketcand::Server server(options, aliases);
  if (!server.listen()) {
    exit_code() = 1;
    return;
  }
  std::printf("socketcand: listening on %s:%u\n", options.listen_address.c_str(),
              unsigned(server.port()));
  for (size_t i = 0; i < aliases.size(); ++i)
    std::printf("socketcand: %s = %s\n", can_channel_name(i).c_str(),
                can_channel_text(aliases[i]).c_str());
  std::fflush(stdout);
  server.run(stop_pipe[0]);
  std::printf("socketcand: stopped\n");
}

void add_socketcand_command(CLI::App& app) {
  auto options = std::make_shared<socketcand::ServerOptions>();
  CLI::App* command = app.add_subcommand(
      "socketcand", "serve the adapters' CAN channels to socketcand clients over TCP");
  command->add_option("--port", options->port, "TCP port (default 29536; 0: any free port)");
  command->add_option("--listen", options->listen_address,
                      "IPv4 address to listen on (default 127.0.0.1)");
  command->add_option("-b,--bitrate", options->bitrate, "nominal bit rate (default 500000)");
  command->add_option("--data-bitrate", options->data_bitrate,
                      "CAN FD data bit rate (default 2000000)");
  command->add_flag("--beacon", options->beacon,
                    "broadcast the discovery beacon to UDP port 42000 every 3 s");
  command->callback([options] { run_socketcand(*options); });
}

}  // namespace

VARNEL_COMMAND_GROUP(add_socketcand_command)

}  // namespace varnel_cli
