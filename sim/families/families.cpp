// Every family of the firmware model registers its handlers here, one line per family.
#include "sim/virtual_adapter.h"

namespace sim {

void install_device(VirtualAdapter& adapter);
void install_gpio(VirtualAdapter& adapter);
void install_can(VirtualAdapter& adapter);
void install_canfd(VirtualAdapter& adapter);

void install_families(VirtualAdapter& adapter) {
  install_device(adapter);
  install_gpio(adapter);
  install_can(adapter);
  install_canfd(adapter);
}

}  // namespace sim
