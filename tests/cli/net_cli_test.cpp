// Network adapters from the tool: `varnel sim` serves them, `--net LOCAL_IP` reaches them.
#include <regex>

#include "cli_support.h"

using namespace cli_test;

namespace {

// `varnel sim` with one CAN FD network adapter and traffic on its virtual CAN bus; it ends with
// exit code 0 on SIGTERM.
class NetCli : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(daemon_.environment().empty()); }
  void TearDown() override { EXPECT_TRUE(daemon_.stop()); }
  ToolRun on_network(const std::string& args) {
    return varnel("--net 127.0.0.1 " + args, daemon_.environment());
  }

  SimDaemon daemon_{"--sim-traffic 321#CAFE@20", "0x55000140", "127.0.0.40"};
};

}  // namespace

TEST_F(NetCli, DeviceCommandsReachNetworkAdapters) {
  struct Case {
    const char* args;
    const char* out;  // a regular expression
  } cases[] = {
      {"scan", "1 adapter\\(s\\) on the network of 127.0.0.1\n  0x55000140  network, CAN FD\n"},
      {"info 0x55000140",
       "adapter 0x55000140 \\(network, CAN FD\\)\n  firmware: +VARNEL virtual adapter\n(.*\n)*"},
      {"gpio 0x55000140 set 0x3 output write 0x3 0x2 read 0x3",
       "(.*\n){2}pins 0x00000003 read 0x00000002 \\(pin 0 low, pin 1 high\\)\n"},
      // the scene's node acknowledges, so the frame goes out
      {"can send 0x55000140:1 123##1112233445566778899AABBCC",
       "  can1  123  \\[12\\]  11 22 33 44 55 66 77 88 99 AA BB CC\n"},
      {"can dump 0x55000140:0 -n 2 -L", "(\\(\\d+\\.\\d{6}\\) can0 321#CAFE\n){2}"},
      // the daemon's adapter keeps playing the schedule after the command ends
      {"can schedule 0x55000140:0 123#11@10", "123#11@10\n"},
      {"can dump 0x55000140:1,123:7FF -n 2 -L", "(\\(\\d+\\.\\d{6}\\) can1 123#11\n){2}"},
      {"can schedule 0x55000140:0 --stop", ""},
      {"uds 0x55000140:0 7E0 7E8 22F190", "62 F1 90 56 41 52 4E 45 4C( [0-9A-F]{2}){11}\n"},
      {"lin schedule 0x55000140:2 21@10", ""},  // the adapter plays it between the commands
      {"lin dump 0x55000140:2 -n 2",
       "(\\(\\d+\\.\\d{3}\\) 0x55000140:2 21#11223344 pid=61 check=F3 enhanced\n){2}"},
      // the loopback plug keeps what was sent for the next command to read
      {"uart 0x55000140:3 send -t 'hi\\x21\\n'", ""},
      {"uart 0x55000140:3 --baud 9600 read --timeout 50", "68 69 21 0A\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = on_network(c.args);
    EXPECT_EQ(run.exit_code, 0) << c.args << "\n" << run.err;
    EXPECT_TRUE(std::regex_match(run.out, std::regex(c.out))) << c.args << "\n" << run.out;
    // can dump ends with its receive summary
    EXPECT_TRUE(run.err.empty() || run.err.starts_with("can dump: 2 frames shown")) << c.args;
  }
}

TEST_F(NetCli, NetworkHandlesNeedTheNetOptionAndAnAnswer) {
  struct Case {
    std::string args;
    const char* err;
  } cases[] = {
      {"--net 127.0.0.1 info 0x55000150",
       "adapter 0x55000150: not found (1 adapter(s) on the network of 127.0.0.1; see `varnel "
       "--net 127.0.0.1 scan`)\n"},
      {"--sim gpio 0x55000140 read 0x1",
       "adapter 0x55000140: a network adapter; give --net LOCAL_IP, the local address on its "
       "network\n"},
      {"--net 1.2.3 scan", "scan --net 1.2.3: -1 (not a usable local IPv4 address)\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(c.args, daemon_.environment());
    EXPECT_EQ(run.exit_code, 1) << c.args;
    EXPECT_EQ(run.err, c.err) << c.args;
  }
}
