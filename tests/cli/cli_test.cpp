// The `varnel` tool as a user runs it: the built binary against the virtual adapter, its output
// compared with golden text, usage errors and the demo's exit code.
#include "cli_support.h"

using cli_test::golden;
using cli_test::ToolRun;
using cli_test::varnel;

TEST(VarnelCli, OutputMatchesGoldenText) {
  struct Case {
    const char* args;
    const char* golden;
    int exit_code;
  } cases[] = {
      {"--sim scan", "scan.txt", 0},
      {"--sim info 0x12345678", "info.txt", 0},
      {"--sim gpio 0x12345678 set 0x3F output write 0x0F 0x05 read 0x3F", "gpio_write_read.txt", 0},
      {"--sim gpio 0x12345678 set 0x30 input --pull up read 0x30", "gpio_pull_up.txt", 0},
      {"--sim gpio 0x12345678 set 0x3 output pulse 0x3 --width 100 --period 100 --count 3",
       "gpio_pulse.txt", 0},
  };
  for (auto& c : cases) {
    ToolRun run = varnel(c.args);
    // The virtual firmware carries its build date: the only line that changes between builds.
    std::string out = std::regex_replace(run.out, std::regex("(firmware built: +).*"), "$1<date>");
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args << "\n" << run.err;
    EXPECT_EQ(out, golden(c.golden)) << c.args;
    EXPECT_EQ(run.err, "") << c.args;
  }
}

TEST(VarnelCli, FailedCallsAreReportedInWordsAndEndTheCommand) {
  struct Case {
    const char* args;
    const char* message;
  } cases[] = {
      {"--sim gpio 0x12345678 read 0x10000 write 0x1 0x1",  // the write after it does not run
       "gpio read: -4 (the reply could not be read, had the wrong length or reported failure)\n"},
      // where the code tells what was refused, the message names it
      {"--sim gpio 0x12345678 pulse 0x1",  // pin 0 is still an input
       "gpio pulse: -4 (the adapter refused pulses on pins 0x00000001: a pin not set as output, or "
       "its reply could not be read)\n"},
      {"--sim can send 0x12345678:0 -b 123456 123#11",
       "CAN_Init2: -4 (no bit timing for bit rate 123456: not a rate this adapter has)\n"},
      {"--sim i2c detect 0x12345678:200",
       "i2c detect: -4 (the adapter refused I2C channel 200 (no such channel, or its settings), or "
       "its reply could not be read)\n"},
      {"scan --net 1.2.3", "scan --net 1.2.3: -1 (not a usable local IPv4 address)\n"},
      {"--sim gpio 0x0BADF00D read 0x1",
       "adapter 0x0BADF00D: not found (2 adapter(s) on USB; see `varnel scan`)\n"},
      {"--sim info 0x99",
       "adapter 0x00000099: not found (2 adapter(s) on USB; see `varnel scan`)\n"},
  };
  for (auto& c : cases) {
    ToolRun run = varnel(c.args);
    EXPECT_EQ(run.exit_code, 1) << c.args;
    EXPECT_EQ(run.err, c.message) << c.args;
    EXPECT_EQ(run.out, "") << c.args;
  }
}

TEST(VarnelCli, BadArgumentsExitTwoWithUsage) {
  const char* cases[] = {
      "",
      "frobnicate",
      "info",
      "info not-a-handle",
      "info 0x123456789",
      "gpio 0x12345678",
      "gpio zz read 0x1",
      "gpio 0x12345678 read",
      "gpio 0x12345678 read -1",
      "gpio 0x12345678 set 0x1 sideways",
      "gpio 0x12345678 set 0x1 output --pull maybe",
      "gpio 0x12345678 write 0x1",
      "gpio 0x12345678 pulse 0x1 --count -5",
      "scan --bogus",
  };
  for (const char* args : cases) {
    ToolRun run = varnel(args);
    EXPECT_EQ(run.exit_code, 2) << "'" << args << "'";
    EXPECT_NE(run.err.find("--help"), std::string::npos) << "'" << args << "'\n" << run.err;
    EXPECT_EQ(run.out, "") << "'" << args << "'";
  }
}

TEST(VarnelCli, WithoutAnAdapterFailsAndPointsAtTheUdevRules) {
  // This machine has no USB adapter: nothing may quietly run on the virtual one instead.
  for (const char* args : {"scan", "info 0x12345678", "can send 0x12345678:0 123#11",
                           "gpio 0x12345678 read 0x1", "socketcand --port 0"}) {
    ToolRun run = varnel(args);
    EXPECT_EQ(run.exit_code, 1) << args;
    EXPECT_EQ(run.out, "") << args;
    EXPECT_EQ(run.err.rfind("varnel: no adapter found on USB\n", 0), 0u) << args << run.err;
    EXPECT_NE(run.err.find("60-varnel.rules in /etc/udev/rules.d"), std::string::npos) << run.err;
  }
}

TEST(VarnelCli, DemoPassesEveryStep) {
  ToolRun run = varnel("demo");
  EXPECT_EQ(run.exit_code, 0) << run.out << run.err;
  EXPECT_EQ(run.out.rfind("varnel demo: the library at work against the virtual adapter\n", 0), 0u);
  std::smatch summary;
  ASSERT_TRUE(
      std::regex_search(run.out, summary, std::regex("\ndemo: (\\d+)/(\\d+) steps passed\n$")))
      << run.out;
  EXPECT_EQ(summary[1], summary[2]);
  EXPECT_EQ(run.out.find("FAILED"), std::string::npos) << run.out;
}
