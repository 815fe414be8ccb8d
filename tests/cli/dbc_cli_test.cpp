// `varnel dbc`: a database described, candump lines decoded and frames encoded from values.
#include "cli_support.h"

using namespace cli_test;

namespace {
const std::string kBenchDbc = data_file("bench.dbc");
const std::string kBenchLog = data_file("bench.log");
}  // namespace

TEST(DbcCli, OutputMatchesGoldenText) {
  struct Case {
    std::string args;
    const char* golden;
  } cases[] = {
      {"dbc info " + kBenchDbc, "dbc_info.txt"},
      {"dbc decode " + kBenchDbc + " " + kBenchLog, "dbc_decode.txt"},
      {"dbc decode " + kBenchDbc + " < " + kBenchLog, "dbc_decode.txt"},  // from stdin
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(c.args);
    EXPECT_EQ(run.exit_code, 0) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, golden(c.golden)) << c.args;
  }
}

TEST(DbcCli, EncodePutsEachSignalInItsBits) {
  struct Case {
    const char* message_and_values;
    const char* frame;
  } cases[] = {
      // Speed 1000 * 0.1 in bytes 0-1 (Intel), Gear in byte 2, Coolant (-10 + 40) in byte 3
      {"Engine Speed=100 Gear=2 Coolant=-10", "123#E803021E00000000\n"},
      {"Engine Coolant=-50", "123#000000F600000000\n"},  // raw -10, two's complement
      {"Engine Gear=15", "123#00000F0000000000\n"},
      {"Brake Pressure=250", "18FEF1FE#F4010000\n"},
      {"Brake Pressure=99999 --clamp", "18FEF1FE#FF0F0000\n"},  // clamped to the range
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("dbc encode " + kBenchDbc + " " + c.message_and_values);
    EXPECT_EQ(run.exit_code, 0) << c.message_and_values << "\n" << run.err;
    EXPECT_EQ(run.out, c.frame) << c.message_and_values;
  }
}

TEST(DbcCli, EncodedFramesDecodeToTheirValues) {
  const std::string frame = testing::TempDir() + "dbc_cli_frame.log";
  ToolRun encoded =
      varnel("dbc encode " + kBenchDbc + " Engine Speed=12.3 Gear=1 Coolant=85 > " + frame);
  ASSERT_EQ(encoded.exit_code, 0) << encoded.err;
  ToolRun decoded = varnel("dbc decode " + kBenchDbc + " " + frame);
  std::remove(frame.c_str());
  EXPECT_EQ(decoded.out,
            "123#7B00017D00000000 :: Engine(0x123): Speed=12.3 km/h Gear=\"First\" "
            "Coolant=85 degC\n");
}

TEST(DbcCli, AFileWithoutMessagesLoadsWithAWarning) {
  // unknown lines are skipped, so a candump log is a database without messages
  ToolRun run = varnel("dbc info " + kBenchLog);
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, "messages: 0\n\nattribute definitions: 0\n");
  EXPECT_EQ(run.err, "varnel dbc: warning: " + kBenchLog + " defines no messages\n");
}

TEST(DbcCli, ProblemsExitOneAndSayWhat) {
  struct Case {
    std::string args;
    std::string err;
  } cases[] = {
      {"dbc info /nonexistent.dbc", "varnel dbc: cannot load /nonexistent.dbc\n"},
      {"dbc decode " + kBenchDbc + " /nonexistent.log",
       "varnel dbc: cannot read /nonexistent.log\n"},
      {"dbc encode " + kBenchDbc + " Gearbox Gear=1", "varnel dbc: no message Gearbox\n"},
      {"dbc encode " + kBenchDbc + " Engine Rpm=1", "varnel dbc: no signal Rpm in Engine\n"},
      {"dbc encode " + kBenchDbc + " Engine Gear=two",
       "varnel dbc: expected SIGNAL=VALUE, got Gear=two\n"},
      {"dbc encode " + kBenchDbc + " Engine Gear", "varnel dbc: expected SIGNAL=VALUE, got Gear\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(c.args);
    EXPECT_EQ(run.exit_code, 1) << c.args;
    EXPECT_EQ(run.err, c.err) << c.args;
    EXPECT_EQ(run.out, "") << c.args;
  }
}
