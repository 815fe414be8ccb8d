// `varnel lin flash`, a subcommand of `varnel lin` (lin_command.cpp adds it).
#pragma once

#include <CLI/CLI.hpp>

namespace varnel_cli {

void add_lin_flash_command(CLI::App* lin);

}  // namespace varnel_cli
