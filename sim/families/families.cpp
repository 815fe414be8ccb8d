// Every family of the firmware model registers its handlers here, one line per family.
#include "sim/virtual_adapter.h"

namespace sim {

void install_families(VirtualAdapter&) {}

}  // namespace sim
