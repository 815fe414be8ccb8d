// `varnel kline` against the virtual adapter, whose channels carry a KWP2000 unit at address 10:
// StartCommunication answers C1 EF 8F; 21 01 answers 61 01 0C 1C 00 5A; an unknown local
// identifier is refused with 31.
#include "cli_support.h"

using namespace cli_test;

TEST(KlineCli, FastInitThenRequestsPrintedInHexWithNegativeAnswersByName) {
  ToolRun run = varnel("--sim kline 0x12345678:0 --fast 2101 2177");
  EXPECT_EQ(run.exit_code, 1) << "the second request is refused";
  EXPECT_EQ(run.out,
            "fast init: C1 EF 8F\n"
            "61 01 0C 1C 00 5A\n"
            "7F 21 31 (requestOutOfRange)\n");
  ToolRun plain = varnel("--sim kline 0x12345678:1 --fast --no-addresses --p4 0 3E01");
  EXPECT_EQ(plain.exit_code, 0) << plain.err;
  EXPECT_EQ(plain.out, "fast init: C1 EF 8F\n7E\n");
  ToolRun slow = varnel("--sim kline 0x12345678:2 --5baud 0x33 3E01");
  EXPECT_EQ(slow.exit_code, 0) << slow.err;
  EXPECT_EQ(slow.out, "5-baud init 33: sync 55, key bytes 08 08\n7E\n");
  for (const char* bad :
       {"--sim kline 0x12345678:8 --fast 3E", "--sim kline 0x12345678:0 3E",
        "--sim kline 0x12345678:0 --fast --5baud 33 3E", "--sim kline 0x12345678:0 --fast 3E0",
        "--sim kline 0x12345678:0 --5baud 333 3E"})
    EXPECT_EQ(varnel(bad).exit_code, 2) << bad;
  EXPECT_EQ(varnel("--sim kline 0x12345678:0 --fast --tgt 22 -t 100 3E").exit_code, 1)
      << "nobody at address 22";
  EXPECT_EQ(varnel("kline 0x12345678:0 --fast 3E").exit_code, 1) << "no adapter without --sim";
}
