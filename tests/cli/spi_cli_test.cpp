// `varnel spi` against the virtual adapter's SPI NOR flash, in flashrom's manner.
#include <fstream>

#include "cli_support.h"

using namespace cli_test;

TEST(SpiCli, FlashWriteErasesWritesAndVerifiesAndTransfersPrintWhatCameBack) {
  const std::string image = testing::TempDir() + "varnel_spi_" + std::to_string(getpid()) + ".bin";
  std::ofstream(image, std::ios::binary) << std::string(5000, '\x3C');  // two sectors, partly
  struct Case {
    std::string args;
    int exit_code;
    const char* out;
  } cases[] = {
      {"--sim spi flash 0x12345678:0 id", 0,
       "flash ID EF 40 14: manufacturer 0xEF, device 0x4014, 1024 kB\n"},
      {"--sim spi flash 0x12345678:1 write " + image, 0,
       "Erasing and writing flash chip... Erase/write done.\nVerifying flash... VERIFIED.\n"},
      // each --sim run starts with a fresh, erased flash
      {"--sim spi flash 0x12345678:0 verify " + image, 1,
       "Verifying flash... FAILED at 0x00000000: expected 0x3c, read 0xff\n"},
      {"--sim spi transfer 0x12345678:0 9F -r 3", 0, "EF 40 14\n"},
      {"--sim spi transfer 0x12345678:0 9G", 2, ""},
      {"--sim spi flash 0x12345678:0 write", 2, ""},  // no file
      {"--sim spi flash 0x12345678:2 id", 2, ""},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(c.args);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
  }
  std::remove(image.c_str());
}
