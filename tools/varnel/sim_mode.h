// Running the tool against the virtual adapter. With --sim, or when no adapter answers, the tool
// runs itself again with the usbsim (built as libusb-1.0.so.0 next to bin/, in usbsim/) in front of
// the real libusb, so libvarnel's own USB code talks to virtual adapters.
#pragma once

#include <string>

namespace varnel_cli {

// The adapters the virtual bus starts with (VARNEL_USBSIM_ADAPTERS overrides them).
constexpr const char* kDefaultSimAdapters = "0x12345678,0x53000001";

// True when this process already runs against the virtual adapter.
bool running_on_sim();

// Makes sure adapters are reachable before a device command runs. Returns true to go on in this
// process; re-executes the tool on the virtual adapter when --sim was given or `always_sim` is
// set (the demo), or when no adapter was found (said on stderr). Returns false, having printed
// why, when the virtual adapter cannot be started.
bool prepare_adapters(bool always_sim = false);

// The directory holding the usbsim's libusb-1.0.so.0, found relative to the executable.
std::string usbsim_directory();

// The path of another program built beside this one (e.g. "varnel-sim").
std::string sibling_program(const std::string& name);

// Puts the virtual CAN bus scene (--sim-can-peer, --sim-traffic) into the environment, where the
// usbsim and varnel-sim read it.
void export_sim_can_scene();

}  // namespace varnel_cli
