// `varnel spi` against the virtual adapter's SPI NOR flash, in flashrom's manner.
#include "cli_support.h"

using namespace cli_test;

TEST(SpiCli, FlashWriteErasesWritesAndVerifiesAndTransfersPrintWhatCameBack) {
  const std::string image = temp_file("spi.bin", std::string(5000, '\x3C'));  // 2 sectors, partly
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

// The flash's size comes from its identification (EF 40 12: 2^18 bytes). flashrom's -r, -w, -v
// and -E are operations as the words are; an image must be the flash's size (or --size, which is
// no larger than the flash), and the refusals read as flashrom's (flashrom -p dummy gives the same
// lines).
TEST(SpiCli, FlashSizeComesFromTheIdentificationAndImagesMustHaveIt) {
  const std::string small = temp_file("spi_small.bin", std::string(4096, '\x5A'));
  const std::string large = temp_file("spi_large.bin", std::string(262145, '\x5A'));
  const std::string full = temp_file("spi_full.bin", std::string(262144, '\xA5'));
  const std::string back = temp_path("spi_back"), back_r = temp_path("spi_back_r");
  const char* written =
      "Erasing and writing flash chip... Erase/write done.\nVerifying flash... VERIFIED.\n";
  const std::string too_large =
      "Error: Image size (262145 B) doesn't match the expected size (262144 B)!\n";
  const std::string too_small =
      "Error: Image size (4096 B) doesn't match the expected size (262144 B)!\n";
  struct Case {
    std::string args;
    int exit_code;
    const char* out;
    std::string err;  // when it fails (progress lines otherwise)
  } cases[] = {
      {"id", 0, "flash ID EF 40 12: manufacturer 0xEF, device 0x4012, 256 kB\n", ""},
      {"read " + back, 0, "Reading flash... done.\n", ""},
      {"-r " + back_r, 0, "Reading flash... done.\n", ""},
      {"write --size 524288 " + small, 1, "",
       "flash ID EF 40 12 (262144 bytes): --size is larger than the flash\n"},
      {"write " + large, 1, "", too_large},
      {"verify --size 262144 " + large, 1, "", too_large},
      {"-w " + small, 1, "", too_small},
      {"--verify " + small, 1, "", too_small},
      {"-w " + small + " --size 4096", 0, written, ""},
      {"-w " + full, 0, written, ""},
      {"-E", 0, "Erasing flash chip... Erase done.\n", ""},
      {"-w /nonexistent/image.bin", 1, "",
       "Error: opening file \"/nonexistent/image.bin\" failed: No such file or directory\n"},
  };
  for (const auto& c : cases) {
    ToolRun run =
        varnel("--sim spi flash 0x12345678:0 " + c.args, "VARNEL_SIM_SPI_FLASH_SIZE=262144");
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
    if (c.exit_code) {
      EXPECT_EQ(run.err, c.err) << c.args;
    }
  }
  EXPECT_EQ(read_file(back), std::string(262144, '\xFF'));  // the whole chip, erased
  EXPECT_EQ(read_file(back_r), std::string(262144, '\xFF'));
  for (const char* both : {"-r x -E", "read x -w y", "-E erase"})
    EXPECT_EQ(varnel(std::string("--sim spi flash 0x12345678:0 ") + both).exit_code, 2) << both;
  for (const auto& file : {small, large, full, back, back_r}) std::remove(file.c_str());
}
