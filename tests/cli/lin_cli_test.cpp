// `varnel lin` against the virtual adapter, whose buses carry a node answering 21 with 11 22 33 44
// (enhanced checksum: 61 + AA = 10B -> 0C -> F3).
#include <regex>

#include "cli_support.h"

using namespace cli_test;

TEST(LinCli, FramesPrintAsParsableLinesAndBadArgumentsExitTwo) {
  const std::regex line(R"(\(\d+\.\d{3}\) 0x12345678:0 21#11223344 pid=61 check=F3 enhanced\n)");
  for (const char* id : {"21", "0x21", "0X21"}) {  // with 0x as every other hex argument
    ToolRun read = varnel(std::string("--sim lin read 0x12345678:0 ") + id);
    EXPECT_EQ(read.exit_code, 0) << id << read.err;
    EXPECT_TRUE(std::regex_match(read.out, line)) << id << read.out;
  }
  ToolRun silent = varnel("--sim lin read 0x12345678:0 22");
  EXPECT_EQ(silent.exit_code, 1) << "nobody answers 22";
  EXPECT_NE(silent.out.find(" 22# pid=E2 check=00 error\n"), std::string::npos) << silent.out;
  for (const char* ok :
       {"--sim lin write 0x12345678:3 3C#0102", "--sim lin slave 0x12345678:1 30#AA",
        "--sim lin schedule 0x12345678:0 21@10 22#05@20 -n 2"})
    EXPECT_EQ(varnel(ok).exit_code, 0) << ok;
  for (const char* bad :
       {"--sim lin read 0x12345678:8 21", "--sim lin read 0x12345678:0 40",
        "--sim lin read 0x12345678:0 0x40", "--sim lin read 0x12345678:0 0x",
        "--sim lin write 0x12345678:0 21#010203040506070809", "--sim lin write 0x12345678:0 21#0",
        "--sim lin schedule 0x12345678:0 21", "--sim lin schedule 0x12345678:0"})
    EXPECT_EQ(varnel(bad).exit_code, 2) << bad;
  EXPECT_EQ(varnel("lin read 0x12345678:0 21").exit_code, 1) << "no adapter without --sim";

  // the control unit with NAD 10 on channel 0's bus; its VIN is VARNELSIMECU00001
  ToolRun uds = varnel("--sim lin uds 0x12345678:0 10 22F190 2201FF");
  EXPECT_EQ(uds.exit_code, 1) << "the second request is refused";
  EXPECT_EQ(uds.out,
            "62 F1 90 56 41 52 4E 45 4C 53 49 4D 45 43 55 30 30 30 30 31\n"
            "7F 22 31 (requestOutOfRange)\n");
  for (const char* bad : {"--sim lin uds 0x12345678:0 0 22F190", "--sim lin uds 0x12345678:0 80 22",
                          "--sim lin uds 0x12345678:0 10 22F19"})
    EXPECT_EQ(varnel(bad).exit_code, 2) << bad;
  EXPECT_EQ(varnel("--sim lin uds 0x12345678:1 10 22F190 -t 100").exit_code, 1)
      << "no control unit on channel 1's bus";
}

// The boot loader with NAD 20 on channel 0's bus: 128 KiB of flash from address 0, key constant
// BEEF. An S2 record at 0x20000 (05 02 00 00 12, checksum FF - 19 = E6) lies beyond it.
TEST(LinCli, FlashProgramsAndVerifiesAnImageWithAnExitCodePerOutcome) {
  const std::string image = VARNEL_SOURCE_DIR "/tests/cli/data/gapped.hex";
  const std::string beyond = temp_file("lin_beyond.s19", "S20502000012E6\n");
  struct Case {
    std::string args;
    int exit_code;
  } cases[] = {
      {"--sim lin flash 0x12345678:0 20 " + image, 0},
      {"--sim lin flash 0x12345678:0 20 " + image + " --key 0x1111", 3},
      {"--sim lin flash 0x12345678:0 20 " + beyond, 4},
      {"--sim lin flash 0x12345678:1 20 " + image, 1},  // nobody on channel 1's bus
      {"--sim lin flash 0x12345678:0 20 /nonexistent.hex", 2},
      {"--sim lin flash 0x12345678:0 100 " + image, 2},
  };
  for (const auto& c : cases) EXPECT_EQ(varnel(c.args).exit_code, c.exit_code) << c.args;
  // a unit whose key routine is the seed XOR the constant
  const std::string xor_unit = "VARNEL_SIM_LIN_KEY_ROUTINE=xor";
  const std::string flash = "--sim lin flash 0x12345678:0 20 " + image;
  const Case routines[] = {
      {flash, 3},
      {flash + " --key-routine xor", 0},
      {flash + " --key-routine " VARNEL_TEST_KEY_ROUTINE ":key_by_xor", 0},
      {flash + " --key-routine " VARNEL_TEST_KEY_ROUTINE ":no_such_function", 2},
      {flash + " --key-routine rot13", 2},
  };
  for (const auto& c : routines)
    EXPECT_EQ(varnel(c.args, xor_unit).exit_code, c.exit_code) << c.args;
  EXPECT_EQ(varnel(cases[0].args).out,
            "Erasing, writing and verifying 20 bytes in 2 segment(s)... VERIFIED.\n");
  std::remove(beyond.c_str());
}
