// `varnel lin` against the virtual adapter, whose buses carry a node answering 21 with 11 22 33 44
// (enhanced checksum: 61 + AA = 10B -> 0C -> F3).
#include <regex>

#include "cli_support.h"

using namespace cli_test;

TEST(LinCli, FramesPrintAsParsableLinesAndBadArgumentsExitTwo) {
  const std::regex line(R"(\(\d+\.\d{3}\) 0x12345678:0 21#11223344 pid=61 check=F3 enhanced\n)");
  ToolRun read = varnel("--sim lin read 0x12345678:0 21");
  EXPECT_EQ(read.exit_code, 0) << read.err;
  EXPECT_TRUE(std::regex_match(read.out, line)) << read.out;
  ToolRun silent = varnel("--sim lin read 0x12345678:0 22");
  EXPECT_EQ(silent.exit_code, 1) << "nobody answers 22";
  EXPECT_NE(silent.out.find(" 22# pid=E2 check=00 error\n"), std::string::npos) << silent.out;
  for (const char* ok :
       {"--sim lin write 0x12345678:3 3C#0102", "--sim lin slave 0x12345678:1 30#AA",
        "--sim lin schedule 0x12345678:0 21@10 22#05@20 -n 2"})
    EXPECT_EQ(varnel(ok).exit_code, 0) << ok;
  for (const char* bad :
       {"--sim lin read 0x12345678:8 21", "--sim lin read 0x12345678:0 40",
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
