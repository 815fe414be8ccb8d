// Command groups of the `varnel` tool register themselves here, one file per group, so adding a
// group touches no other file:
//
//   static void add_hex_commands(CLI::App& app) { ... }
//   VARNEL_COMMAND_GROUP(add_hex_commands)
#pragma once

#include <CLI/CLI.hpp>
#include <vector>

namespace varnel_cli {

using CommandGroupAdder = void (*)(CLI::App&);

// Returns true so that it can initialise a static; groups are added in registration order.
bool register_command_group(CommandGroupAdder adder);
// The groups registered, for the program that builds its app from them.
std::vector<CommandGroupAdder>& command_groups();

// Exit code a command sets when it fails after parsing (usage errors exit 2 through CLI11).
int& exit_code();

}  // namespace varnel_cli

#define VARNEL_COMMAND_GROUP(adder) \
  static const bool varnel_registered_##adder = varnel_cli::register_command_group(adder);
