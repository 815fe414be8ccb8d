// varnel sim [OPTIONS]: serves virtual network adapters in the foreground until Ctrl-C. It is the
// varnel-sim daemon (built beside this tool) with the same options, plus the virtual CAN bus
// scene of --sim-can-peer / --sim-traffic:
//   varnel --sim-traffic 123#11@100 sim --adapter 0x55000010 --tcp-port 0 --discovery-port 0
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "core/command_group.h"
#include "core/sim_mode.h"

namespace varnel_cli {
namespace {

void run_sim(const std::vector<std::string>& options) {
  export_sim_can_scene();
  const std::string daemon = sibling_program("varnel-sim");
  std::vector<std::string> args{daemon};
  args.insert(args.end(), options.begin(), options.end());
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::fflush(nullptr);
  execv(daemon.c_str(), argv.data());
  std::fprintf(stderr, "varnel sim: cannot start %s: %s\n", daemon.c_str(), std::strerror(errno));
  exit_code() = 1;
}

void add_sim_command(CLI::App& app) {
  CLI::App* sim = app.add_subcommand(
      "sim",
      "serve virtual network adapters (varnel-sim's options: --adapter HANDLE, --count N, "
      "--first-address ADDR, --discovery-port PORT, --tcp-port PORT, --host-order)");
  sim->prefix_command();  // everything after `sim` belongs to the daemon
  sim->callback([sim] { run_sim(sim->remaining()); });
}

}  // namespace

VARNEL_COMMAND_GROUP(add_sim_command)

}  // namespace varnel_cli
