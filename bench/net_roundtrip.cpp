// One command round trip through the library over loopback TCP (send_command + read_reply to the
// virtual adapter daemon, in-process), against the floor: a raw-socket ping-pong of the same
// packet sizes with a server thread that only echoes fixed replies.
//
//   bench_net_roundtrip --benchmark_repetitions=9 --benchmark_report_aggregates_only=true
// Compare the medians of the Library and Raw runs of the same size.
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

void BM_LibraryRoundTrip(benchmark::State& state) {
  const Sizes sizes = kSizes[state.range(0)];
  if (!daemon().ok) {
    state.SkipWithError("daemon did not start");
    return;
  }
  std::vector<uint8_t> request(size_t(sizes.request), 0);
  if (sizes.request == 8)
    request[7] = uint8_t(sizes.reply >> 0), request[6] = uint8_t(sizes.reply >> 8);
  const uint32_t command = sizes.request ? 0x0108 : 0x0015;
  std::vector<uint8_t> reply(size_t(sizes.reply));
  for (auto _ : state) {
    auto result = varnel::transact(kHandle, command, request, reply);
    if (!result.ok() || result.reply_length != sizes.reply) {
      state.SkipWithError("transaction failed");
      break;
    }
  }
}

// The floor: a server thread that reads one request and writes one reply of the same sizes.
class RawPeer {
 public:
  explicit RawPeer(Sizes sizes) : sizes_(sizes) {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(listen_fd_, reinterpret_cast<sockaddr*>(&at), sizeof at);
    ::listen(listen_fd_, 1);
    socklen_t len = sizeof at;
    ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&at), &len);
    client_fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    ::connect(client_fd_, reinterpret_cast<sockaddr*>(&at), sizeof at);
    int one = 1;
    ::setsockopt(client_fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    server_fd_ = ::accept(listen_fd_, nullptr, nullptr);
    ::setsockopt(server_fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    thread_ = std::thread([this] { serve(); });
  }
  ~RawPeer() {
    ::shutdown(client_fd_, SHUT_RDWR);
    thread_.join();
    ::close(client_fd_);
    ::close(server_fd_);
    ::close(listen_fd_);
  }
  bool round_trip(const std::vector<uint8_t>& request, std::vector<uint8_t>& reply) {
    if (::send(client_fd_, request.data(), request.size(), MSG_NOSIGNAL) != ssize_t(request.size()))
      return false;
    return ::recv(client_fd_, reply.data(), reply.size(), MSG_WAITALL) == ssize_t(reply.size());
  }

 private:
  void serve() {
    std::vector<uint8_t> in(size_t(8 + sizes_.request));
    std::vector<uint8_t> out(size_t(8 + sizes_.reply), 0);
    while (::recv(server_fd_, in.data(), in.size(), MSG_WAITALL) == ssize_t(in.size()))
      ::send(server_fd_, out.data(), out.size(), MSG_NOSIGNAL);
  }
  Sizes sizes_;
  int listen_fd_ = -1, client_fd_ = -1, server_fd_ = -1;
  std::thread thread_;
};

void BM_RawPingPong(benchmark::State& state) {
  const Sizes sizes = kSizes[state.range(0)];
  RawPeer peer(sizes);
  std::vector<uint8_t> request(size_t(8 + sizes.request), 0);
  std::vector<uint8_t> reply(size_t(8 + sizes.reply));
  for (auto _ : state) {
    if (!peer.round_trip(request, reply)) {
      state.SkipWithError("raw round trip failed");
      break;
    }
  }
}

}  // namespace

BENCHMARK(BM_LibraryRoundTrip)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK(BM_RawPingPong)->Arg(0)->Arg(1)->UseRealTime();
BENCHMARK_MAIN();
