// --sim: re-executes the tool with the usbsim loaded in place of libusb.
#include "core/sim_mode.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "core/adapter.h"
#include "core/command_group.h"
#include "sim/bus/can_scene_text.h"
#include "sim/bus/serial_scene_text.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

// Set in the environment of the re-executed tool, so that it does not start over again.
constexpr const char* kSimActiveVariable = "VARNEL_SIM_ACTIVE";

bool& sim_requested() {
  static bool requested = false;
  return requested;
}

// The node on the virtual CAN bus: its bit timing and the frames it sends periodically. Unless
// told otherwise it only acknowledges, at the CLI's default bit rates, so that a lone adapter's
// frames go out as they would on a bench with one other node. "none" leaves the bus empty.
constexpr const char* kDefaultPeerTiming = "500000/2000000";
constexpr const char* kNoPeer = "none";

struct SimCanScene {
  std::string timing;  // empty: VARNEL_SIM_CAN_PEER or the default
  std::string traffic;
  std::string ecu;  // empty: VARNEL_SIM_CAN_ECU or the default
};

// The diagnostic ECU on the virtual CAN bus answers on the usual OBD pair of identifiers.
constexpr const char* kDefaultEcu = "7E0/7E8";

SimCanScene& sim_can_scene() {
  static SimCanScene scene;
  return scene;
}

// What the virtual LIN buses and UART wires carry unasked (sim/bus/serial_scene_text.h).
struct SimSerialScene {
  std::string lin, uart;
};

SimSerialScene& sim_serial_scene() {
  static SimSerialScene scene;
  return scene;
}

std::string executable_path() {
  char path[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return {};
  return std::string(path, size_t(n));
}

// The arguments this process was started with, as the kernel keeps them.
std::vector<std::string> own_arguments() {
  std::ifstream in("/proc/self/cmdline", std::ios::binary);
  std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<std::string> args;
  for (size_t start = 0; start < all.size();) {
    size_t end = all.find('\0', start);
    if (end == std::string::npos) end = all.size();
    args.push_back(all.substr(start, end - start));
    start = end + 1;
  }
  return args;
}

void export_can_scene(const SimCanScene& scene) {
  if (scene.timing == kNoPeer) {
    unsetenv("VARNEL_SIM_CAN_PEER");
    unsetenv("VARNEL_SIM_CAN_TRAFFIC");
    unsetenv("VARNEL_SIM_CAN_ECU");
    return;
  }
  if (!scene.timing.empty()) setenv("VARNEL_SIM_CAN_PEER", scene.timing.c_str(), 1);
  setenv("VARNEL_SIM_CAN_PEER", kDefaultPeerTiming, 0);
  if (!scene.traffic.empty()) setenv("VARNEL_SIM_CAN_TRAFFIC", scene.traffic.c_str(), 1);
  if (scene.ecu == kNoPeer)
    unsetenv("VARNEL_SIM_CAN_ECU");
  else if (!scene.ecu.empty())
    setenv("VARNEL_SIM_CAN_ECU", scene.ecu.c_str(), 1);
  setenv("VARNEL_SIM_CAN_ECU", kDefaultEcu, 0);
}

bool reexecute_on_sim() {
  const std::string directory = usbsim_directory();
  if (directory.empty()) {
    std::fprintf(stderr,
                 "varnel: the virtual adapter is not available: no libusb-1.0.so.0 in ../usbsim "
                 "nor in " VARNEL_USBSIM_FROM_BINDIR
                 " beside the tool (build the usbsim target)\n");
    return false;
  }
  std::string path = directory;
  if (const char* old = std::getenv("LD_LIBRARY_PATH"); old && *old) path += std::string(":") + old;
  setenv("LD_LIBRARY_PATH", path.c_str(), 1);
  setenv("VARNEL_USBSIM_ADAPTERS", kDefaultSimAdapters, 0);  // the caller's choice wins
  export_can_scene(sim_can_scene());
  if (!sim_serial_scene().lin.empty())
    setenv("VARNEL_SIM_LIN_TRAFFIC", sim_serial_scene().lin.c_str(), 1);
  if (!sim_serial_scene().uart.empty())
    setenv("VARNEL_SIM_UART_TRAFFIC", sim_serial_scene().uart.c_str(), 1);
  setenv(kSimActiveVariable, "1", 1);

  std::vector<std::string> args = own_arguments();
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  std::fflush(nullptr);
  const std::string self = executable_path();
  execv(self.c_str(), argv.data());
  std::fprintf(stderr, "varnel: cannot start on the virtual adapter: %s\n", std::strerror(errno));
  return false;
}

CLI::Validator timing_validator() {
  return CLI::Validator(
      [](std::string& text) {
        return text == kNoPeer || sim::scene_text::parse_timing(text)
                   ? std::string()
                   : "expected BITRATE, BITRATE/DATABITRATE or none";
      },
      "BITRATE[/DATA]");
}

CLI::Validator traffic_validator() {
  return CLI::Validator(
      [](std::string& text) {
        std::string bad, why;
        return sim::scene_text::parse_traffic(text, &bad, &why)
                   ? std::string()
                   : "'" + bad + "': " + why + " (frames with their period: 123#DEADBEEF@100)";
      },
      "ID#DATA@MS,...");
}

void add_sim_flag(CLI::App& app) {
  app.add_flag("--sim", sim_requested(), "run against the virtual adapter");
  auto* peer = app.add_option("--sim-can-peer", sim_can_scene().timing,
                              "bit timing of the acknowledging node on the virtual CAN bus "
                              "(default 500000/2000000; none: no node)")
                   ->check(timing_validator());
  app.add_option("--sim-traffic", sim_can_scene().traffic,
                 "frames that node sends, each with its period in ms: 123#DEADBEEF@100,...")
      ->check(traffic_validator());
  app.add_option("--sim-lin-traffic", sim_serial_scene().lin,
                 "frames a master plays on the virtual LIN buses, with their periods in ms: "
                 "21@10 (a header), 22#0102@20 (a write), 23#0304!@50 (a bad checksum)")
      ->check(CLI::Validator(
          [](std::string& text) {
            std::string bad;
            return sim::scene_text::parse_lin_traffic(text, &bad)
                       ? std::string()
                       : "'" + bad + "': expected ID@MS or ID#DATA[!]@MS";
          },
          "ID[#DATA[!]]@MS,..."));
  app.add_option("--sim-uart-traffic", sim_serial_scene().uart,
                 "bytes a device sends on a virtual UART channel's wire every period: "
                 "0#48690D0A@100 (channel 0, hex, ms)")
      ->check(CLI::Validator(
          [](std::string& text) {
            std::string bad;
            return sim::scene_text::parse_uart_traffic(text, &bad)
                       ? std::string()
                       : "'" + bad + "': expected CH#HEX@MS";
          },
          "CH#HEX@MS,..."));
  auto* ecu = app.add_option("--sim-ecu", sim_can_scene().ecu,
                             "request/response identifiers of the diagnostic ECU on the virtual "
                             "CAN bus (default 7E0/7E8; none: no ECU)");
  app.parse_complete_callback([peer, ecu] {
    if (peer->count() && sim_can_scene().timing == kNoPeer && !sim_can_scene().traffic.empty())
      throw CLI::ValidationError("--sim-traffic",
                                 "needs a node on the bus, not --sim-can-peer none");
    // naming the virtual bus's traffic only makes sense on the virtual adapter
    if (!sim_can_scene().traffic.empty() || peer->count() || ecu->count() ||
        !sim_serial_scene().lin.empty() || !sim_serial_scene().uart.empty())
      sim_requested() = true;
  });
}

}  // namespace

bool running_on_sim() {
  const char* active = std::getenv(kSimActiveVariable);
  return active && *active == '1';
}

std::string sibling_program(const std::string& name) {
  const std::string self = executable_path();
  const size_t slash = self.rfind('/');
  return slash == std::string::npos ? std::string() : self.substr(0, slash + 1) + name;
}

void follow_sim_can_timing(uint32_t bitrate, uint32_t data_bitrate) {
  SimCanScene& scene = sim_can_scene();
  if (scene.timing.empty() && !std::getenv("VARNEL_SIM_CAN_PEER"))
    scene.timing = std::to_string(bitrate) + "/" + std::to_string(data_bitrate);
}

void export_sim_can_scene() {
  export_can_scene(sim_can_scene());
}

std::string usbsim_directory() {
  // <build>/bin/varnel beside <build>/usbsim, or installed: <prefix>/bin and
  // <prefix>/lib/varnel/usbsim
  for (const char* relative : {"../usbsim", VARNEL_USBSIM_FROM_BINDIR}) {
    const std::string directory = sibling_program(relative);
    if (!directory.empty() && access((directory + "/libusb-1.0.so.0").c_str(), R_OK) == 0)
      return directory;
  }
  return {};
}

// The installed rules beside the tool, else (run from a build tree) the source's copy.
static std::string udev_rules_path() {
  char resolved[PATH_MAX];
  const std::string installed = sibling_program(VARNEL_UDEV_RULES_FROM_BINDIR);
  if (!installed.empty() && realpath(installed.c_str(), resolved)) return resolved;
  return VARNEL_SOURCE_UDEV_RULES;
}

bool prepare_adapters(bool always_sim) {
  if (running_on_sim()) return true;
  if (always_sim || sim_requested()) return reexecute_on_sim();
  // with --net the adapters are on the network; USB is not looked at
  if (!network_local_ip().empty() || USB_ScanDevice(nullptr) > 0) return true;
  // An adapter this user may not open is not listed either: libusb tells the two apart no further.
  std::fprintf(stderr,
               "varnel: no adapter found on USB\n"
               "  An adapter that is plugged in is listed only if this user may open it: install\n"
               "  the udev rules %s in /etc/udev/rules.d,\n"
               "  run `udevadm control --reload && udevadm trigger` and plug it in again.\n"
               "  `varnel --sim ...` runs on the virtual adapter instead.\n",
               udev_rules_path().c_str());
  return false;
}

VARNEL_COMMAND_GROUP(add_sim_flag)

}  // namespace varnel_cli
