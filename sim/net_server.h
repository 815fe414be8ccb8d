// The network face of virtual adapters: each adapter listens for TCP on its own loopback address
// (127.0.0.2, .3, ...), and one discovery socket answers the UDP probe for all of them, each
// answer sent from its adapter's address so that the host connects there.
//
//   sim::NetServer server({adapter_a, adapter_b}, {.discovery = 0, .tcp = 0});
//   server.start();                 // false (and error()) if a socket could not be bound
//   VARNEL_SetNetPorts(server.discovery_port(), server.tcp_port());
//   ...
//   server.stop();                  // also done by the destructor
//
// Port 0 picks free ports (tests); the daemon uses 1025 and 8000.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sim/virtual_adapter.h"

namespace sim {

struct NetPorts {
  uint16_t discovery = 1025;
  uint16_t tcp = 8000;
};

struct NetServerOptions {
  // The first adapter's address; the next ones count up from it.
  std::string first_address = "127.0.0.2";
  // Where the probe arrives: the loopback /24 broadcast address of the first adapter's network.
  std::string discovery_address = "127.0.0.255";
  // Discovery replies in the host's byte order instead of network order.
  bool replies_in_host_order = false;
};

class NetServer {
 public:
  NetServer(std::vector<std::shared_ptr<VirtualAdapter>> adapters, NetPorts ports = {},
            NetServerOptions options = {});
  ~NetServer();
  NetServer(const NetServer&) = delete;
  NetServer& operator=(const NetServer&) = delete;

  bool start();
  void stop();
  bool running() const { return running_; }
  const std::string& error() const { return error_; }

  // Ports actually bound (after start; resolves port 0).
  uint16_t discovery_port() const { return ports_.discovery; }
  uint16_t tcp_port() const { return ports_.tcp; }
  std::string address_of(size_t adapter) const;
  size_t adapter_count() const { return slots_.size(); }

  // Faults: closes every open TCP connection (the adapters keep listening).
  void drop_connections();
  // Connections accepted so far, over all adapters.
  uint32_t connections_accepted() const { return accepted_; }

 private:
  struct Connection;
  struct Slot;
  bool bind_all();
  void discovery_loop();
  void accept_loop(Slot& slot);
  void reader_loop(Slot& slot, std::shared_ptr<Connection> connection);
  void writer_loop(Slot& slot);
  static void flush_replies(Slot& slot, std::chrono::milliseconds wait);

  NetPorts ports_;
  NetServerOptions options_;
  std::vector<std::unique_ptr<Slot>> slots_;
  int discovery_fd_ = -1;
  int wake_fd_[2] = {-1, -1};  // written on stop to wake every poll
  std::atomic<bool> running_{false};
  std::atomic<uint32_t> accepted_{0};
  std::string error_;
  std::vector<std::thread> threads_;
};

}  // namespace sim
