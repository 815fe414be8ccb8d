// `varnel dbc`: a database described, candump lines decoded and frames encoded from values.
#include "cli_support.h"

using namespace cli_test;

TEST(DbcCli, ExitCodeOutputAndErrors) {
  const std::string dbc = data_file("bench.dbc"), log = data_file("bench.log");
  const std::string encode = "dbc encode " + dbc + " ", expected = "expected SIGNAL=VALUE, got ";
  struct Case {
    std::string args;
    int exit_code;
    std::string out, err;
  } cases[] = {
      {"dbc info " + dbc, 0, golden("dbc_info.txt"), ""},
      {"dbc decode " + dbc + " " + log, 0, golden("dbc_decode.txt"), ""},
      {"dbc decode " + dbc + " < " + log, 0, golden("dbc_decode.txt"), ""},  // from stdin
      // Speed 1000 * 0.1 in bytes 0-1 (Intel), Gear in byte 2, Coolant (-10 + 40) in byte 3
      {encode + "Engine Speed=100 Gear=2 Coolant=-10", 0, "123#E803021E00000000\n", ""},
      {encode + "Engine Speed=12.3 Gear=1 Coolant=85", 0, "123#7B00017D00000000\n", ""},
      {encode + "Engine Coolant=-50", 0, "123#000000F600000000\n", ""},  // raw -10
      {encode + "Engine Gear=15", 0, "123#00000F0000000000\n", ""},
      {encode + "Brake Pressure=250", 0, "18FEF1FE#F4010000\n", ""},
      {encode + "Brake Pressure=99999 --clamp", 0, "18FEF1FE#FF0F0000\n", ""},  // to the range
      {encode + "Brake Pressure=99999", 1, "",
       "varnel dbc: Pressure=99999 is outside its range (--clamp clamps)\n"},
      // Unknown lines are skipped, so a candump log is a database without messages.
      {"dbc info " + log, 0, "messages: 0\n\nattribute definitions: 0\n",
       "varnel dbc: warning: " + log + " defines no messages\n"},
      {"dbc info /nonexistent.dbc", 1, "", "varnel dbc: cannot load /nonexistent.dbc\n"},
      {"dbc decode " + dbc + " /nonexistent.log", 1, "",
       "varnel dbc: cannot read /nonexistent.log\n"},
      {encode + "Gearbox Gear=1", 1, "", "varnel dbc: no message Gearbox\n"},
      {encode + "Engine Rpm=1", 1, "", "varnel dbc: no signal Rpm in Engine\n"},
      {encode + "Engine Gear=two", 1, "", "varnel dbc: " + expected + "Gear=two\n"},
      {encode + "Engine Gear", 1, "", "varnel dbc: " + expected + "Gear\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(c.args);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args;
    EXPECT_EQ(run.out, c.out) << c.args;
    EXPECT_EQ(run.err, c.err) << c.args;
  }
}
