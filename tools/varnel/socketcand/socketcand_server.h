// The socketcand server: a TCP listener and its clients, served by one poll loop that also drains
// the opened CAN channels, so no thread besides the library's receive pollers runs and stopping
// is one readable file descriptor.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "socketcand/socketcand_channel.h"
#include "socketcand/socketcand_protocol.h"

namespace varnel_cli::socketcand {

struct ServerOptions {
  std::string listen_address = "127.0.0.1";
  uint16_t port = kDefaultPort;  // 0: any free port (see Server::port)
  uint32_t bitrate = 500000;
  uint32_t data_bitrate = 2000000;
  bool beacon = false;  // broadcast the discovery beacon to UDP port 42000
};

class Server {
 public:
  Server(ServerOptions options, std::vector<ChannelId> aliases);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds and listens; false, having said why on stderr, when it cannot.
  bool listen();
  uint16_t port() const { return port_; }
  // Serves until `stop_fd` becomes readable (or fails).
  void run(int stop_fd);

 private:
  enum class Mode { NoBus, Bcm, Raw };
  struct Client {
    int fd = -1;
    ElementSplitter splitter;
    std::string out;  // not yet written
    CanChannel* bus = nullptr;
    Mode mode = Mode::NoBus;
    // Frames wait this long after the `< ok >` to rawmode, so that a client reading the ok with
    // one exact-size read does not get a frame glued to it.
    std::chrono::steady_clock::time_point hold_until{};
    uint64_t dropped = 0;  // frames dropped because the client did not read
    bool closing = false;
  };

  void accept_client();
  void read_client(Client& client);
  void handle(Client& client, const Command& command);
  void open_bus(Client& client, const std::string& name);
  void send_frame(Client& client, const Frame& frame);
  void drain_channels();
  void deliver(const CanChannel* bus, const TimedFrame& frame, const Client* except);
  void flush(Client& client);
  void send_beacon();
  void close_client(Client& client);

  ServerOptions options_;
  std::vector<ChannelId> aliases_;
  int listen_fd_ = -1;
  int beacon_fd_ = -1;
  uint16_t port_ = 0;
  std::chrono::steady_clock::time_point next_beacon_{};
  // Adapters outlive their channels: members are destroyed in reverse order.
  AdapterSet adapters_;
  std::map<ChannelId, std::unique_ptr<CanChannel>> channels_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::vector<TimedFrame> received_;
};

}  // namespace varnel_cli::socketcand
