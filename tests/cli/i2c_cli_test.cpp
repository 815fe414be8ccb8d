// `varnel i2c` against the virtual adapter, side by side with i2c-tools: the grids and tables are
// i2cdetect's and i2cdump's to the space (each cell ends in one), as i2c-tools 4.3 prints them.
// The virtual bus: a 24C02 at 0x50 and a 24C256 at 0x54 (both erased: 0xff), an SMBus device at
// 0x48 (registers 0x00-0x2f read 0 at power-up, command codes 0x32-0x3f and from 0x50 on are not
// acknowledged); nothing else answers.
#include "cli_support.h"

using cli_test::ToolRun;
using cli_test::varnel;

namespace {

const std::string kDetectHeader = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n";
const std::string kDumpHeader =
    "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f    0123456789abcdef\n";
const std::string kBlankRow = std::string(48, ' ');

}  // namespace

TEST(VarnelI2cCli, DetectScansTheRegularAddressesAllOfThemOrARange) {
  const std::string quiet = "-- -- -- -- -- -- -- -- -- -- -- -- -- -- -- -- \n";
  struct Case {
    std::string args, out;
  } cases[] = {
      // i2cdetect -y 1
      {"-y 0x12345678:0", kDetectHeader +
                              "00:                         -- -- -- -- -- -- -- -- \n10: " + quiet +
                              "20: " + quiet + "30: " + quiet +
                              "40: -- -- -- -- -- -- -- -- 48 -- -- -- -- -- -- -- \n" +
                              "50: 50 -- -- -- 54 -- -- -- -- -- -- -- -- -- -- -- \n60: " + quiet +
                              "70: -- -- -- -- -- -- -- --                         \n"},
      // i2cdetect -y -a 1: the reserved addresses probed too
      {"-a 0x12345678:1",
       kDetectHeader + "00: " + quiet + "10: " + quiet + "20: " + quiet + "30: " + quiet +
           "40: -- -- -- -- -- -- -- -- 48 -- -- -- -- -- -- -- \n" +
           "50: 50 -- -- -- 54 -- -- -- -- -- -- -- -- -- -- -- \n60: " + quiet + "70: " + quiet},
      // i2cdetect -y 1 0x49 0x54
      {"0x12345678:0 0x49 0x54",
       kDetectHeader + "00: " + kBlankRow + "\n10: " + kBlankRow + "\n20: " + kBlankRow +
           "\n30: " + kBlankRow + "\n40:                            -- -- -- -- -- -- -- \n" +
           "50: 50 -- -- -- 54                                  \n60: " + kBlankRow +
           "\n70: " + kBlankRow + "\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("--sim i2c detect " + c.args);
    EXPECT_EQ(run.exit_code, 0) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
  }
}

TEST(VarnelI2cCli, DumpPrintsI2cdumpsTableForEachMode) {
  const std::string ff16 = "ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff    ................\n";
  struct Case {
    std::string args, out;
  } cases[] = {
      // i2cdump -y -r 0x0e-0x11 1 0x50 b: an erased EEPROM
      {"-r 0x0e-0x11 0x12345678:0 0x50",
       kDumpHeader + "00:                                           ff ff                  ..\n" +
           "10: ff ff                                              ..              \n"},
      {"-y 0x12345678:0 0x54 c",
       [&] {
         std::string all = kDumpHeader;
         for (const char* row : {"00", "10", "20", "30", "40", "50", "60", "70", "80", "90", "a0",
                                 "b0", "c0", "d0", "e0", "f0"})
           all += std::string(row) + ": " + ff16;
         return all;
       }()},
      {"-r 0xf8-0xff 0x12345678:1 0x50 i",
       kDumpHeader + "f0:                         ff ff ff ff ff ff ff ff            ........\n"},
      // registers 0x4e-0x4f select byte registers 14-15 (0); 0x50 on are not acknowledged
      {"-r 0x4e-0x51 0x12345678:0 0x48 b",
       kDumpHeader + "40:                                           00 00                  ..\n" +
           "50: XX XX                                              XX              \n"},
      // i2cdump's word table: rows of 8, a word read at every register
      {"-r 0x0e-0x11 0x12345678:0 0x50 w",
       "     0,8  1,9  2,a  3,b  4,c  5,d  6,e  7,f\n"
       "08:                               ffff ffff \n"
       "10: ffff ffff                               \n"},
      {"-r 0x56-0x59 0x12345678:0 0x48 w",
       "     0,8  1,9  2,a  3,b  4,c  5,d  6,e  7,f\n"
       "50:                               XXXX XXXX \n"
       "58: XXXX XXXX                               \n"},
      // a device that never answers: every register XX, as i2cdump shows it
      {"-r 0x00-0x03 0x12345678:0 0x49",
       kDumpHeader + "00: XX XX XX XX                                        XXXX            \n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("--sim i2c dump " + c.args);
    EXPECT_EQ(run.exit_code, 0) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
  }
}

TEST(VarnelI2cCli, ReadsTransfersAndRefusedArgumentsGiveTheirExitCodes) {
  struct Case {
    std::string args;
    int exit_code;
    std::string out, err;
  } cases[] = {
      // an SMBus receive byte: the device's byte register 0, the command pointer's power-up value
      {"get 0x12345678:0 0x48", 0, "0x00\n", ""},
      {"get -y 0x12345678:0 0x49", 1, "", "i2c get: 1 (no acknowledge of the address)\n"},
      // mode c starts with a write of the first register, which nobody acknowledges here
      {"dump 0x12345678:0 0x49 c", 1, "", "i2c dump: 1 (no acknowledge of the address)\n"},
      // the SMBus device's command 0 is a byte register: its block is empty
      {"dump 0x12345678:0 0x48 s", 1, "", "i2c dump: the block read gave 0 bytes\n"},
      {"dump 0x12345678:0 0x07", 2, "",
       "i2c dump: chip address out of range (0x08-0x77; -a for 0x00-0x7f)\n"},
      {"dump -a 0x12345678:0 0x07 -r 0x00-0x00", 0,
       kDumpHeader + "00: XX" + std::string(46, ' ') + "   X               \n", ""},
      {"detect 0x12345678:0 0x07 0x10", 2, "",
       "i2c detect: FIRST argument out of range (0x08-0x77)\n"},
      {"detect 0x12345678:0 0x20 0x10", 2, "",
       "i2c detect: LAST argument out of range (0x20-0x77)\n"},
      {"detect 0x12345678:0 0x20", 2, "", "i2c detect: give both FIRST and LAST\n"},
      {"dump -r 0x10-0x0f 0x12345678:0 0x50", 2, "", ""},
      {"dump -r 0x00-0x0f 0x12345678:0 0x50 s", 2, "",
       "i2c dump: -r does not go with mode s (the block sets the range)\n"},
      // writes, then reads with a repeated start; the last message meets no device
      {"transfer 0x12345678:1 w3@0x50 0x08 0xCA 0xFE w1 0x08 r2 w1@0x23 0x00", 1, "0xca 0xfe\n",
       "i2c transfer: 1 (no acknowledge of the address)\n"},
      {"transfer 0x12345678:0 w2@0x50 0x00", 2, "", ""},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("--sim i2c " + c.args);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
    if (c.exit_code != 2 || !c.err.empty()) {
      EXPECT_EQ(run.err, c.err) << c.args;
    }
  }
}
