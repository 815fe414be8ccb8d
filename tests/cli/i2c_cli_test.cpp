// `varnel i2c` against the virtual adapter: i2cdetect's grid and an i2ctransfer round trip.
#include "cli_support.h"

using cli_test::ToolRun;
using cli_test::varnel;

TEST(VarnelI2cCli, DetectDrawsTheGridWithTheAnsweringAddresses) {
  ToolRun run = varnel("--sim i2c detect 0x12345678:0");
  ASSERT_EQ(run.exit_code, 0) << run.err;
  std::string blank = " --", row;
  std::string expected = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n";
  for (int base = 0; base < 0x80; base += 16) {
    char label[8];
    std::snprintf(label, sizeof label, "%02x:", base);
    row = label;
    for (int a = base; a < base + 16; ++a) {
      char cell[8];
      std::snprintf(cell, sizeof cell, " %02x", a);
      row += a < 3 || a > 0x77 ? "   " : (a == 0x48 || a == 0x50 || a == 0x54) ? cell : blank;
    }
    expected += row + "\n";
  }
  EXPECT_EQ(run.out, expected);
}

TEST(VarnelI2cCli, TransferWritesThenReadsWithARepeatedStart) {
  ToolRun run =
      varnel("--sim i2c transfer 0x12345678:1 w3@0x50 0x08 0xCA 0xFE w1 0x08 r2 w1@0x23 0x00");
  EXPECT_EQ(run.out, "0xca 0xfe\n");
  EXPECT_EQ(run.exit_code, 1);  // the last message meets no device
  EXPECT_EQ(run.err, "i2c transfer: 1 (no acknowledge of the address)\n");
  EXPECT_EQ(varnel("--sim i2c transfer 0x12345678:0 w2@0x50 0x00").exit_code, 2);
}
