// varnel: the command-line tool over libvarnel. Each command group lives in its own file and
// registers itself (command_group.h); this file only builds the app and runs it.
#include "core/command_group.h"
#include "varnel_version.h"

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
