#include "socketcand/socketcand_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "core/result_text.h"

namespace varnel_cli::socketcand {
namespace {

using Clock = std::chrono::steady_clock;

// The library's poller fetches every 10 ms; draining its queues twice as often adds little delay.
constexpr int kTickMs = 5;
constexpr int kIdleTickMs = 500;
constexpr auto kRawModeHold = std::chrono::milliseconds(50);
constexpr auto kBeaconInterval = std::chrono::seconds(3);
// A client that lets this much output pile up loses frames; one that does not even take its
// command replies is disconnected.
constexpr size_t kMaxPending = 1 << 20;
constexpr size_t kMaxClients = 64;

uint64_t wall_clock_us() {
  return uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count());
}

bool set_non_blocking(int fd) {
  const int flags = fcntl(fd, F_GETFL, 0);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// The address clients should connect to: the listening one, or for 0.0.0.0 the one this host
// sends broadcasts from.
std::string advertised_address(const std::string& listen_address, int udp_fd) {
  if (listen_address != "0.0.0.0") return listen_address;
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(kBeaconPort);
  to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
  sockaddr_in local{};
  socklen_t length = sizeof local;
  char text[INET_ADDRSTRLEN] = {};
  if (connect(udp_fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0 ||
      getsockname(udp_fd, reinterpret_cast<sockaddr*>(&local), &length) != 0 ||
      !inet_ntop(AF_INET, &local.sin_addr, text, sizeof text))
    return listen_address;
  return text;
}

}  // namespace

Server::Server(ServerOptions options, std::vector<ChannelId> aliases)
    : options_(std::move(options)), aliases_(std::move(aliases)) {}

Server::~Server() {
  for (auto& client : clients_) close_client(*client);
  if (listen_fd_ >= 0) close(listen_fd_);
  if (beacon_fd_ >= 0) close(beacon_fd_);
}

bool Server::listen() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(options_.port);
  if (inet_pton(AF_INET, options_.listen_address.c_str(), &address.sin_addr) != 1) {
    std::fprintf(stderr, "socketcand: not an IPv4 address: %s\n", options_.listen_address.c_str());
    return false;
  }
  listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int one = 1;
  if (listen_fd_ < 0 || setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
      bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listen_fd_, 16) != 0 || !set_non_blocking(listen_fd_)) {
    std::fprintf(stderr, "socketcand: cannot listen on %s:%u: %s\n",
                 options_.listen_address.c_str(), unsigned(options_.port), std::strerror(errno));
    return false;
  }
  socklen_t length = sizeof address;
  getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  if (options_.beacon) {
    beacon_fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (beacon_fd_ < 0 || setsockopt(beacon_fd_, SOL_SOCKET, SO_BROADCAST, &one, sizeof one) != 0) {
      std::fprintf(stderr, "socketcand: no beacon socket: %s\n", std::strerror(errno));
      return false;
    }
  }
  return true;
}

void Server::run(int stop_fd) {
  std::vector<pollfd> fds;
  while (true) {
    fds.clear();
    fds.push_back({stop_fd, POLLIN, 0});
    fds.push_back({listen_fd_, POLLIN, 0});
    const auto now = Clock::now();
    for (auto& client : clients_) {
      const bool writable = !client->out.empty() && now >= client->hold_until;
      fds.push_back({client->fd, short(POLLIN | (writable ? POLLOUT : 0)), 0});
    }
    const size_t polled_clients = clients_.size();
    const int ready = poll(fds.data(), fds.size(), channels_.empty() ? kIdleTickMs : kTickMs);
    if (ready < 0 && errno != EINTR) {
      std::fprintf(stderr, "socketcand: poll: %s\n", std::strerror(errno));
      return;
    }
    if (ready > 0 && fds[0].revents) return;
    if (ready > 0 && (fds[1].revents & POLLIN)) accept_client();
    for (size_t i = 0; ready > 0 && i < polled_clients; ++i)
      if (fds[2 + i].revents & (POLLIN | POLLHUP | POLLERR)) read_client(*clients_[i]);
    drain_channels();
    for (auto& client : clients_) flush(*client);
    if (beacon_fd_ >= 0 && Clock::now() >= next_beacon_) send_beacon();
    for (auto& client : clients_)
      if (client->closing) close_client(*client);
    std::erase_if(clients_, [](const auto& client) { return client->fd < 0; });
  }
}

void Server::accept_client() {
  const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) return;  // the peer went away already, or out of descriptors: try again later
  auto client = std::make_unique<Client>();
  client->fd = fd;
  if (clients_.size() >= kMaxClients) {
    client->out = format_error("too many clients");
    client->closing = true;
  } else {
    client->out = kHi;
  }
  flush(*client);
  clients_.push_back(std::move(client));
}

void Server::read_client(Client& client) {
  if (client.closing) return;
  char buffer[4096];
  const ssize_t n = recv(client.fd, buffer, sizeof buffer, 0);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  if (n <= 0) {
    client.closing = true;
    return;
  }
  for (const Element& element : client.splitter.feed({buffer, size_t(n)})) {
    if (client.out.size() > kMaxPending) {
      client.closing = true;  // it sends commands but does not read the replies
      return;
    }
    if (!element.ok) {
      client.out += format_error(element.text);
      continue;
    }
    handle(client, parse_command(element.text));
  }
}

void Server::handle(Client& client, const Command& command) {
  const bool has_bus = client.mode != Mode::NoBus;
  switch (command.kind) {
    case CommandKind::Open:
      if (has_bus)
        client.out += format_error("a bus is open already");
      else
        open_bus(client, command.bus);
      return;
    case CommandKind::RawMode:
    case CommandKind::BcmMode:
      if (!has_bus) {
        client.out += format_error("open a bus first");
        return;
      }
      client.out += kOk;
      if (command.kind == CommandKind::BcmMode) {
        client.mode = Mode::Bcm;
        return;
      }
      client.mode = Mode::Raw;
      flush(client);
      client.hold_until = Clock::now() + kRawModeHold;
      return;
    case CommandKind::Send:
      if (has_bus)
        send_frame(client, command.frame);
      else
        client.out += format_error("open a bus first");
      return;
    case CommandKind::Echo:
      client.out += kEcho;
      return;
    case CommandKind::Unsupported:
    case CommandKind::Malformed:
      client.out += format_error(command.error);
      return;
  }
}

void Server::open_bus(Client& client, const std::string& name) {
  const auto bus = parse_can_channel_name(name);
  const auto resolved = bus ? resolve_can_channel(aliases_, *bus) : std::nullopt;
  const std::string known =
      aliases_.empty() ? std::string("no adapter was found at start; use HANDLE:CH")
                       : "use can0.." + can_channel_name(aliases_.size() - 1) + " or HANDLE:CH";
  if (!resolved) {
    client.out += format_error("no such bus (" + known + ")");
    return;
  }
  const ChannelId id = *resolved;
  auto found = channels_.find(id);
  if (found == channels_.end()) {
    if (!adapters_.open(id.handle)) {
      client.out += format_error("adapter " + can_channel_text(id).substr(0, 10) +
                                 " not found or not opened (see the server's log)");
      return;
    }
    std::string why;
    auto channel = std::make_unique<CanChannel>(id);
    if (channel->open(options_.bitrate, options_.data_bitrate, why) != 0) {
      client.out += format_error(why);
      return;
    }
    found = channels_.emplace(id, std::move(channel)).first;
  }
  client.bus = found->second.get();
  client.mode = Mode::Bcm;
  client.out += kOk;
}

void Server::send_frame(Client& client, const Frame& frame) {
  if (frame.fd && !client.bus->fd()) {
    client.out += format_error("CAN FD frame on a classic CAN channel");
    return;
  }
  const int rc = client.bus->send(frame);
  if (rc == 1) {
    // Like a SocketCAN interface, the other clients of this channel see what one of them sent.
    deliver(client.bus, {frame, wall_clock_us()}, &client);
  } else if (rc == 0) {
    client.out += format_error("send failed: no node acknowledged the frame");
  } else {
    client.out += format_error("send failed: " + describe_result(rc));
  }
}

void Server::drain_channels() {
  for (auto& [id, channel] : channels_) {
    received_.clear();
    const int rc = channel->receive(received_);
    for (const TimedFrame& frame : received_) deliver(channel.get(), frame, nullptr);
    if (rc < 0) {
      for (auto& client : clients_)
        if (client->bus == channel.get() && client->mode == Mode::Raw)
          client->out += format_error("receive failed: " + describe_result(rc));
    }
  }
}

void Server::deliver(const CanChannel* bus, const TimedFrame& frame, const Client* except) {
  // The line break before each frame lets a client that drops one character after the last
  // complete element of a read (python-can does) lose only the line break.
  const std::string text = "\n" + format_frame(frame.frame, frame.time_us);
  for (auto& client : clients_) {
    if (client->bus != bus || client->mode != Mode::Raw || client.get() == except) continue;
    if (client->out.size() > kMaxPending)
      ++client->dropped;
    else
      client->out += text;
  }
}

void Server::flush(Client& client) {
  if (client.out.empty() || client.fd < 0 || Clock::now() < client.hold_until) return;
  const ssize_t n = send(client.fd, client.out.data(), client.out.size(), MSG_NOSIGNAL);
  if (n > 0) {
    client.out.erase(0, size_t(n));
  } else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
    client.closing = true;
  }
}

void Server::send_beacon() {
  next_beacon_ = Clock::now() + kBeaconInterval;
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  std::vector<std::string> buses;
  for (size_t i = 0; i < aliases_.size(); ++i) buses.push_back(can_channel_name(i));
  const std::string url = "can://" + advertised_address(options_.listen_address, beacon_fd_) + ":" +
                          std::to_string(port_);
  const std::string text = format_beacon(host, url, buses);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(kBeaconPort);
  to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
  if (sendto(beacon_fd_, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) <
      0) {
    std::fprintf(stderr, "socketcand: beacon not sent (%s); no more beacons\n",
                 std::strerror(errno));
    close(beacon_fd_);
    beacon_fd_ = -1;
  }
}

void Server::close_client(Client& client) {
  if (client.fd < 0) return;
  if (client.dropped)
    std::fprintf(stderr, "socketcand: a client lost %llu frames: it did not read them in time\n",
                 (unsigned long long)client.dropped);
  close(client.fd);
  client.fd = -1;
}

}  // namespace varnel_cli::socketcand
