// varnel-extcap: the VARNEL channels as Wireshark capture interfaces, through Wireshark's extcap
// interface (Wireshark runs the program with --extcap-interfaces, --extcap-dlts,
// --extcap-config, then --capture --fifo PATH for the interface the user picked).
//
// Interfaces are named as the tool names channels: varnel-canN is `varnel can dump`'s canN (the
// N-th CAN channel in scan order), varnel-linN the N-th LIN channel (channels 0 and 1 of each
// adapter, in the same order).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varnel_cli::extcap {

struct ExtcapInterface {
  std::string name;     // varnel-can0
  std::string display;  // what Wireshark lists
  bool lin = false;
  uint32_t handle = 0;
  uint8_t channel = 0;
};

// The interfaces of the adapters found (a CAN interface per CAN channel, a LIN one per LIN
// channel), in scan order.
std::vector<ExtcapInterface> list_interfaces(const std::vector<uint32_t>& handles,
                                             bool virtual_bus);

// "varnel-can3" -> {false, 3}; "varnel-lin1" -> {true, 1}; nullopt for anything else.
struct InterfaceName {
  bool lin = false;
  unsigned index = 0;
};
std::optional<InterfaceName> parse_interface_name(const std::string& name);

// The texts Wireshark reads.
std::string interfaces_text(const std::vector<ExtcapInterface>& interfaces);
std::string dlts_text(const InterfaceName& interface);
std::string config_text(const InterfaceName& interface);

}  // namespace varnel_cli::extcap
