// varnel: the command-line tool over libvarnel. Each command group lives in its own file and
// registers itself (command_group.h); this file only builds the app and runs it.
#include <vector>

#include "core/command_group.h"
#include "varnel_version.h"

namespace varnel_cli {

static std::vector<CommandGroupAdder>& command_groups() {
  static std::vector<CommandGroupAdder> groups;
  return groups;
}

bool register_command_group(CommandGroupAdder adder) {
  command_groups().push_back(adder);
  return true;
}

int& exit_code() {
  static int code = 0;
  return code;
}

}  // namespace varnel_cli

int main(int argc, char** argv) {
  CLI::App app{"varnel - multi-interface bus adapter tool"};
  app.set_version_flag("--version", "varnel " VARNEL_VERSION_STRING);
  app.require_subcommand(1);
  for (auto adder : varnel_cli::command_groups()) adder(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // CLI11 exits 0 for --help; every other parse error is a usage error.
    int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }
  return varnel_cli::exit_code();
}
