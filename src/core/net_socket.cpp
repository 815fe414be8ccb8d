// The socket table and the TCP packet stream of network adapters.
//
// Each connected entry holds its socket through a shared pointer; a transaction keeps a copy for
// as long as it uses the socket. Disconnecting only drops the entry's copy, so a socket taken
// down by another thread stays open until the transaction that holds it is done, and is closed
// when the last holder lets go.
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>

#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/net.h"
#include "varnel.h"

namespace varnel {
namespace {

constexpr int kSocketTimeoutMs = 3000;
constexpr int kConnectTimeoutMs = 3000;
constexpr int kReceiveBuffer = 64512;

class Socket {
 public:
  explicit Socket(int fd) : fd_(fd) {}
  ~Socket() { ::close(fd_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};
using SocketPtr = std::shared_ptr<Socket>;

struct NetDeviceEntry {
  uint32_t handle = 0;
  in_addr_t address = 0;
  SocketPtr socket;  // set while connected
};

std::mutex socket_table_mutex;
// Entries are never removed (except by net_forget_all), so positions stay device indexes.
std::vector<std::unique_ptr<NetDeviceEntry>> socket_table;

NetDeviceEntry* find_locked(uint32_t handle) {
  for (auto& entry : socket_table)
    if (entry->handle == handle) return entry.get();
  return nullptr;
}

// A counted reference to the entry's socket, or null when not connected.
SocketPtr take_reference(uint32_t handle) {
  std::lock_guard guard(socket_table_mutex);
  NetDeviceEntry* entry = find_locked(handle);
  return entry ? entry->socket : nullptr;
}

// Takes the connection down, but only if it is still the one the caller failed on.
void disconnect_socket(uint32_t handle, const SocketPtr& failed) {
  SocketPtr dropped;
  std::lock_guard guard(socket_table_mutex);
  NetDeviceEntry* entry = find_locked(handle);
  if (entry && entry->socket == failed) dropped = std::move(entry->socket);
}

void set_timeout(int fd, int option, int ms) {
  timeval tv{ms / 1000, (ms % 1000) * 1000};
  ::setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv);
}

// Connects a TCP socket to address:port within 3 s. The socket, or -1.
int open_connection(in_addr_t address) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -3;
  set_timeout(fd, SO_RCVTIMEO, kSocketTimeoutMs);
  set_timeout(fd, SO_SNDTIMEO, kSocketTimeoutMs);
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  int buffer = 0;
  socklen_t len = sizeof buffer;
  if (::getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, &len) == 0 && buffer < kReceiveBuffer) {
    buffer = kReceiveBuffer;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  }
  const int flags = ::fcntl(fd, F_GETFL, 0);
  ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(net_tcp_port());
  to.sin_addr.s_addr = address;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
    if (errno != EINPROGRESS && errno != EWOULDBLOCK) {
      ::close(fd);
      return -5;
    }
    pollfd p{fd, POLLOUT, 0};
    int ready = ::poll(&p, 1, kConnectTimeoutMs);
    int error = 0;
    socklen_t error_len = sizeof error;
    if (ready <= 0 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &error_len) != 0 ||
        error != 0) {
      ::close(fd);
      return -5;
    }
  }
  ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  return fd;
}

// Before every request, nothing may wait on the stream: bytes there belong to an earlier
// transaction (a reply that came too late, or came twice) and are dropped so the next reply is
// ours. Replies of the same command carry nothing that tells them apart, so this is done however
// soon the request follows the last one. A peer that has closed the connection (daemon
// restarted, adapter rebooted) makes the socket stale.
bool stream_usable(int fd) {
  uint8_t scratch[4096];
  while (true) {
    ssize_t n = ::recv(fd, scratch, sizeof scratch, MSG_DONTWAIT);
    if (n > 0) continue;
    if (n == 0) return false;
    return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
  }
}

// Reads up to size bytes (into scratch when out is null), waiting for each piece only until the
// deadline: a peer that trickles its reply a byte at a time cannot hold the call, and the
// adapter's lock with it, for longer than the deadline allows. The bytes read, or -1 when the
// peer closed the connection or a receive failed.
int32_t receive_by(int fd, uint8_t* out, int32_t size, uint64_t deadline_ns) {
  uint8_t scratch[4096];
  int32_t done = 0;
  while (done < size) {
    const uint64_t now = monotonic_ns();
    if (now >= deadline_ns) break;
    pollfd p{fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, int((deadline_ns - now + 999'999) / 1'000'000));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) break;
    uint8_t* target = out ? out + done : scratch;
    size_t want = out ? size_t(size - done) : std::min<size_t>(sizeof scratch, size_t(size - done));
    ssize_t n = ::recv(fd, target, want, MSG_DONTWAIT);
    if (n == 0) return -1;
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
      return -1;
    }
    done += int32_t(n);
  }
  return done;
}

bool receive_exact(int fd, uint8_t* out, int32_t size, uint64_t deadline_ns) {
  return receive_by(fd, out, size, deadline_ns) == size;
}

// Drops a packet's payload, keeping the stream on the packet boundaries.
bool skip_payload(int fd, int32_t length, uint64_t deadline_ns) {
  return length <= 0 || receive_exact(fd, nullptr, length, deadline_ns);
}

}  // namespace

int net_table_position(uint32_t handle) {
  std::lock_guard guard(socket_table_mutex);
  for (size_t i = 0; i < socket_table.size() && i < size_t(kMaxDevices); ++i)
    if (socket_table[i]->handle == handle) return int(i);
  return -1;
}

void net_table_seen(uint32_t handle, in_addr_t address) {
  std::lock_guard guard(socket_table_mutex);
  if (NetDeviceEntry* entry = find_locked(handle)) {
    entry->address = address;
    return;
  }
  auto entry = std::make_unique<NetDeviceEntry>();
  entry->handle = handle;
  entry->address = address;
  socket_table.push_back(std::move(entry));
}

std::vector<uint32_t> net_table_handles() {
  std::lock_guard guard(socket_table_mutex);
  std::vector<uint32_t> out;
  for (auto& entry : socket_table) out.push_back(entry->handle);
  return out;
}

int net_connect(uint32_t handle) {
  in_addr_t address = 0;
  SocketPtr previous;
  {
    std::lock_guard guard(socket_table_mutex);
    NetDeviceEntry* entry = find_locked(handle);
    if (!entry) return -1;
    address = entry->address;
    previous = std::move(entry->socket);  // closed when its last user lets go
  }
  previous.reset();
  int fd = open_connection(address);
  if (fd < 0) return fd;
  auto socket = std::make_shared<Socket>(fd);
  std::lock_guard guard(socket_table_mutex);
  NetDeviceEntry* entry = find_locked(handle);
  if (!entry) return -1;  // the table was emptied meanwhile; the socket closes with us
  entry->socket = std::move(socket);
  return 0;
}

int net_disconnect(uint32_t handle) {
  SocketPtr dropped;
  std::lock_guard guard(socket_table_mutex);
  NetDeviceEntry* entry = find_locked(handle);
  if (!entry || !entry->socket) return -1;
  dropped = std::move(entry->socket);
  return 0;
}

bool net_reconnect(uint32_t handle) {
  return net_connect(handle) == 0;
}

int net_write_packet(uint32_t handle, const uint8_t* data, int size, bool connect_on_demand) {
  SocketPtr socket = take_reference(handle);
  if (socket && !stream_usable(socket->fd())) {
    disconnect_socket(handle, socket);
    socket.reset();
  }
  if (!socket) {
    if (!connect_on_demand || net_connect(handle) != 0) return -1;
    socket = take_reference(handle);
    if (!socket) return -1;
  }
  int sent = 0;
  while (sent < size) {
    ssize_t n = ::send(socket->fd(), data + sent, size_t(size - sent), MSG_NOSIGNAL);
    if (n < 0) {
      disconnect_socket(handle, socket);
      return -1;
    }
    sent += int(n);
  }
  return 0;
}

int net_read_reply(uint32_t handle, CommandPacket& reply, int timeout_ms) {
  const uint32_t expected = reply.command;
  SocketPtr socket = take_reference(handle);
  if (!socket) {
    if (net_connect(handle) != 0) return -1;
    socket = take_reference(handle);
    if (!socket) return -1;
  }
  const int fd = socket->fd();
  // The whole reply has one deadline, the call's time-out (at least the socket's 3 s): the
  // header, the payload however its bytes are spread out, and any packet skipped before it.
  const uint64_t deadline =
      monotonic_ns() + uint64_t(std::max(timeout_ms, kSocketTimeoutMs)) * 1'000'000;
  for (;;) {
    uint8_t header[8];
    if (!receive_exact(fd, header, sizeof header, deadline)) {
      reply.payload = nullptr;
      disconnect_socket(handle, socket);
      return -3;
    }
    reply.command = get_be32(header);
    reply.length = int32_t(get_be32(header + 4));
    if (reply.length > kTcpReplyLimit) {
      disconnect_socket(handle, socket);
      return -3;
    }
    if (reply.command == expected) break;
    // A packet of another command answers no request of ours (an earlier caller gave up on it):
    // it is dropped and the wait for our reply goes on.
    if (!skip_payload(fd, reply.length, deadline)) {
      disconnect_socket(handle, socket);
      return -3;
    }
  }
  if (reply.length <= 0) return 0;
  if (!reply.payload) {
    if (!skip_payload(fd, reply.length, deadline)) disconnect_socket(handle, socket);
    return -3;
  }
  const int32_t stored = std::min(reply.length, std::max<int32_t>(reply.capacity, 0));
  if (!receive_exact(fd, reply.payload, stored, deadline) ||
      !skip_payload(fd, reply.length - stored, deadline)) {
    disconnect_socket(handle, socket);
    return -3;
  }
  return 0;
}

void net_forget_all() {
  std::vector<std::unique_ptr<NetDeviceEntry>> dropped;
  std::lock_guard guard(socket_table_mutex);
  dropped.swap(socket_table);
}

}  // namespace varnel

using namespace varnel;

VARNEL_API bool NET_ConnectDevice(uint32_t handle) {
  return varnel::guarded(false, [&] { return net_connect(handle) == 0; });
}

VARNEL_API bool NET_DisconnectDevice(uint32_t handle) {
  return varnel::guarded(false, [&] { return net_disconnect(handle) == 0; });
}
