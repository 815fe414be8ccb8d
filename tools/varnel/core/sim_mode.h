// Running the tool against the virtual adapter. With --sim the tool runs itself again with the
// usbsim (libusb-1.0.so.0 in usbsim/ beside bin/, or installed in lib/varnel/usbsim) in front of
// the real libusb, so libvarnel's own USB code talks to virtual adapters. Without it a missing
// adapter is an error: the tool never falls back to the virtual one unasked.
#pragma once

#include <cstdint>
#include <string>

namespace varnel_cli {

// The adapters the virtual bus starts with (VARNEL_USBSIM_ADAPTERS overrides them).
constexpr const char* kDefaultSimAdapters = "0x12345678,0x53000001";

// True when this process already runs against the virtual adapter.
bool running_on_sim();

// Makes sure adapters are reachable before a device command runs. Returns true to go on in this
// process; re-executes the tool on the virtual adapter when --sim was given or `always_sim` is
// set (the demo). Returns false, having printed why (for USB with the udev rules hint), when no
// adapter is found or the virtual adapter cannot be started.
bool prepare_adapters(bool always_sim = false);

// The directory holding the usbsim's libusb-1.0.so.0, found relative to the executable; empty
// when there is none.
std::string usbsim_directory();

// The path of another program built beside this one (e.g. "varnel-sim").
std::string sibling_program(const std::string& name);

// For a command that sets its channels' bit rates itself (socketcand -b): unless the user named
// the virtual bus's timing (--sim-can-peer, VARNEL_SIM_CAN_PEER), its acknowledging node and
// diagnostic ECU run at these rates, so the ECU the help promises is heard. Call it before
// prepare_adapters().
void follow_sim_can_timing(uint32_t bitrate, uint32_t data_bitrate);

// Puts the virtual CAN bus scene (--sim-can-peer, --sim-traffic) into the environment, where the
// usbsim and varnel-sim read it.
void export_sim_can_scene();

}  // namespace varnel_cli
