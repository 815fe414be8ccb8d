#include "sim/net_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>

namespace sim {
namespace {

constexpr uint32_t kDiscoveryMagic = 0x12345678;
constexpr size_t kStreamChunk = 64 * 1024;
// The host takes a TCP reply whose payload exceeds 65,535 bytes for a broken stream.
constexpr size_t kTcpReplyLimit = 65535;
constexpr int kBindAttempts = 20;

in_addr_t parse_address(const std::string& text) {
  in_addr address{};
  if (::inet_pton(AF_INET, text.c_str(), &address) != 1) return INADDR_NONE;
  return address.s_addr;
}

int bound_socket(int type, in_addr_t address, uint16_t port, std::string* error) {
  int fd = ::socket(AF_INET, type | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = std::string("socket: ") + std::strerror(errno);
    return -1;
  }
  int one = 1;
  if (type == SOCK_STREAM) ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(port);
  at.sin_addr.s_addr = address;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0 ||
      (type == SOCK_STREAM && ::listen(fd, SOMAXCONN) != 0)) {
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &at.sin_addr, text, sizeof text);
    *error = std::string("bind ") + text + ":" + std::to_string(port) + ": " + std::strerror(errno);
    ::close(fd);
    return -1;
  }
  return fd;
}

uint16_t local_port(int fd) {
  sockaddr_in at{};
  socklen_t len = sizeof at;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&at), &len);
  return ntohs(at.sin_port);
}

void send_all(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n <= 0) return;
    data += n;
    size -= size_t(n);
  }
}

// How many bytes at the front of `bytes` are whole request packets (an 8-byte header, command and
// length big-endian, then the payload). A header whose length is garbage ends the count with
// everything: the adapter drops it and resynchronises, as it does on USB.
size_t whole_packets(const std::vector<uint8_t>& bytes) {
  size_t at = 0;
  while (bytes.size() - at >= 8) {
    const uint8_t* h = bytes.data() + at + 4;
    const int32_t length =
        int32_t((uint32_t{h[0]} << 24) | (uint32_t{h[1]} << 16) | (uint32_t{h[2]} << 8) | h[3]);
    if (length < 0 || length > VirtualAdapter::kMaxRequestPayload) return bytes.size();
    if (bytes.size() - at - 8 < size_t(length)) break;
    at += 8 + size_t(length);
  }
  return at;
}

void close_fd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

}  // namespace

struct NetServer::Connection {
  explicit Connection(int descriptor) : fd(descriptor) {}
  ~Connection() { ::close(fd); }
  int fd;
};

struct NetServer::Slot {
  std::shared_ptr<VirtualAdapter> adapter;
  in_addr_t address = 0;
  int listen_fd = -1;
  int reply_fd = -1;  // discovery answers leave from the adapter's own address

  // One request at a time, whole, from its arrival to its immediate reply: with several hosts
  // connected, a reply goes back down the connection its request came on.
  std::mutex request_mutex;
  std::mutex mutex;  // guards the fields below; held while replies are taken and sent
  std::shared_ptr<Connection> current;  // the connection the last request came on
  std::vector<std::weak_ptr<Connection>> connections;
  int readers = 0;
  std::condition_variable readers_done;
};

NetServer::NetServer(std::vector<std::shared_ptr<VirtualAdapter>> adapters, NetPorts ports,
                     NetServerOptions options)
    : ports_(ports), options_(std::move(options)) {
  const in_addr_t first = parse_address(options_.first_address);
  for (size_t i = 0; i < adapters.size(); ++i) {
    auto slot = std::make_unique<Slot>();
    slot->adapter = std::move(adapters[i]);
    slot->adapter->set_reply_limit(kTcpReplyLimit);
    slot->address = htonl(ntohl(first) + uint32_t(i));
    slots_.push_back(std::move(slot));
  }
}

NetServer::~NetServer() {
  stop();
}

std::string NetServer::address_of(size_t adapter) const {
  if (adapter >= slots_.size()) return {};
  in_addr address{slots_[adapter]->address};
  char text[INET_ADDRSTRLEN] = {};
  ::inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

bool NetServer::bind_all() {
  const uint16_t wanted_tcp = ports_.tcp;
  for (int attempt = 0; attempt < kBindAttempts; ++attempt) {
    bool all = true;
    uint16_t port = wanted_tcp;
    for (auto& slot : slots_) {
      slot->listen_fd = bound_socket(SOCK_STREAM, slot->address, port, &error_);
      if (slot->listen_fd < 0) {
        all = false;
        break;
      }
      port = local_port(slot->listen_fd);  // a free port chosen for the first adapter
    }
    if (all) {
      ports_.tcp = port;
      break;
    }
    for (auto& slot : slots_) close_fd(slot->listen_fd);
    if (wanted_tcp != 0) return false;  // a fixed port is taken: nothing to retry
  }
  if (!slots_.empty() && slots_[0]->listen_fd < 0) return false;
  for (auto& slot : slots_) {
    slot->reply_fd = bound_socket(SOCK_DGRAM, slot->address, 0, &error_);
    if (slot->reply_fd < 0) return false;
  }
  discovery_fd_ = bound_socket(SOCK_DGRAM, parse_address(options_.discovery_address),
                               ports_.discovery, &error_);
  if (discovery_fd_ < 0) return false;
  ports_.discovery = local_port(discovery_fd_);
  return true;
}

bool NetServer::start() {
  if (running_) return true;
  error_.clear();
  if (::pipe2(wake_fd_, O_CLOEXEC) != 0 || !bind_all()) {
    stop();
    return false;
  }
  running_ = true;
  threads_.emplace_back([this] { discovery_loop(); });
  for (auto& slot : slots_) {
    Slot* s = slot.get();
    threads_.emplace_back([this, s] { accept_loop(*s); });
    threads_.emplace_back([this, s] { writer_loop(*s); });
  }
  return true;
}

void NetServer::stop() {
  running_ = false;
  if (wake_fd_[1] >= 0) {
    uint8_t byte = 1;
    (void)!::write(wake_fd_[1], &byte, 1);
  }
  for (auto& thread : threads_) thread.join();
  threads_.clear();
  drop_connections();
  for (auto& slot : slots_) {
    std::unique_lock guard(slot->mutex);
    slot->readers_done.wait(guard, [&] { return slot->readers == 0; });
    slot->current.reset();
    slot->connections.clear();
    guard.unlock();
    close_fd(slot->listen_fd);
    close_fd(slot->reply_fd);
  }
  close_fd(discovery_fd_);
  close_fd(wake_fd_[0]);
  close_fd(wake_fd_[1]);
}

void NetServer::drop_connections() {
  for (auto& slot : slots_) {
    std::lock_guard guard(slot->mutex);
    for (auto& weak : slot->connections)
      if (auto connection = weak.lock()) ::shutdown(connection->fd, SHUT_RDWR);
    slot->current.reset();
  }
}

void NetServer::discovery_loop() {
  uint8_t datagram[1024];
  while (running_) {
    pollfd p[2] = {{discovery_fd_, POLLIN, 0}, {wake_fd_[0], POLLIN, 0}};
    if (::poll(p, 2, -1) <= 0 || (p[1].revents & POLLIN)) continue;
    sockaddr_in from{};
    socklen_t from_len = sizeof from;
    ssize_t n = ::recvfrom(discovery_fd_, datagram, sizeof datagram, 0,
                           reinterpret_cast<sockaddr*>(&from), &from_len);
    if (n != 4) continue;
    uint32_t host_order = 0;
    std::memcpy(&host_order, datagram, 4);
    if (host_order != kDiscoveryMagic && ntohl(host_order) != kDiscoveryMagic) continue;
    for (auto& slot : slots_) {
      uint32_t words[2] = {kDiscoveryMagic, slot->adapter->handle()};
      if (!options_.replies_in_host_order) {
        words[0] = htonl(words[0]);
        words[1] = htonl(words[1]);
      }
      ::sendto(slot->reply_fd, words, sizeof words, 0, reinterpret_cast<sockaddr*>(&from),
               from_len);
    }
  }
}

void NetServer::accept_loop(Slot& slot) {
  while (running_) {
    pollfd p[2] = {{slot.listen_fd, POLLIN, 0}, {wake_fd_[0], POLLIN, 0}};
    if (::poll(p, 2, -1) <= 0 || (p[1].revents & POLLIN)) continue;
    int fd = ::accept4(slot.listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    auto connection = std::make_shared<Connection>(fd);
    ++accepted_;
    {
      std::lock_guard request(slot.request_mutex);  // not between a request and its reply
      std::lock_guard guard(slot.mutex);
      // What was queued for the last connection (a reply still trickling out, a late one) is
      // not sent down the new one: a peer that connects again starts a clean stream.
      slot.adapter->reset();
      std::erase_if(slot.connections, [](auto& weak) { return weak.expired(); });
      slot.connections.push_back(connection);
      ++slot.readers;
    }
    // Readers end with their connection; stop() waits for them by count.
    std::thread([this, &slot, c = std::move(connection)]() mutable {
      reader_loop(slot, std::move(c));
    }).detach();
  }
}

void NetServer::reader_loop(Slot& slot, std::shared_ptr<Connection> connection) {
  std::vector<uint8_t> buffer(kStreamChunk), pending;
  // A plain blocking receive: stop() and drop_connections() shut the socket down to end it.
  while (running_) {
    ssize_t n = ::recv(connection->fd, buffer.data(), buffer.size(), 0);
    if (n <= 0) break;
    pending.insert(pending.end(), buffer.data(), buffer.data() + n);
    const size_t whole = whole_packets(pending);
    if (whole == 0) continue;  // the rest of the request is still on its way
    {
      std::lock_guard request(slot.request_mutex);
      {
        std::lock_guard guard(slot.mutex);
        slot.current = connection;
      }
      slot.adapter->receive(pending.data(), whole);
      // Replies a handler produced at once go out from this thread: no hand-over to the writer.
      flush_replies(slot, std::chrono::milliseconds(0));
    }
    pending.erase(pending.begin(), pending.begin() + ptrdiff_t(whole));
  }
  std::lock_guard guard(slot.mutex);
  if (slot.current == connection) slot.current.reset();
  connection.reset();
  if (--slot.readers == 0) slot.readers_done.notify_all();
}

void NetServer::writer_loop(Slot& slot) {
  // Replies that were not ready when their request came (late replies, data the adapter queues
  // on its own) are sent from here. It looks every millisecond instead of waiting on the
  // adapter's queue, so that the common reply, sent by the reader, wakes no second thread.
  while (running_) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (slot.adapter->has_pending_reply()) flush_replies(slot, std::chrono::milliseconds(0));
  }
}

void NetServer::flush_replies(Slot& slot, std::chrono::milliseconds wait) {
  thread_local std::vector<uint8_t> buffer(kStreamChunk);
  std::lock_guard guard(slot.mutex);
  // Asking the adapter only while something is queued: a read that finds nothing sleeps on a
  // timer, which would add tens of microseconds to every reply.
  while (slot.adapter->has_pending_reply()) {
    int n = slot.adapter->read_stream(buffer.data(), buffer.size(), wait);
    if (n <= 0) return;
    if (slot.current) send_all(slot.current->fd, buffer.data(), size_t(n));
  }
}

}  // namespace sim
