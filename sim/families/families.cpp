// The registry of the firmware model's families: each registers its installer from its own file.
#include <vector>

#include "sim/virtual_adapter.h"

namespace sim {
namespace {

// Filled during static initialisation, read-only after: a function-local static so that it exists
// before the first family registers, whatever order the files initialise in.
std::vector<FamilyInstaller>& installers() {
  static std::vector<FamilyInstaller> registered;
  return registered;
}

}  // namespace

bool register_family(FamilyInstaller installer) {
  installers().push_back(installer);
  return true;
}

void install_families(VirtualAdapter& adapter) {
  for (FamilyInstaller install : installers()) install(adapter);
}

}  // namespace sim
