#include "core/command_group.h"

#include <vector>

namespace varnel_cli {

std::vector<CommandGroupAdder>& command_groups() {
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
