// The TCP packet stream against the virtual adapter daemon on loopback (on-demand connection,
// reply limits, draining, reconnection, reference counting), and the varnel-sim program serving it.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "core/transaction.h"
#include "core/transport.h"
#include "net/net_fixture.h"
#include "sim/families/can.h"
#include "sim/families/device.h"
#include "sim/families/gpio.h"
#include "sim/net_server.h"

using sim::ReplyFault;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t kHandle = 0x55000010;

int open_descriptors() {
  int count = 0;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (readdir(dir)) ++count;
    closedir(dir);
  }
  return count;
}

// The daemon in this process closes its side of a connection on its own thread.
bool descriptors_back_to(int expected) {
  for (int i = 0; i < 200; ++i, std::this_thread::sleep_for(10ms))
    if (open_descriptors() <= expected) return true;
  return false;
}

using testing_support::net_scan;

// A daemon serving `handles` on free ports, with the library pointed at them.
struct Daemon {
  explicit Daemon(std::vector<uint32_t> handles) {
    for (uint32_t h : handles) adapters.push_back(std::make_shared<sim::VirtualAdapter>(h));
    server = std::make_unique<sim::NetServer>(adapters, sim::NetPorts{0, 0});
    if ((ok = server->start())) VARNEL_SetNetPorts(server->discovery_port(), server->tcp_port());
  }
  std::vector<std::shared_ptr<sim::VirtualAdapter>> adapters;
  std::unique_ptr<sim::NetServer> server;
  bool ok = false;
};

class NetTransport : public testing_support::NetTest {
 protected:
  // Starts a daemon and scans it into the table.
  std::unique_ptr<Daemon> start(std::vector<uint32_t> handles = {kHandle}) {
    auto daemon = std::make_unique<Daemon>(handles);
    EXPECT_TRUE(daemon->ok) << daemon->server->error();
    EXPECT_EQ(net_scan(), handles);
    return daemon;
  }
};

// Starts varnel-sim with `args` (and ports of its own choice) with its output on a pipe.
struct SimProgram {
  explicit SimProgram(std::vector<const char*> args) {
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    args.insert(args.begin(), "varnel-sim");
    for (const char* more : {"--discovery-port", "0", "--tcp-port", "0"}) args.push_back(more);
    args.push_back(nullptr);
    if ((pid = fork()) == 0) {
      dup2(fds[1], 1);
      execv(VARNEL_BINARY_DIR "/bin/varnel-sim", const_cast<char* const*>(args.data()));
      _exit(127);
    }
    close(fds[1]);
    out = fdopen(fds[0], "r");
  }
  // Kills it and waits: its exit status.
  int stop(int signal_number = SIGTERM) {
    kill(pid, signal_number);
    int status = 0;
    waitpid(pid, &status, 0);
    fclose(out);
    return status;
  }
  pid_t pid;
  FILE* out;
};

}  // namespace

TEST_F(NetTransport, RequestsReachTheAddressedAdapterWithTheirBytes) {
  auto daemon = start({0x55000010, 0x55000020, 0x56000030});
  uint8_t data[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, back[12] = {};
  ASSERT_TRUE(DEV_WriteUserData(kHandle, 8, data, sizeof data));
  ASSERT_TRUE(DEV_ReadUserData(kHandle, 8, back, sizeof back));
  EXPECT_EQ(std::memcmp(data, back, sizeof data), 0);
  auto received = daemon->adapters[0]->received();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0].command, 0x0107u);
  EXPECT_EQ(received[0].payload.size(), 16u);
  EXPECT_EQ(received[1].payload, (std::vector<uint8_t>{0, 0, 0, 8, 0, 0, 0, 12}));
  EXPECT_EQ(daemon->server->connections_accepted(), 1u);  // connected on demand, once
  for (size_t i = 1; i < 3; ++i) {
    daemon->adapters[i]->state<sim::DeviceModel>().ip_address = daemon->server->address_of(i);
    char ip[VARNEL_DEV_IP_ADDR_SIZE] = {};
    ASSERT_TRUE(DEV_GetIPAddr(daemon->adapters[i]->handle(), ip)) << i;
    EXPECT_EQ(std::string(ip), "127.0.0." + std::to_string(2 + i));
    EXPECT_EQ(daemon->adapters[i]->received().size(), 1u);
  }
}

TEST_F(NetTransport, ReplyLengthAndCommandAreChecked) {
  using Kind = ReplyFault::Kind;
  struct Case {
    const char* name;
    std::optional<ReplyFault> fault;
    size_t buffer;
    int read_result, reply_length;  // reply_length -1: not checked
    bool stays_connected;
  } cases[] = {
      {"no buffer for a payload, drained", {}, 0, -3, 8, true},
      {"longest announced length", ReplyFault{Kind::kAnnounceLength, 65535}, 65535, 0, 65535, true},
      {"longer than 65535", ReplyFault{Kind::kAnnounceLength, 65536}, 65535, -3, -1, false},
      {"only another command, skipped until the time-out", ReplyFault{Kind::kOtherCommand, 0x0016},
       8, -3, -1, false},
      {"short payload", ReplyFault{Kind::kShort, 3}, 8, -3, -1, false},
  };
  auto daemon = start();
  for (auto& c : cases) {
    ASSERT_GE(DEV_GetTimestampMs(kHandle), 0) << c.name;  // connected and in step
    const uint32_t accepted = daemon->server->connections_accepted();
    if (c.fault) daemon->adapters[0]->faults().next_reply(*c.fault);
    std::vector<uint8_t> buffer(c.buffer);
    auto result = varnel::transact(kHandle, 0x0015, {}, buffer);
    EXPECT_EQ(result.read_result, c.read_result) << c.name;
    if (c.reply_length >= 0) {
      EXPECT_EQ(result.reply_length, c.reply_length) << c.name;
    }
    // disconnecting takes something down only while still connected
    EXPECT_EQ(NET_DisconnectDevice(kHandle), c.stays_connected) << c.name;
    EXPECT_GE(DEV_GetTimestampMs(kHandle), 0) << c.name;  // the stream is in step again
    EXPECT_EQ(daemon->server->connections_accepted(), accepted + 1) << c.name;
  }
}

// A packet the adapter sent unasked, with the command of the next request, is not its reply.
TEST_F(NetTransport, StaleBytesOnTheStreamDoNotAnswerTheNextRequest) {
  auto daemon = start();
  daemon->adapters[0]->state<sim::DeviceModel>().ip_address = "10.9.8.7";
  ASSERT_GE(DEV_GetTimestampMs(kHandle), 0);
  daemon->adapters[0]->push_reply(sim::reply_with(0x0017, std::vector<uint8_t>(16, 'x')));
  std::this_thread::sleep_for(50ms);
  char ip[VARNEL_DEV_IP_ADDR_SIZE] = {};
  ASSERT_TRUE(DEV_GetIPAddr(kHandle, ip));
  EXPECT_STREQ(ip, "10.9.8.7");
}

TEST_F(NetTransport, ConnectAndDisconnectLeakNothing) {
  auto daemon = start();
  const int before = open_descriptors();
  EXPECT_FALSE(NET_ConnectDevice(0x55000090));  // not discovered: no socket, nothing written
  EXPECT_EQ(DEV_GetTimestampMs(0x55000090), 0);
  EXPECT_FALSE(NET_DisconnectDevice(0x55000090));
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(daemon->server->connections_accepted(), 0u);
  for (int i = 0; i < 1000; ++i)
    ASSERT_TRUE(NET_ConnectDevice(kHandle) && NET_DisconnectDevice(kHandle)) << i;
  EXPECT_FALSE(NET_DisconnectDevice(kHandle));
  EXPECT_TRUE(descriptors_back_to(before));
}

// The old connection is closed by the daemon; the next call reconnects, retrying every 10 ms for
// up to 3 s until the daemon is back.
TEST_F(NetTransport, DaemonRestartIsHiddenByTheNextCall) {
  auto daemon = start();
  ASSERT_GE(DEV_GetTimestampMs(kHandle), 0);
  const sim::NetPorts ports{daemon->server->discovery_port(), daemon->server->tcp_port()};
  daemon->server->stop();
  std::thread restart([&] {
    std::this_thread::sleep_for(300ms);
    daemon->server = std::make_unique<sim::NetServer>(daemon->adapters, ports);
    daemon->server->start();
  });
  const int64_t ms = DEV_GetTimestampMs(kHandle);
  restart.join();
  EXPECT_GE(ms, 0);
  EXPECT_EQ(daemon->server->connections_accepted(), 1u);
}

TEST_F(NetTransport, DisconnectDuringACallClosesNothingUnderItsFeet) {
  auto daemon = start();
  ASSERT_TRUE(NET_ConnectDevice(kHandle));
  while (daemon->server->connections_accepted() == 0) std::this_thread::yield();
  const int connected = open_descriptors();
  daemon->adapters[0]->faults().next_reply({ReplyFault::Kind::kLate, 300});
  int64_t result = -2;
  std::thread call([&] { result = DEV_GetTimestampMs(kHandle); });
  std::this_thread::sleep_for(100ms);
  EXPECT_TRUE(NET_DisconnectDevice(kHandle));
  EXPECT_EQ(open_descriptors(), connected);  // still open for the call
  call.join();
  EXPECT_GE(result, 0);
  EXPECT_TRUE(descriptors_back_to(connected - 2));  // the last user closed it, the daemon its side
}

// A silent adapter fails a call after the call's own reply time-out (at least the socket's 3 s),
// not sooner and not twice as late; the late reply never answers the next call.
TEST_F(NetTransport, SilentReplyFailsAtTheCallsTimeOut) {
  auto daemon = start();
  struct Case {
    uint32_t command;
    std::function<bool()> call;  // true when it failed
    int timeout_ms;
  } cases[] = {
      {0x0015, [] { return DEV_GetTimestampMs(kHandle) < 0; }, 3000},
      {0x0A01, [] { return UART_WriteBytes(kHandle, 0, (const uint8_t*)"AT", 2) != 0; }, 5000},
  };
  for (auto& c : cases) {
    ASSERT_GE(DEV_GetTimestampMs(kHandle), 0);
    daemon->adapters[0]->faults().next_reply({ReplyFault::Kind::kLate, 60000, c.command});
    const auto start_time = std::chrono::steady_clock::now();
    EXPECT_TRUE(c.call()) << c.command;
    const auto elapsed = std::chrono::steady_clock::now() - start_time;
    EXPECT_GE(elapsed, std::chrono::milliseconds(c.timeout_ms)) << c.command;
    EXPECT_LT(elapsed, std::chrono::milliseconds(c.timeout_ms + 1500)) << c.command;
  }
}

// Replies are matched to their request: a reply sent twice is dropped before the next request,
// however soon it follows, and a packet of another command arriving first is skipped.
TEST_F(NetTransport, EachCallReadsItsOwnReply) {
  auto daemon = start();
  auto& adapter = *daemon->adapters[0];
  auto& pins = adapter.state<sim::GpioModel>();
  ASSERT_EQ(GPIO_SetInput(kHandle, 0xFFFF, 0), 0);
  adapter.faults().next_reply({ReplyFault::Kind::kDuplicate, 0, 0x0604});
  std::vector<uint32_t> driven, read;
  for (uint32_t i = 1; i <= 20; ++i) {
    driven.push_back(i * 0x0301);
    pins.drive(0xFFFF, driven.back());
    uint32_t value = 0;
    EXPECT_EQ(GPIO_Read(kHandle, 0xFFFF, &value), 0) << i;
    read.push_back(value);
  }
  EXPECT_EQ(read, driven);

  // The adapter sends a packet of another command after the request, ahead of the reply.
  adapter.on(0x0017, 0x0017, [](sim::VirtualAdapter& a, const sim::Packet& request) {
    a.push_reply(sim::reply_with(0x0016, std::vector<uint8_t>(16, 'x')));
    return std::optional(sim::reply_with(request.command, {'1', '.', '2', '.', '3', '.', '4', 0}));
  });
  char ip[VARNEL_DEV_IP_ADDR_SIZE] = {};
  EXPECT_TRUE(DEV_GetIPAddr(kHandle, ip));
  EXPECT_STREQ(ip, "1.2.3.4");
}

// A host on a connection of its own: each request (header and payload in two writes, as a
// stream may cut them) gets its reply within a second, or nullopt.
struct RawHost {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  RawHost(const std::string& address, uint16_t port) {
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &at.sin_addr);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&at), sizeof at), 0);
  }
  ~RawHost() { close(fd); }
  std::optional<std::vector<uint8_t>> ask(uint32_t command, const std::vector<uint8_t>& payload) {
    std::vector<uint8_t> header;
    sim::append_be32(header, command);
    sim::append_be32(header, uint32_t(payload.size()));
    send(fd, header.data(), header.size(), MSG_NOSIGNAL);
    std::this_thread::sleep_for(50us);
    send(fd, payload.data(), payload.size(), MSG_NOSIGNAL);
    std::vector<uint8_t> reply;
    const auto deadline = std::chrono::steady_clock::now() + 1s;
    uint8_t chunk[256];
    while (reply.size() < 8 || reply.size() < 8 + sim::be32(reply, 4)) {
      pollfd p{fd, POLLIN, 0};
      const auto left = deadline - std::chrono::steady_clock::now();
      if (left <= 0s || poll(&p, 1, int(left / 1ms) + 1) != 1) return std::nullopt;
      const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
      if (n <= 0) return std::nullopt;
      reply.insert(reply.end(), chunk, chunk + n);
    }
    return reply;
  }
};

// Two hosts on the same adapter at once (a dump beside a replay): each reply goes back down the
// connection its request came on, and requests cut in two do not mix.
TEST_F(NetTransport, TwoConnectionsEachGetTheirOwnReplies) {
  auto daemon = start();
  daemon->adapters[0]->on(0x0777, 0x0777, [](sim::VirtualAdapter&, const sim::Packet& request) {
    return std::optional(sim::reply_with(request.command, request.payload));  // an echo
  });
  std::atomic<int> wrong{0};
  auto host = [&](uint8_t who) {
    RawHost raw(daemon->server->address_of(0), daemon->server->tcp_port());
    for (uint8_t i = 0; i < 100; ++i) {
      const std::vector<uint8_t> payload{who, i, 0x5A};
      auto reply = raw.ask(0x0777, payload);
      std::vector<uint8_t> expected;
      sim::append_be32(expected, 0x0777);
      sim::append_be32(expected, 3);
      expected.insert(expected.end(), payload.begin(), payload.end());
      if (reply != expected) ++wrong;
    }
  };
  std::thread first(host, 1), second(host, 2);
  first.join();
  second.join();
  EXPECT_EQ(wrong, 0);
}

// Scans refresh the socket table while two threads call the same adapter.
TEST_F(NetTransport, ScanWhileCallingFromTwoThreadsDisturbsNothing) {
  auto daemon = start();
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  std::thread scanner([&] {
    while (!done) net_scan();
  });
  auto calls = [&] {
    for (int i = 0; i < 100; ++i) failures += DEV_GetTimestampMs(kHandle) < 0;
  };
  std::thread a(calls), b(calls);
  a.join();
  b.join();
  done = true;
  scanner.join();
  EXPECT_EQ(failures, 0);
}

// More frames than one TCP reply can carry (5,000 64-byte CAN FD frames) come over several
// fetches: none lost, and the receive poller keeps running.
TEST_F(NetTransport, BurstLargerThanOneReplyArrivesWhole) {
  auto daemon = start();
  ASSERT_EQ(CANFD_Init2(kHandle, 0, 500000, 2000000, 0, 1), 0);
  auto controller = sim::can_controller(*daemon->adapters[0], 0);
  sim::CanFrame frame{.extended = true, .fd = true, .brs = true, .len = 64};
  constexpr uint32_t kFrames = 5000;
  for (frame.id = 0; frame.id < kFrames; ++frame.id)
    ASSERT_TRUE(controller->deliver(frame, frame.id, controller->timing()));
  ASSERT_EQ(CANFD_StartGetMsg(kHandle, 0), 0);
  std::vector<CANFD_MSG> got(kFrames);
  size_t n = 0;
  for (int wait = 0; wait < 500 && n < kFrames; ++wait) {
    const int r = CANFD_GetMsg(kHandle, 0, got.data() + n, int(kFrames - n));
    if (r > 0)
      n += size_t(r);
    else
      std::this_thread::sleep_for(10ms);
  }
  ASSERT_EQ(n, kFrames);
  for (uint32_t i = 0; i < kFrames; ++i) ASSERT_EQ(got[i].Id & 0x1FFFFFFF, i);
  VARNEL_RECEIVE_STATS stats{};
  ASSERT_EQ(VARNEL_CAN_GetReceiveStats(kHandle, 0, &stats), 0);
  EXPECT_EQ(stats.PollerRunning, 1);
  EXPECT_EQ(CANFD_StopGetMsg(kHandle, 0), 0);
}

// A peer that sends the header at once and then one payload byte every 5 ms (2,000 bytes: 10 s)
// cannot hold the call: the whole reply has the one deadline of the 3 s time-out. The call fails
// and the next one reconnects.
TEST_F(NetTransport, TrickledReplyFailsAtTheReplyDeadline) {
  auto daemon = start();
  daemon->adapters[0]->faults().next_reply({ReplyFault::Kind::kTrickle, 5});
  std::vector<uint8_t> data(2000);
  const auto start_time = std::chrono::steady_clock::now();
  EXPECT_FALSE(DEV_ReadUserData(kHandle, 0, data.data(), uint32_t(data.size())));
  EXPECT_LT(std::chrono::steady_clock::now() - start_time, 4500ms);
  EXPECT_GE(DEV_GetTimestampMs(kHandle), 0);
  EXPECT_EQ(daemon->server->connections_accepted(), 2u);
}

// The varnel-sim program as a user runs it: adapters from the command line, discovery and TCP on
// the ports it prints, exit 0 on SIGTERM and SIGINT, 2 for bad arguments, 1 for a taken port;
// --version names the library it was built with.
TEST_F(NetTransport, SimProgramServesItsAdaptersAndStopsCleanly) {
  const std::string sim = VARNEL_BINARY_DIR "/bin/varnel-sim";
  auto exit_code = [&](const std::string& args) {
    const int status = std::system((sim + " " + args + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  EXPECT_EQ(exit_code("--adapter banana"), 2);
  FILE* version = popen((sim + " --version").c_str(), "r");
  char line[64] = {};
  ASSERT_TRUE(version && fgets(line, sizeof line, version)) << "nothing on --version";
  EXPECT_EQ(pclose(version), 0);
  EXPECT_EQ(line, "varnel-sim " + std::string(VARNEL_GetVersion()) + "\n");
  EXPECT_EQ(exit_code("--tcp-port 70000"), 2);
  Daemon taken({0x55000210});
  const std::string port = std::to_string(taken.server->discovery_port());
  EXPECT_EQ(exit_code("--discovery-port " + port + " --tcp-port 0 --first-address 127.0.0.30"), 1);
  taken.server->stop();
  for (int signal_number : {SIGTERM, SIGINT}) {
    SimProgram program(
        {"--adapter", "0x55000110", "--adapter", "0x56000120", "--first-address", "127.0.0.20"});
    unsigned discovery = 0, tcp = 0;  // no assertion ends the test before the stop below
    EXPECT_EQ(fscanf(program.out, "varnel-sim: discovery on 127.0.0.255:%u, TCP port %u",
                     &discovery, &tcp),
              2);
    VARNEL_SetNetPorts(uint16_t(discovery), uint16_t(tcp));
    EXPECT_EQ(net_scan(), (std::vector<uint32_t>{0x55000110, 0x56000120}));
    EXPECT_GE(DEV_GetTimestampMs(0x55000110), 0);
    EXPECT_GE(DEV_GetTimestampMs(0x56000120), 0);
    const int status = program.stop(signal_number);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << signal_number;
    varnel::net_forget_all();
  }
}

// The handles varnel-sim serves for its arguments, as it prints them at start; empty when it
// did not start. Each handle is its own adapter: --count is the number in all.
TEST_F(NetTransport, SimProgramServesEachHandleOnce) {
  auto served = [](std::vector<const char*> args) {
    args.insert(args.end(), {"--first-address", "127.0.0.60"});
    SimProgram program(args);
    std::vector<uint32_t> handles;
    char line[128];
    unsigned handle = 0;
    // the list comes in one write with the first line, so it is all there once that one is
    const bool started = fgets(line, sizeof line, program.out) != nullptr;
    kill(program.pid, SIGTERM);
    while (started && fgets(line, sizeof line, program.out))
      if (sscanf(line, "  adapter 0x%X", &handle) == 1) handles.push_back(handle);
    program.stop();
    return handles;
  };
  using H = std::vector<uint32_t>;
  EXPECT_EQ(served({"--adapter", "0x55000010", "--count", "1"}), H({0x55000010}));
  EXPECT_EQ(served({"--adapter", "0x55000020", "--count", "3"}),
            H({0x55000020, 0x55000010, 0x55000030}));
  EXPECT_EQ(served({"--count", "2"}), H({0x55000010, 0x55000020}));
  EXPECT_EQ(served({}), H({0x55000010}));
  EXPECT_EQ(served({"--adapter", "0x55000010", "--adapter", "0x55000010"}), H());
  EXPECT_EQ(served({"--adapter", "0x55000010", "--adapter", "0x55000020", "--count", "1"}), H());
}

// A network adapter has no bulk-in stream: the start gives up cleanly, and no stream bytes reach
// the TCP stream to answer the next request.
TEST_F(NetTransport, AdcStreamDoesNotStartOverTcpAndBlockReadsGoOn) {
  auto daemon = start();
  ASSERT_EQ(ADC_Init(kHandle, 0x01, 1000), 0);
  EXPECT_EQ(ADC_StartContinueRead(kHandle, 0x01, 1000000, 64, nullptr), -2);
  ASSERT_EQ(ADC_Init(kHandle, 0x01, 1000), 0);
  uint16_t block[3] = {};
  ASSERT_EQ(ADC_Read(kHandle, block, 3), 0);
  EXPECT_EQ(std::vector<uint16_t>(block, block + 3), (std::vector<uint16_t>{0, 1, 2}));
}
