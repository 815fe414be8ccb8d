// Discovery of network adapters: probe destination, reply parsing, time-out clamp, table cap.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "core/bytes.h"
#include "net/net_fixture.h"

namespace {

constexpr uint32_t kMagic = 0x12345678;

using testing_support::net_scan;

int udp_socket_on(const std::string& address, uint16_t port) {
  int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in at{AF_INET, htons(port), {}, {}};
  ::inet_pton(AF_INET, address.c_str(), &at.sin_addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0) return fd;
  ::close(fd);
  return -1;
}

// A reply as adapters send it, big-endian; `host_order` writes both words in host order.
std::vector<uint8_t> reply(uint32_t handle, uint32_t magic = kMagic, bool host_order = false) {
  std::vector<uint8_t> out(8);
  varnel::put_be32(&out[0], magic);
  varnel::put_be32(&out[4], handle);
  if (host_order) std::memcpy(&out[0], &magic, 4), std::memcpy(&out[4], &handle, 4);
  return out;
}

using Replies = std::vector<std::pair<std::string, std::vector<uint8_t>>>;  // source, datagram

// Stands where adapters listen: answers each probe with the given (source address, datagram)
// pairs and keeps the last probe it saw.
class Responder {
 public:
  explicit Responder(Replies replies)
      : replies_(std::move(replies)), fd_(udp_socket_on("127.0.0.255", 0)) {
    sockaddr_in at{};
    socklen_t len = sizeof at;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&at), &len);
    VARNEL_SetNetPorts(ntohs(at.sin_port), 0);
    timeval tv{0, 20000};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    thread_ = std::thread([this] {
      while (!stop_) {
        uint8_t buf[64];
        sockaddr_in from{};
        socklen_t len = sizeof from;
        ssize_t n = ::recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
        if (n < 0) continue;
        last_probe.assign(buf, buf + n);  // read after the thread ends
        ++probes;
        for (auto& [source, bytes] : replies_) {
          int out = udp_socket_on(source, 0);
          ::sendto(out, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), len);
          ::close(out);
        }
      }
    });
  }
  void stop() {
    if (!stop_.exchange(true)) thread_.join();
  }
  ~Responder() {
    stop();
    ::close(fd_);
  }
  std::atomic<int> probes{0};
  std::vector<uint8_t> last_probe;

 private:
  Replies replies_;
  int fd_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class NetScan : public testing_support::NetTest {};

}  // namespace

TEST(NetScanDestination, ProbesTheSlash24BroadcastAddress) {
  VARNEL_SetNetPorts(0, 0);
  struct Case {
    const char *local, *destination;  // nullptr: refused
  } cases[] = {{"192.168.1.17", "192.168.1.255"}, {"127.0.0.1", "127.0.0.255"},
               {"172.16.5.255", "172.16.5.255"},  {"0.0.0.0", nullptr},
               {"255.255.255.255", nullptr},      {"192.168.1", nullptr},
               {"192.168.1.256", nullptr},        {"", nullptr}};
  for (auto c : cases) {
    sockaddr_in to{};
    ASSERT_EQ(varnel::net_scan_destination(c.local, &to), c.destination != nullptr) << c.local;
    if (!c.destination) continue;
    char text[INET_ADDRSTRLEN];
    EXPECT_STREQ(::inet_ntop(AF_INET, &to.sin_addr, text, sizeof text), c.destination);
    EXPECT_EQ(ntohs(to.sin_port), 1025);
  }
}

TEST(NetScanReplies, AcceptsBothByteOrdersAndNothingElse) {
  auto resized = [](std::vector<uint8_t> bytes, size_t size) {
    bytes.resize(size);
    return bytes;
  };
  std::vector<uint8_t> mixed = reply(0x55000010);  // host-order magic, big-endian handle
  std::memcpy(&mixed[0], &kMagic, 4);
  struct Case {
    std::vector<uint8_t> bytes;
    uint32_t handle;  // 0: refused
  } cases[] = {
      {reply(0x55000010), 0x55000010},
      {reply(0x56000020, kMagic, true), 0x56000020},
      {mixed, 0x10000055},  // a host-order magic means the handle is in host order too
      {resized(reply(0x55000010), 9), 0},
      {resized(reply(0x55000010), 7), 0},
      {reply(0x55000010, 0x56781234), 0},
  };
  for (auto& c : cases) {
    uint32_t handle = 0;
    EXPECT_EQ(varnel::net_parse_discovery_reply(c.bytes.data(), long(c.bytes.size()), &handle),
              c.handle != 0);
    EXPECT_EQ(handle, c.handle);
  }
}

TEST(NetScanReplies, TimeOutIsClampedTo200To10000) {
  struct Case {
    int timeout, duration;
  } cases[] = {{-1, 200}, {199, 200}, {200, 200}, {1234, 1234}, {10000, 10000}, {10001, 10000}};
  for (auto c : cases) EXPECT_EQ(varnel::net_scan_duration_ms(c.timeout), c.duration);
}

TEST_F(NetScan, RejectsNullArgumentsAndBadAddresses) {
  uint32_t handles[VARNEL_MAX_DEVICES];
  EXPECT_EQ(NET_ScanDevice(nullptr, handles, 200), -1);
  EXPECT_EQ(NET_ScanDevice("127.0.0.1", nullptr, 200), -1);
  EXPECT_EQ(NET_ScanDevice("0.0.0.0", handles, 200), -1);
}

// The probe is the magic in host order. Only network handles (top byte 0x55 or 0x56, bit 0 clear)
// become entries: a foreign device answering on the port would otherwise leave entries that every
// call waits 3 s on.
TEST_F(NetScan, ListsNetworkHandlesFromValidRepliesOnly) {
  Replies replies = {
      {"127.0.0.2", reply(0x55000010)},
      {"127.0.0.3", reply(0x55000020, kMagic, true)},
      {"127.0.0.4", reply(0x55000040, 0xDEADBEEF)},
  };
  for (uint32_t foreign : {0x12345678u, 0u, 0xFFFFFFFFu, 0x55000011u, 0xFF000003u, 0x56000020u})
    replies.push_back({"127.0.1.1", reply(foreign)});
  Responder responder(replies);
  EXPECT_EQ(net_scan(), (std::vector<uint32_t>{0x55000010, 0x55000020, 0x56000020}));
  responder.stop();
  std::vector<uint8_t> probe(4);
  std::memcpy(probe.data(), &kMagic, 4);
  EXPECT_EQ(responder.last_probe, probe);
  EXPECT_EQ(varnel::device_index(0x55000020), 1);
  EXPECT_EQ(varnel::device_index(0x55000040), -1);
}

TEST_F(NetScan, SixtyOneAdaptersGiveSixtyHandles) {
  Replies replies;
  for (uint32_t i = 0; i < 61; ++i)
    replies.push_back({"127.0.1." + std::to_string(i + 1), reply(0x55000000 + (i << 8))});
  Responder responder(replies);
  uint32_t handles[VARNEL_MAX_DEVICES + 4];
  std::fill(std::begin(handles), std::end(handles), 0xA5A5A5A5u);
  ASSERT_EQ(NET_ScanDevice("127.0.0.1", handles, 200), 60);
  EXPECT_EQ(handles[0], 0x55000000u);
  EXPECT_EQ(handles[59], 0x55003B00u);
  EXPECT_EQ(handles[60], 0xA5A5A5A5u);              // nothing written past the 60
  EXPECT_EQ(varnel::device_index(0x55003C00), -1);  // the 61st has no device index
}

TEST_F(NetScan, RepeatedScanKeepsOrderAndRefreshesAddresses) {
  {
    Responder first({{"127.0.0.7", reply(0x55000070)}, {"127.0.0.8", reply(0x55000080)}});
    EXPECT_EQ(net_scan().size(), 2u);
  }
  Responder second({{"127.0.0.9", reply(0x55000080)}});
  // the silent adapter stays listed, in its place
  EXPECT_EQ(net_scan(), (std::vector<uint32_t>{0x55000070, 0x55000080}));
  // the moved one is reached at its new address: nothing listens there, so connect fails quickly
  // instead of reaching 127.0.0.8
  EXPECT_FALSE(NET_ConnectDevice(0x55000080));
}

// The scan lasts its clamped time-out and probes again every half second.
TEST_F(NetScan, ScanLastsItsClampedTimeOut) {
  Responder responder({});
  struct Case {
    int timeout_ms, low_ms, high_ms;
  } cases[] = {{50, 190, 1500}, {1200, 1190, 2500}};
  for (auto c : cases) {
    auto start = std::chrono::steady_clock::now();
    uint32_t handles[VARNEL_MAX_DEVICES];
    EXPECT_EQ(NET_ScanDevice("127.0.0.1", handles, c.timeout_ms), 0);
    auto ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start);
    EXPECT_GE(ms.count(), c.low_ms) << c.timeout_ms;
    EXPECT_LE(ms.count(), c.high_ms) << c.timeout_ms;
  }
  EXPECT_GE(responder.probes, 4);  // 1 + 3 (at 0, 500 and 1000 ms)
}
