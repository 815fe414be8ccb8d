// How `varnel monitor` takes the names of LIN, UART and K-line channels: a malformed one stops it
// with exit code 2 and the reason, before anything is opened; a well-formed one that names no
// channel here stops it with 1. `timeout` bounds a monitor that wrongly starts serving.
#include <gtest/gtest.h>

#include "cli/cli_support.h"

namespace {

using cli_test::ToolRun;
using cli_test::varnel;

TEST(MonitorCli, FamilyChannelNamesAreCheckedBeforeAnythingOpens) {
  if (varnel("monitor --help").exit_code != 0) GTEST_SKIP() << "built without the monitor";
  const std::string rate = "the baud rate after @ is a whole number of 110 or more",
                    form =
                        "expected linN, lin:HANDLE:CH (the same for uart and kline), then "
                        "@BAUD or not";
  const struct {
    std::string name;
    int exit_code;
    std::string err;
  } cases[] = {
      {"lin99@100", 2, rate},  // under 110 baud
      {"uart99@96x0", 2, rate},
      {"kline99@", 2, rate},
      {"lin99x", 2, form},
      {"lin:", 2, form},
      {"lin_0x55000140:0", 2, form},  // the handle must follow a colon
      {"kline:0x12345678", 2, form},  // and be followed by a channel
      {"lin99@110", 1, "no such channel"},
      {"uart99", 1, "no such channel"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("--sim monitor " + c.name + " --port 0", "timeout -s INT 20");
    EXPECT_EQ(run.exit_code, c.exit_code) << c.name << ": " << run.err;
    EXPECT_NE(run.err.find("monitor: " + c.name + ": "), std::string::npos) << run.err;
    EXPECT_NE(run.err.find(c.err), std::string::npos) << c.name << ": " << run.err;
    EXPECT_EQ(run.out, "") << c.name;
  }
}

}  // namespace
