// Helpers for tests through real loopback sockets: a daemon on free ports, and open descriptors.
#pragma once

#include <dirent.h>

#include <memory>
#include <vector>

#include "core/net.h"
#include "sim/net_server.h"
#include "varnel.h"

namespace net_support {

inline int open_descriptors() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir)) ++count;
    closedir(dir);
  }
  return count;
}

// A daemon serving `handles` on free ports, with the library pointed at them.
struct Daemon {
  explicit Daemon(std::vector<uint32_t> handles, sim::NetPorts ports = {0, 0},
                  sim::NetServerOptions options = {}) {
    for (uint32_t h : handles) adapters.push_back(std::make_shared<sim::VirtualAdapter>(h));
    server = std::make_unique<sim::NetServer>(adapters, ports, options);
    ok = server->start();
    if (ok) VARNEL_SetNetPorts(server->discovery_port(), server->tcp_port());
  }
  std::vector<std::shared_ptr<sim::VirtualAdapter>> adapters;
  std::unique_ptr<sim::NetServer> server;
  bool ok = false;
};

// Scans loopback (probe to 127.0.0.255) and returns the handles found.
inline std::vector<uint32_t> scan(int timeout_ms = 200) {
  uint32_t handles[VARNEL_MAX_DEVICES] = {};
  int n = NET_ScanDevice("127.0.0.1", handles, timeout_ms);
  if (n < 0) return {};
  return std::vector<uint32_t>(handles, handles + n);
}

}  // namespace net_support
