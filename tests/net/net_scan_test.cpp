// Discovery of network adapters: probe destination, reply parsing, time-out clamp, table cap.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "core/bytes.h"
#include "net_support.h"

namespace {

int udp_socket_on(const char* address, uint16_t port) {
  int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(port);
  ::inet_pton(AF_INET, address, &at.sin_addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

uint16_t port_of(int fd) {
  sockaddr_in at{};
  socklen_t len = sizeof at;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&at), &len);
  return ntohs(at.sin_port);
}

struct Datagram {
  std::string source;  // 127.0.0.N the reply comes from
  std::vector<uint8_t> bytes;
};

std::vector<uint8_t> reply_be(uint32_t handle, uint32_t magic = 0x12345678) {
  std::vector<uint8_t> out(8);
  varnel::put_be32(&out[0], magic);
  varnel::put_be32(&out[4], handle);
  return out;
}
std::vector<uint8_t> reply_host(uint32_t handle) {
  std::vector<uint8_t> out(8);
  const uint32_t magic = 0x12345678;
  std::memcpy(&out[0], &magic, 4);
  std::memcpy(&out[4], &handle, 4);
  return out;
}

// Stands where adapters listen: answers each probe with the given datagrams and keeps the last
// probe it saw.
class Responder {
 public:
  explicit Responder(std::vector<Datagram> replies) : replies_(std::move(replies)) {
    fd_ = udp_socket_on("127.0.0.255", 0);
    VARNEL_SetNetPorts(port_of(fd_), 0);
    thread_ = std::thread([this] { run(); });
  }
  ~Responder() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
  }
  std::vector<uint8_t> last_probe() {
    std::lock_guard g(m_);
    return probe_;
  }
  int probes() const { return probes_; }

 private:
  void run() {
    timeval tv{0, 20000};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    while (!stop_) {
      uint8_t buf[64];
      sockaddr_in from{};
      socklen_t len = sizeof from;
      ssize_t n = ::recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &len);
      if (n < 0) continue;
      {
        std::lock_guard g(m_);
        probe_.assign(buf, buf + n);
      }
      ++probes_;
      for (auto& d : replies_) {
        int out = udp_socket_on(d.source.c_str(), 0);
        ::sendto(out, d.bytes.data(), d.bytes.size(), 0, reinterpret_cast<sockaddr*>(&from), len);
        ::close(out);
      }
    }
  }
  std::vector<Datagram> replies_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::atomic<int> probes_{0};
  std::mutex m_;
  std::vector<uint8_t> probe_;
  std::thread thread_;
};

class NetScan : public ::testing::Test {
 protected:
  void SetUp() override { varnel::net_forget_all(); }
  void TearDown() override {
    varnel::net_forget_all();
    VARNEL_SetNetPorts(0, 0);
  }
};

}  // namespace

TEST(NetScanDestination, ProbesTheSlash24BroadcastAddress) {
  VARNEL_SetNetPorts(0, 0);
  struct Case {
    const char* local;
    const char* destination;  // nullptr: refused
  } cases[] = {{"192.168.1.17", "192.168.1.255"},
               {"10.20.30.40", "10.20.30.255"},
               {"127.0.0.1", "127.0.0.255"},
               {"172.16.5.255", "172.16.5.255"},
               {"0.0.0.0", nullptr},
               {"255.255.255.255", nullptr},
               {"192.168.1", nullptr},
               {"192.168.1.256", nullptr},
               {"host", nullptr},
               {"", nullptr}};
  for (auto c : cases) {
    sockaddr_in to{};
    ASSERT_EQ(varnel::net_scan_destination(c.local, &to), c.destination != nullptr) << c.local;
    if (!c.destination) continue;
    char text[INET_ADDRSTRLEN];
    ::inet_ntop(AF_INET, &to.sin_addr, text, sizeof text);
    EXPECT_STREQ(text, c.destination);
    EXPECT_EQ(ntohs(to.sin_port), 1025);
  }
}

TEST(NetScanReplies, AcceptsBothByteOrdersAndNothingElse) {
  std::vector<uint8_t> nine = reply_be(0x55000010);
  nine.push_back(0);
  std::vector<uint8_t> seven = reply_be(0x55000010);
  seven.resize(7);
  std::vector<uint8_t> swapped_magic_only = reply_be(0x55000010);  // LE magic, BE handle
  const uint32_t magic = 0x12345678;
  std::memcpy(&swapped_magic_only[0], &magic, 4);
  struct Case {
    std::vector<uint8_t> bytes;
    bool valid;
    uint32_t handle;
  } cases[] = {
      {reply_be(0x55000010), true, 0x55000010},
      {reply_host(0x56000020), true, 0x56000020},
      // a host-order magic means the handle is in host order too
      {swapped_magic_only, true, 0x10000055},
      {nine, false, 0},
      {seven, false, 0},
      {reply_be(0x55000010, 0x56781234), false, 0},
  };
  for (auto& c : cases) {
    uint32_t handle = 0;
    EXPECT_EQ(varnel::net_parse_discovery_reply(c.bytes.data(), long(c.bytes.size()), &handle),
              c.valid);
    if (c.valid) {
      EXPECT_EQ(handle, c.handle);
    }
  }
}

TEST(NetScanReplies, TimeOutIsClampedTo200To10000) {
  struct Case {
    int timeout, duration;
  } cases[] = {{50, 200}, {-1, 200}, {200, 200}, {1234, 1234}, {10000, 10000}, {60000, 10000}};
  for (auto c : cases) EXPECT_EQ(varnel::net_scan_duration_ms(c.timeout), c.duration);
}

TEST_F(NetScan, RejectsNullArgumentsAndBadAddresses) {
  uint32_t handles[VARNEL_MAX_DEVICES];
  EXPECT_EQ(NET_ScanDevice(nullptr, handles, 200), -1);
  EXPECT_EQ(NET_ScanDevice("127.0.0.1", nullptr, 200), -1);
  EXPECT_EQ(NET_ScanDevice("0.0.0.0", handles, 200), -1);
  EXPECT_EQ(NET_ScanDevice("255.255.255.255", handles, 200), -1);
  EXPECT_EQ(NET_ScanDevice("not an address", handles, 200), -1);
}

TEST_F(NetScan, ProbeIsTheMagicInHostOrderAndGarbageIsIgnored) {
  std::vector<uint8_t> nine = reply_be(0x55000040);
  nine.push_back(0);
  Responder responder({{"127.0.0.2", reply_be(0x55000010)},
                       {"127.0.0.3", reply_host(0x55000020)},
                       {"127.0.0.4", nine},
                       {"127.0.0.5", reply_be(0x55000050, 0xDEADBEEF)}});
  auto handles = net_support::scan(200);
  EXPECT_EQ(handles, (std::vector<uint32_t>{0x55000010, 0x55000020}));
  const uint32_t magic = 0x12345678;
  std::vector<uint8_t> probe(4);
  std::memcpy(probe.data(), &magic, 4);
  EXPECT_EQ(responder.last_probe(), probe);
  EXPECT_EQ(varnel::device_index(0x55000010), 0);
  EXPECT_EQ(varnel::device_index(0x55000020), 1);
  EXPECT_EQ(varnel::device_index(0x55000040), -1);
}

TEST_F(NetScan, SixtyOneAdaptersGiveSixtyHandles) {
  std::vector<Datagram> replies;
  for (uint32_t i = 0; i < 61; ++i)
    replies.push_back({"127.0.1." + std::to_string(i + 1), reply_be(0x55000000 + (i << 8))});
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
    Responder first({{"127.0.0.7", reply_be(0x55000070)}, {"127.0.0.8", reply_be(0x55000080)}});
    EXPECT_EQ(net_support::scan().size(), 2u);
  }
  Responder second({{"127.0.0.9", reply_be(0x55000080)}});
  // the silent adapter stays listed, in its place
  EXPECT_EQ(net_support::scan(), (std::vector<uint32_t>{0x55000070, 0x55000080}));
  // and the moved one is reached at its new address: nothing listens there, so connect fails
  // quickly instead of reaching 127.0.0.8
  EXPECT_FALSE(NET_ConnectDevice(0x55000080));
}

TEST_F(NetScan, ScanLastsItsClampedTimeOut) {
  Responder responder({});
  struct Case {
    int timeout_ms;
    double low_ms, high_ms;
  } cases[] = {{50, 190, 1500}, {60000, 9900, 13000}};
  for (auto c : cases) {
    auto start = std::chrono::steady_clock::now();
    uint32_t handles[VARNEL_MAX_DEVICES];
    EXPECT_EQ(NET_ScanDevice("127.0.0.1", handles, c.timeout_ms), 0);
    double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(ms, c.low_ms) << c.timeout_ms;
    EXPECT_LE(ms, c.high_ms) << c.timeout_ms;
  }
  // a probe goes out every half second
  EXPECT_GE(responder.probes(), 15);
}

// Only network handles (top byte 0x55 or 0x56, bit 0 clear) become entries: a foreign device
// answering on the port would otherwise leave entries that every call waits 3 s on.
TEST_F(NetScan, AnswersNamingOtherThanANetworkHandleAreIgnored) {
  const uint32_t answers[] = {0x12345678, 0,          0xFFFFFFFF, 0x55000010,
                              0x55000011, 0xFF000003, 0x56000020};
  std::vector<Datagram> replies;
  for (uint32_t handle : answers) replies.push_back({"127.0.1.1", reply_be(handle)});
  Responder responder(replies);
  uint32_t handles[VARNEL_MAX_DEVICES] = {};
  ASSERT_EQ(NET_ScanDevice("127.0.0.1", handles, 200), 2);
  EXPECT_EQ(handles[0], 0x55000010u);
  EXPECT_EQ(handles[1], 0x56000020u);
}
