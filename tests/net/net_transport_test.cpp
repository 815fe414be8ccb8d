// The TCP packet stream against the virtual adapter daemon on loopback: on-demand connection,
// reply limits, draining, reconnection after a daemon restart and reference counting.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "core/transaction.h"
#include "core/transport.h"
#include "net_support.h"
#include "sim/families/can.h"
#include "sim/families/device.h"

using net_support::Daemon;
using net_support::open_descriptors;
using sim::ReplyFault;

namespace {

constexpr uint32_t kHandle = 0x55000010;

class NetTransport : public ::testing::Test {
 protected:
  void SetUp() override { varnel::net_forget_all(); }
  void TearDown() override {
    varnel::net_forget_all();
    VARNEL_SetNetPorts(0, 0);
  }
  // Starts a daemon and scans it into the table.
  std::unique_ptr<Daemon> start(std::vector<uint32_t> handles = {kHandle}) {
    auto daemon = std::make_unique<Daemon>(handles);
    EXPECT_TRUE(daemon->ok) << daemon->server->error();
    EXPECT_EQ(net_support::scan(), handles);
    return daemon;
  }
  static varnel::TransactionResult echo(uint32_t handle, std::vector<uint8_t> reply = {}) {
    static uint8_t buffer[256];
    (void)reply;
    return varnel::transact(handle, 0x0015, {}, buffer);
  }
};

// Waits (bounded) until the descriptor count drops back: the daemon in this process closes its
// side of a connection on its own thread.
bool descriptors_back_to(int expected) {
  for (int i = 0; i < 200; ++i) {
    if (open_descriptors() <= expected) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

}  // namespace

TEST_F(NetTransport, RequestBytesReachTheAdapterAndTheReplyComesBack) {
  auto daemon = start();
  uint8_t data[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  ASSERT_TRUE(DEV_WriteUserData(kHandle, 8, data, sizeof data));
  uint8_t back[12] = {};
  ASSERT_TRUE(DEV_ReadUserData(kHandle, 8, back, sizeof back));
  EXPECT_EQ(std::memcmp(data, back, sizeof data), 0);
  auto received = daemon->adapters[0]->received();
  ASSERT_EQ(received.size(), 2u);
  EXPECT_EQ(received[0].command, 0x0107u);
  EXPECT_EQ(received[0].payload.size(), 16u);
  EXPECT_EQ(received[1].payload, (std::vector<uint8_t>{0, 0, 0, 8, 0, 0, 0, 12}));
  EXPECT_EQ(daemon->server->connections_accepted(), 1u);  // connected on demand, once
}

TEST_F(NetTransport, EachAdapterIsReachedAtItsOwnAddress) {
  auto daemon = start({0x55000010, 0x55000020, 0x56000030});
  for (size_t i = 0; i < 3; ++i) {
    auto handle = daemon->adapters[i]->handle();
    daemon->adapters[i]->state<sim::DeviceModel>().ip_address = daemon->server->address_of(i);
    char ip[VARNEL_DEV_IP_ADDR_SIZE] = {};
    ASSERT_TRUE(DEV_GetIPAddr(handle, ip)) << i;
    EXPECT_EQ(std::string(ip), "127.0.0." + std::to_string(2 + i));
    EXPECT_EQ(daemon->adapters[i]->received().size(), 1u);
  }
}

TEST_F(NetTransport, ReplyFaultsGiveMinusThree) {
  struct Case {
    const char* name;
    ReplyFault fault;
    bool stays_connected;
  } cases[] = {
      {"longer than 65535", {ReplyFault::Kind::kAnnounceLength, 65536}, false},
      {"another command, drained", {ReplyFault::Kind::kOtherCommand, 0x0016}, true},
      {"short payload", {ReplyFault::Kind::kShort, 3}, false},
  };
  auto daemon = start();
  for (auto& c : cases) {
    ASSERT_EQ(DEV_GetTimestampMs(kHandle) >= 0, true) << c.name;  // connected and in step
    const uint32_t accepted = daemon->server->connections_accepted();
    daemon->adapters[0]->faults().next_reply(c.fault);
    uint8_t buffer[64];
    auto result = varnel::transact(kHandle, 0x0015, {}, buffer);
    EXPECT_EQ(result.read_result, -3) << c.name;
    // still connected: disconnecting takes something down
    EXPECT_EQ(NET_DisconnectDevice(kHandle), c.stays_connected) << c.name;
    EXPECT_TRUE(NET_ConnectDevice(kHandle));
    EXPECT_GE(DEV_GetTimestampMs(kHandle), 0) << c.name;  // the stream is in step again
    EXPECT_EQ(daemon->server->connections_accepted(), accepted + 1) << c.name;
  }
}

TEST_F(NetTransport, AnnouncedLengthOf65535IsAccepted) {
  auto daemon = start();
  daemon->adapters[0]->faults().next_reply({ReplyFault::Kind::kAnnounceLength, 65535});
  std::vector<uint8_t> buffer(65535);
  auto result = varnel::transact(kHandle, 0x0015, {}, buffer);
  EXPECT_TRUE(result.ok());
  EXPECT_EQ(result.reply_length, 65535);
}

TEST_F(NetTransport, ReplyWithoutBufferIsDrainedAndFails) {
  auto daemon = start();
  uint8_t request = 0;
  varnel::CommandPacket out{0x0015, 0, &request, 0};
  ASSERT_EQ(varnel::send_command(kHandle, out, 3000), 0);
  varnel::CommandPacket in{0x0015, 0, nullptr, 0};
  EXPECT_EQ(varnel::read_reply(kHandle, in, 3000), -3);
  EXPECT_EQ(in.length, 8);
  EXPECT_GE(DEV_GetTimestampMs(kHandle), 0);
  EXPECT_EQ(daemon->server->connections_accepted(), 1u);
}

TEST_F(NetTransport, LateReplyOfAnEarlierCommandDoesNotAnswerTheNextOne) {
  auto daemon = start();
  daemon->adapters[0]->state<sim::DeviceModel>().ip_address = "10.9.8.7";
  ASSERT_GE(DEV_GetTimestampMs(kHandle), 0);
  // the reply to this request is read, but the adapter also pushes an unsolicited packet
  daemon->adapters[0]->push_reply(sim::reply_with(0x0017, std::vector<uint8_t>(16, 'x')));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  char ip[VARNEL_DEV_IP_ADDR_SIZE] = {};
  ASSERT_TRUE(DEV_GetIPAddr(kHandle, ip));
  EXPECT_STREQ(ip, "10.9.8.7");
}

TEST_F(NetTransport, ConnectOfAnUndiscoveredHandleOpensNoSocket) {
  auto daemon = start();
  const int before = open_descriptors();
  EXPECT_FALSE(NET_ConnectDevice(0x55000090));
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(DEV_GetTimestampMs(0x55000090), 0);  // unknown handle: nothing written
  EXPECT_EQ(daemon->server->connections_accepted(), 0u);
}

TEST_F(NetTransport, SecondDisconnectReturnsFalse) {
  auto daemon = start();
  ASSERT_TRUE(NET_ConnectDevice(kHandle));
  EXPECT_TRUE(NET_DisconnectDevice(kHandle));
  EXPECT_FALSE(NET_DisconnectDevice(kHandle));
  EXPECT_FALSE(NET_DisconnectDevice(0x55000090));
}

TEST_F(NetTransport, DaemonRestartIsHiddenByTheNextTransaction) {
  auto daemon = start();
  ASSERT_GE(DEV_GetTimestampMs(kHandle), 0);
  const sim::NetPorts ports{daemon->server->discovery_port(), daemon->server->tcp_port()};
  daemon->server->stop();
  daemon->server = std::make_unique<sim::NetServer>(daemon->adapters, ports);
  ASSERT_TRUE(daemon->server->start()) << daemon->server->error();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the old connection's FIN lands
  EXPECT_GE(DEV_GetTimestampMs(kHandle), 0);
  EXPECT_EQ(daemon->server->connections_accepted(), 1u);
}

TEST_F(NetTransport, WriteRetriesUntilTheDaemonComesBack) {
  auto daemon = start();
  ASSERT_GE(DEV_GetTimestampMs(kHandle), 0);
  const sim::NetPorts ports{daemon->server->discovery_port(), daemon->server->tcp_port()};
  daemon->server->stop();
  std::thread restart([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    daemon->server = std::make_unique<sim::NetServer>(daemon->adapters, ports);
    daemon->server->start();
  });
  // reconnection is attempted every 10 ms for up to 3 s
  int64_t ms = DEV_GetTimestampMs(kHandle);
  restart.join();
  EXPECT_GE(ms, 0);
}

TEST_F(NetTransport, DisconnectDuringATransactionClosesNothingUnderItsFeet) {
  auto daemon = start();
  ASSERT_TRUE(NET_ConnectDevice(kHandle));
  while (daemon->server->connections_accepted() == 0) std::this_thread::yield();
  const int connected = open_descriptors();
  daemon->adapters[0]->faults().next_reply({ReplyFault::Kind::kLate, 300});
  int64_t result = -2;
  std::thread transaction([&] { result = DEV_GetTimestampMs(kHandle); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_TRUE(NET_DisconnectDevice(kHandle));
  EXPECT_EQ(open_descriptors(), connected);  // the socket is still open for the transaction
  transaction.join();
  EXPECT_GE(result, 0);
  // the last user closed it (and the daemon its side)
  EXPECT_TRUE(descriptors_back_to(connected - 2));
}

TEST_F(NetTransport, ThousandConnectCyclesLeakNoDescriptor) {
  auto daemon = start();
  const int before = open_descriptors();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(NET_ConnectDevice(kHandle)) << i;
    ASSERT_TRUE(NET_DisconnectDevice(kHandle)) << i;
  }
  EXPECT_TRUE(descriptors_back_to(before));
  EXPECT_GE(DEV_GetTimestampMs(kHandle), 0);
}

TEST_F(NetTransport, DeviceCallsOverTcp) {
  auto daemon = start();
  DEVICE_INFO info{};
  char functions[VARNEL_DEV_FUNCTION_STRING_SIZE];
  ASSERT_TRUE(DEV_GetDeviceInfo(kHandle, &info, functions));
  EXPECT_EQ(info.FirmwareVersion, sim::kDefaultFirmwareVersion);
  EXPECT_EQ(info.SerialNumber[0], kHandle);
  uint8_t hardware[64];
  ASSERT_TRUE(DEV_GetHardwareInfo(kHandle, hardware));
  EXPECT_EQ(hardware[1], 0x55);
  std::vector<uint8_t> data(VARNEL_DEV_USER_DATA_SIZE, 0x3C);
  ASSERT_TRUE(DEV_EraseUserData(kHandle));
  ASSERT_TRUE(DEV_WriteUserData(kHandle, 0, data.data(), int32_t(data.size())));
  std::vector<uint8_t> back(data.size());
  ASSERT_TRUE(DEV_ReadUserData(kHandle, 0, back.data(), uint32_t(back.size())));
  EXPECT_EQ(back, data);
  EXPECT_TRUE(DEV_CorrectionTimestamp(kHandle));
}

TEST_F(NetTransport, HeaderReceiveIsTriedOnceMoreAfterATimeOut) {
  auto daemon = start();
  ASSERT_GE(DEV_GetTimestampMs(kHandle), 0);
  // the first receive gives up after 3 s; the second one, 20 ms later, gets the reply
  daemon->adapters[0]->faults().next_reply({ReplyFault::Kind::kLate, 3300});
  EXPECT_GE(DEV_GetTimestampMs(kHandle), 0);
  EXPECT_EQ(daemon->server->connections_accepted(), 1u);
}

// Scans refreshing the socket table on one thread while two threads run transactions on the same
// adapter: a scan must not disturb a transaction in flight.
TEST_F(NetTransport, ScanWhileTransactingFromTwoThreadsDisturbsNothing) {
  auto daemon = start();
  std::atomic<bool> done{false};
  std::atomic<int> failures{0};
  std::thread scanner([&] {
    while (!done) net_support::scan();
  });
  std::vector<std::thread> workers;
  for (int t = 0; t < 2; ++t)
    workers.emplace_back([&] {
      for (int i = 0; i < 100; ++i)
        if (DEV_GetTimestampMs(kHandle) < 0) ++failures;
    });
  for (auto& w : workers) w.join();
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
  for (uint32_t i = 0; i < kFrames; ++i) {
    frame.id = i;
    ASSERT_TRUE(controller->deliver(frame, i, controller->timing()));
  }
  ASSERT_EQ(CANFD_StartGetMsg(kHandle, 0), 0);
  std::vector<CANFD_MSG> got(kFrames);
  size_t n = 0;
  for (int wait = 0; wait < 500 && n < kFrames; ++wait) {
    const int r = CANFD_GetMsg(kHandle, 0, got.data() + n, int(kFrames - n));
    if (r > 0)
      n += size_t(r);
    else
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(n, kFrames);
  for (uint32_t i = 0; i < kFrames; ++i) ASSERT_EQ(got[i].Id & 0x1FFFFFFF, i);
  VARNEL_RECEIVE_STATS stats{};
  ASSERT_EQ(VARNEL_CAN_GetReceiveStats(kHandle, 0, &stats), 0);
  EXPECT_EQ(stats.PollerRunning, 1);
  EXPECT_EQ(CANFD_StopGetMsg(kHandle, 0), 0);
}

// A peer that sends the header at once and then one payload byte every 5 ms (2,000 bytes: 10 s)
// cannot hold the call: the whole reply has a deadline of twice the 3 s time-out and the 20 ms
// pause. The call fails and the next one reconnects.
TEST_F(NetTransport, TrickledReplyFailsAtTheReplyDeadline) {
  auto daemon = start();
  daemon->adapters[0]->faults().next_reply({ReplyFault::Kind::kTrickle, 5});
  std::vector<uint8_t> data(2000);
  const auto start_time = std::chrono::steady_clock::now();
  EXPECT_FALSE(DEV_ReadUserData(kHandle, 0, data.data(), uint32_t(data.size())));
  EXPECT_LT(std::chrono::steady_clock::now() - start_time, std::chrono::milliseconds(8000));
  EXPECT_GE(DEV_GetTimestampMs(kHandle), 0);
  EXPECT_EQ(daemon->server->connections_accepted(), 2u);
}
