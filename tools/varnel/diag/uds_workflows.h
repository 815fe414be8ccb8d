// `varnel uds info|dtc|read|flash`: the workflows under `varnel uds` (uds_command.cpp adds them).
#pragma once

#include <CLI/CLI.hpp>

namespace varnel_cli {

void add_uds_read_commands(CLI::App* uds);  // info, dtc, read (uds_read_commands.cpp)
void add_uds_flash_command(CLI::App* uds);  // flash (uds_flash_command.cpp)

}  // namespace varnel_cli
