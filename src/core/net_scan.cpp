// Discovery of network adapters: a UDP probe to the /24 broadcast address, answered by every
// adapter with its handle. Also the port settings of the network carrier.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/net.h"
#include "core/transport.h"
#include "varnel.h"

namespace varnel {
namespace {

constexpr uint32_t kDiscoveryMagic = 0x12345678;
constexpr uint16_t kDefaultDiscoveryPort = 1025;
constexpr uint16_t kDefaultTcpPort = 8000;
constexpr int kMinScanMs = 200;
constexpr int kMaxScanMs = 10000;
constexpr int kProbePeriodMs = 500;  // a probe, then half a second of listening
constexpr int kWaitSliceMs = 100;

std::atomic<uint16_t> discovery_port{0};
std::atomic<uint16_t> tcp_port{0};
std::once_flag ports_from_environment;

uint16_t port_from_environment(const char* name, uint16_t fallback) {
  const char* text = std::getenv(name);
  if (!text || !*text) return fallback;
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  return (*end == '\0' && value > 0 && value < 65536) ? uint16_t(value) : fallback;
}

void load_ports() {
  std::call_once(ports_from_environment, [] {
    uint16_t none = 0;
    discovery_port.compare_exchange_strong(
        none, port_from_environment("VARNEL_NET_DISCOVERY_PORT", kDefaultDiscoveryPort));
    none = 0;
    tcp_port.compare_exchange_strong(none,
                                     port_from_environment("VARNEL_NET_TCP_PORT", kDefaultTcpPort));
  });
}

void set_timeout(int fd, int option, int ms) {
  timeval tv{ms / 1000, (ms % 1000) * 1000};
  ::setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv);
}

// Listens until `until_ns` for replies, taking every valid one into the table.
void collect_replies(int fd, uint64_t until_ns) {
  uint8_t datagram[1024];
  while (true) {
    const uint64_t now = monotonic_ns();
    if (now >= until_ns) return;
    int wait_ms = int(std::min<uint64_t>(kWaitSliceMs, (until_ns - now + 999'999) / 1'000'000));
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, wait_ms) <= 0) continue;
    sockaddr_in from{};
    socklen_t from_len = sizeof from;
    ssize_t n =
        ::recvfrom(fd, datagram, sizeof datagram, 0, reinterpret_cast<sockaddr*>(&from), &from_len);
    if (n < 0) return;  // ends this listening period early
    uint32_t handle = 0;
    // An answer naming a handle that is not a network adapter's (a foreign device on the port,
    // a reply mangled on the way) would otherwise become an entry every call on it waits 3 s for.
    if (net_parse_discovery_reply(datagram, long(n), &handle) && is_network_handle(handle))
      net_table_seen(handle, from.sin_addr.s_addr);
  }
}

}  // namespace

uint16_t net_discovery_port() {
  load_ports();
  return discovery_port.load();
}

uint16_t net_tcp_port() {
  load_ports();
  return tcp_port.load();
}

bool net_scan_destination(const char* local_address, sockaddr_in* destination) {
  in_addr address{};
  if (!local_address || ::inet_pton(AF_INET, local_address, &address) != 1) return false;
  const uint32_t host = ntohl(address.s_addr);
  if (host == 0 || host == 0xFFFFFFFFu) return false;
  *destination = {};
  destination->sin_family = AF_INET;
  destination->sin_port = htons(net_discovery_port());
  destination->sin_addr.s_addr = htonl(host | 0xFFu);
  return true;
}

bool net_parse_discovery_reply(const uint8_t* data, long size, uint32_t* handle) {
  if (size != 8) return false;
  if (get_be32(data) == kDiscoveryMagic) {
    *handle = get_be32(data + 4);
    return true;
  }
  uint32_t magic = 0;
  std::memcpy(&magic, data, 4);
  if (magic != kDiscoveryMagic) return false;
  std::memcpy(handle, data + 4, 4);
  return true;
}

int net_scan_duration_ms(int timeout_ms) {
  return std::clamp(timeout_ms, kMinScanMs, kMaxScanMs);
}

}  // namespace varnel

using namespace varnel;

VARNEL_API int NET_ScanDevice(const char* pLocalIP, uint32_t* pDevHandle, int TimeOutMs) {
  return varnel::guarded(-1, [&] {
    if (!pLocalIP || !pDevHandle) return -1;
    sockaddr_in destination{};
    if (!net_scan_destination(pLocalIP, &destination)) return -1;
    const int duration_ms = net_scan_duration_ms(TimeOutMs);

    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -3;
    const uint64_t start = monotonic_ns();
    const uint64_t end = start + uint64_t(duration_ms) * 1'000'000;
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
    set_timeout(fd, SO_RCVTIMEO, kWaitSliceMs);
    set_timeout(fd, SO_SNDTIMEO, kWaitSliceMs);

    uint8_t probe[4];
    const uint32_t magic = kDiscoveryMagic;
    std::memcpy(probe, &magic, sizeof probe);  // host byte order
    while (monotonic_ns() < end) {
      if (::sendto(fd, probe, sizeof probe, 0, reinterpret_cast<sockaddr*>(&destination),
                   sizeof destination) != sizeof probe) {
        ::close(fd);
        return -4;
      }
      // the scan's time-out also ends the last listening period
      collect_replies(fd, std::min(end, monotonic_ns() + uint64_t(kProbePeriodMs) * 1'000'000));
    }
    if (::close(fd) != 0) return 1;

    auto handles = net_table_handles();
    const size_t count = std::min(handles.size(), size_t(kMaxDevices));
    std::copy_n(handles.begin(), count, pDevHandle);
    return int(count);
  });
}

VARNEL_API int VARNEL_SetNetPorts(uint16_t DiscoveryPort, uint16_t TcpPort) {
  load_ports();
  discovery_port = DiscoveryPort ? DiscoveryPort : kDefaultDiscoveryPort;
  tcp_port = TcpPort ? TcpPort : kDefaultTcpPort;
  return 0;
}
