// One command round trip through the library over loopback TCP (send_command + read_reply) against
// the floor: a raw-socket ping-pong of the same packets. Both clients talk to the same kind of
// echo server, a thread that reads one request and writes one ready-made reply, so the ratio is
// what the library's client side adds. BM_LibraryToDaemon adds the virtual adapter's own server
// (command dispatch, a thread per connection) for reference.
//
//   bench_net_roundtrip --benchmark_repetitions=15 --benchmark_enable_random_interleaving=true
// Compare the medians of the Library and Raw runs of the same size (bench/compare_net.py).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "core/bytes.h"
#include "core/net.h"
#include "core/transaction.h"
#include "sim/families/device.h"
#include "sim/net_server.h"
#include "varnel.h"

namespace {

constexpr uint32_t kHandle = 0x55000010;

// Request/reply payload sizes: the device time (0 / 8 bytes) and a user-data read of 1 KiB
// (8 / 1024 bytes).
struct Sizes {
  int request;
  int reply;
};
constexpr Sizes kSizes[] = {{0, 8}, {8, 1024}};

struct Daemon {
  Daemon() {
    adapters.push_back(std::make_shared<sim::VirtualAdapter>(kHandle));
    server = std::make_unique<sim::NetServer>(adapters, sim::NetPorts{0, 0});
    if (!server->start()) return;
    VARNEL_SetNetPorts(server->discovery_port(), server->tcp_port());
    uint32_t handles[VARNEL_MAX_DEVICES];
    ok = NET_ScanDevice("127.0.0.1", handles, 200) >= 1 && NET_ConnectDevice(kHandle);
  }
  std::vector<std::shared_ptr<sim::VirtualAdapter>> adapters;
  std::unique_ptr<sim::NetServer> server;
  bool ok = false;
};

Daemon& daemon() {
  static Daemon instance;
  return instance;
}

struct Request {
  uint32_t command;
  std::vector<uint8_t> payload;
};

// The device time (no payload, 8-byte reply) and a user-data read of 1 KiB (8-byte request).
Request request_for(const Sizes& sizes) {
  Request r{sizes.request ? 0x0108u : 0x0015u, std::vector<uint8_t>(size_t(sizes.request), 0)};
  if (sizes.request == 8)
    r.payload[7] = uint8_t(sizes.reply), r.payload[6] = uint8_t(sizes.reply >> 8);
  return r;
}

void run_library_round_trips(benchmark::State& state, uint32_t handle, const Sizes& sizes) {
  const Request request = request_for(sizes);
  std::vector<uint8_t> reply(size_t(sizes.reply));
  for (auto _ : state) {
    auto result = varnel::transact(handle, request.command, request.payload, reply);
    if (!result.ok() || result.reply_length != sizes.reply) {
      state.SkipWithError("transaction failed");
      break;
    }
  }
}

void BM_LibraryToDaemon(benchmark::State& state) {
  if (!daemon().ok) {
    state.SkipWithError("daemon did not start");
    return;
  }
  run_library_round_trips(state, kHandle, kSizes[state.range(0)]);
}

// The echo server: accepts one connection, then answers each request of the expected size with
// the same ready reply (a well-formed packet of `command`).
class EchoServer {
 public:
  EchoServer(Sizes sizes, uint32_t command) : sizes_(sizes) {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listen_fd_, reinterpret_cast<sockaddr*>(&at), sizeof at);
    ::listen(listen_fd_, 1);
    socklen_t len = sizeof at;
    ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&at), &len);
    port_ = ntohs(at.sin_port);
    reply_.assign(size_t(8 + sizes.reply), 0);
    varnel::put_be32(reply_.data(), command);
    varnel::put_be32(reply_.data() + 4, uint32_t(sizes.reply));
    thread_ = std::thread([this] { serve(); });
  }
  ~EchoServer() {
    ::shutdown(listen_fd_, SHUT_RDWR);
    if (connection_fd_ >= 0) ::shutdown(connection_fd_, SHUT_RDWR);
    thread_.join();
    if (connection_fd_ >= 0) ::close(connection_fd_);
    ::close(listen_fd_);
  }
  uint16_t port() const { return port_; }

 private:
  void serve() {
    connection_fd_ = ::accept(listen_fd_, nullptr, nullptr);
    if (connection_fd_ < 0) return;
    int one = 1;
    ::setsockopt(connection_fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    std::vector<uint8_t> in(size_t(8 + sizes_.request));
    while (::recv(connection_fd_, in.data(), in.size(), MSG_WAITALL) == ssize_t(in.size()))
      ::send(connection_fd_, reply_.data(), reply_.size(), MSG_NOSIGNAL);
  }
  Sizes sizes_;
  uint16_t port_ = 0;
  int listen_fd_ = -1;
  std::atomic<int> connection_fd_{-1};
  std::vector<uint8_t> reply_;
  std::thread thread_;
};

// The library connects to the echo server as to an adapter found at 127.0.0.1.
void BM_LibraryRoundTrip(benchmark::State& state) {
  constexpr uint32_t kEchoHandle = 0x55000020;
  const Sizes sizes = kSizes[state.range(0)];
  EchoServer server(sizes, request_for(sizes).command);
  VARNEL_SetNetPorts(0, server.port());
  varnel::net_table_seen(kEchoHandle, htonl(INADDR_LOOPBACK));
  if (!NET_ConnectDevice(kEchoHandle)) {
    state.SkipWithError("no connection to the echo server");
    return;
  }
  run_library_round_trips(state, kEchoHandle, sizes);
  NET_DisconnectDevice(kEchoHandle);
}

void BM_RawPingPong(benchmark::State& state) {
  const Sizes sizes = kSizes[state.range(0)];
  EchoServer server(sizes, request_for(sizes).command);
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  at.sin_port = htons(server.port());
  int one = 1;
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0) {
    state.SkipWithError("no connection to the echo server");
    ::close(fd);
    return;
  }
  std::vector<uint8_t> request(size_t(8 + sizes.request), 0);
  std::vector<uint8_t> reply(size_t(8 + sizes.reply));
  for (auto _ : state) {
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != ssize_t(request.size()) ||
        ::recv(fd, reply.data(), reply.size(), MSG_WAITALL) != ssize_t(reply.size())) {
      state.SkipWithError("raw round trip failed");
      break;
    }
  }
  ::close(fd);
}

}  // namespace

BENCHMARK(BM_LibraryRoundTrip)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_LibraryToDaemon)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_RawPingPong)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK_MAIN();
