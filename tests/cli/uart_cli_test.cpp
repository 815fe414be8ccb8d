// `varnel uart` against the virtual adapter, whose channels have a loopback plug: a terminal fed
// from a pipe shows its own input come back, and Ctrl-A Ctrl-X ends it before what follows.
#include <unistd.h>

#include "cli_support.h"

using cli_test::ToolRun;
using cli_test::varnel;

namespace {

std::string input_file(const std::string& bytes) {
  const std::string path = testing::TempDir() + "varnel_uart_in_" + std::to_string(getpid());
  FILE* f = std::fopen(path.c_str(), "wb");
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
  return path;
}

}  // namespace

TEST(VarnelUartCli, TermSendsItsInputAndShowsWhatComesBack) {
  struct Case {
    std::string input, out;
  } cases[] = {
      {"ping\n\x01\x01!", "ping\n\x01!"},  // Ctrl-A Ctrl-A sends one Ctrl-A
      {"ab\x01\x18"
       "cd",
       "ab"},
  };
  for (const auto& c : cases) {
    const std::string path = input_file(c.input);
    ToolRun run = varnel("--sim uart 0x12345678:1 --baud 9600 term < " + path);
    std::remove(path.c_str());
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, c.out);
  }
}

TEST(VarnelUartCli, BadDataTargetOrFramingIsAUsageError) {
  ToolRun run = varnel("--sim uart 0x12345678:0 send DEADBEE");
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_EQ(run.err, "uart send: 'DEADBEE' is not hex (or use --text)\n");
  EXPECT_EQ(varnel("--sim uart 0x12345678:8 read").exit_code, 2);
  EXPECT_EQ(varnel("--sim uart 0x12345678:0 -y x send 41").exit_code, 2);
  EXPECT_EQ(varnel("--sim uart 0x12345678:0 -y e -p 2 --baud 300 send 41").exit_code, 0);
}
