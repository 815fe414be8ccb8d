// varnel-sim: serves virtual adapters on the loopback network, as network adapters are reached.
//
//   varnel-sim [--adapter HANDLE]... [--count N] [--first-address 127.0.0.2]
//              [--discovery-port 1025] [--tcp-port 8000] [--host-order]
//   varnel-sim --version
//
// Each adapter gets its own address (127.0.0.2, .3, ...) with a TCP server; one UDP socket on
// 127.0.0.255 answers the discovery probe for all of them. --count N serves N adapters in all: the
// listed ones, then 0x55000010, 0x55000020, ... that are not listed. The handle's top byte is the
// adapter kind (0x55 or 0x56 with bit 0 clear for a network adapter). SIGINT/SIGTERM stop it
// cleanly.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sim/bus/can_scene.h"
#include "sim/net_server.h"
#include "varnel_version.h"

namespace {

void usage() {
  std::fprintf(stderr,
               "usage: varnel-sim [--adapter HANDLE]... [--count N] [--first-address ADDR]\n"
               "                  [--discovery-port PORT] [--tcp-port PORT] [--host-order]\n"
               "       varnel-sim --version\n");
}

bool parse_number(const char* text, unsigned long max, unsigned long* out) {
  char* end = nullptr;
  errno = 0;
  unsigned long value = std::strtoul(text, &end, 0);
  if (errno || !*text || *end || value > max) return false;
  *out = value;
  return true;
}

// The listed handles, then network adapters 0x55000010, 0x55000020, ... not already listed, until
// `count` are served (0: the listed ones only, or 0x55000010 alone when none is). Empty when a
// handle is listed twice or more are listed than `count` allows: two adapters with one handle
// would answer discovery alike and the host could reach only one of them.
std::vector<uint32_t> served_handles(std::vector<uint32_t> handles, unsigned long count) {
  for (size_t i = 0; i < handles.size(); ++i)
    for (size_t j = 0; j < i; ++j)
      if (handles[i] == handles[j]) return {};
  if (count && handles.size() > count) return {};
  if (!count && handles.empty()) count = 1;
  for (uint32_t next = 0x55000010u; handles.size() < count; next += 0x10u)
    if (std::find(handles.begin(), handles.end(), next) == handles.end()) handles.push_back(next);
  return handles;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<uint32_t> handles;
  unsigned long count = 0;
  sim::NetPorts ports;
  sim::NetServerOptions options;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    const bool has_value = i + 1 < argc;
    unsigned long value = 0;
    if (arg == "--adapter" && has_value && parse_number(argv[i + 1], 0xFFFFFFFFul, &value)) {
      handles.push_back(uint32_t(value));
    } else if (arg == "--count" && has_value && parse_number(argv[i + 1], 250, &value)) {
      count = value;
    } else if (arg == "--discovery-port" && has_value && parse_number(argv[i + 1], 65535, &value)) {
      ports.discovery = uint16_t(value);
    } else if (arg == "--tcp-port" && has_value && parse_number(argv[i + 1], 65535, &value)) {
      ports.tcp = uint16_t(value);
    } else if (arg == "--first-address" && has_value) {
      options.first_address = argv[i + 1];
    } else if (arg == "--host-order") {
      options.replies_in_host_order = true;
      continue;
    } else if (arg == "--version") {
      std::printf("varnel-sim %s\n", VARNEL_VERSION_STRING);
      return 0;
    } else if (arg == "--help" || arg == "-h") {
      usage();
      return 0;
    } else {
      usage();
      return 2;
    }
    ++i;
  }
  handles = served_handles(std::move(handles), count);
  if (handles.empty()) {
    std::fprintf(stderr,
                 "varnel-sim: each adapter needs a handle of its own, and --count N "
                 "is the number of adapters in all, the listed ones included\n");
    usage();
    return 2;
  }

  // SIGINT and SIGTERM are blocked in every thread (the server's threads inherit the mask) and
  // taken by sigwait below: a handler plus pause() could lose a signal that came just before the
  // pause, or went to another thread, and never stop.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  std::vector<std::shared_ptr<sim::VirtualAdapter>> adapters;
  for (uint32_t handle : handles) adapters.push_back(std::make_shared<sim::VirtualAdapter>(handle));
  sim::NetServer server(adapters, ports, options);

  std::signal(SIGPIPE, SIG_IGN);

  sim::start_can_scene_from_environment();
  if (!server.start()) {
    std::fprintf(stderr, "varnel-sim: %s\n", server.error().c_str());
    return 1;
  }
  std::printf("varnel-sim: discovery on %s:%u, TCP port %u\n", options.discovery_address.c_str(),
              server.discovery_port(), server.tcp_port());
  for (size_t i = 0; i < adapters.size(); ++i)
    std::printf("  adapter 0x%08X at %s\n", adapters[i]->handle(), server.address_of(i).c_str());
  std::fflush(stdout);
  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  server.stop();
  std::printf("varnel-sim: stopped\n");
  return 0;
}
