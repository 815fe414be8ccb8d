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

// The flash's size comes from its identification (EF 40 12: 2^18 bytes); a --size or an image
// larger than that is refused before anything is erased.
TEST(SpiCli, FlashSizeComesFromTheIdentificationAndLargerIsRefused) {
  const std::string env = "VARNEL_SIM_SPI_FLASH_SIZE=262144";
  const std::string dir = testing::TempDir() + "varnel_spi_size_" + std::to_string(getpid());
  const std::string small = dir + "_small.bin", large = dir + "_large.bin", back = dir + "_back";
  std::ofstream(small, std::ios::binary) << std::string(4096, '\x5A');
  std::ofstream(large, std::ios::binary) << std::string(262145, '\x5A');
  struct Case {
    std::string args;
    int exit_code;
    const char* out;
    const char* err;  // a part of stderr
  } cases[] = {
      {"id", 0, "flash ID EF 40 12: manufacturer 0xEF, device 0x4012, 256 kB\n", ""},
      {"read " + back, 0, "Reading flash... done.\n", ""},
      {"write --size 524288 " + small, 1, "", "--size is larger than the flash"},
      {"write " + large, 1, "",
       "Error: Image size (262145 B) doesn't match the expected size (262144 B)!\n"},
      {"verify --size 262144 " + large, 1, "",
       "Error: Image size (262145 B) doesn't match the expected size (262144 B)!\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("--sim spi flash 0x12345678:0 " + c.args, env);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
    EXPECT_NE(run.err.find(c.err), std::string::npos) << c.args << "\n" << run.err;
  }
  EXPECT_EQ(read_file(back), std::string(262144, '\xFF'));  // the whole chip, erased
  for (const auto& file : {small, large, back}) std::remove(file.c_str());
}

// flashrom's -r, -w, -v and -E are the operations; with them an image must be the flash's size
// (or --size), and the refusals read as flashrom's (flashrom -p dummy gives the same lines).
TEST(SpiCli, FlashromFlagsWantAnImageOfTheFlashsSize) {
  const std::string env = "VARNEL_SIM_SPI_FLASH_SIZE=262144";
  const std::string dir = testing::TempDir() + "varnel_spi_flags_" + std::to_string(getpid());
  const std::string small = dir + "_small.bin", full = dir + "_full.bin", back = dir + "_back";
  std::ofstream(small, std::ios::binary) << std::string(4096, '\x5A');
  std::ofstream(full, std::ios::binary) << std::string(262144, '\xA5');
  const char* written =
      "Erasing and writing flash chip... Erase/write done.\nVerifying flash... VERIFIED.\n";
  struct Case {
    std::string args;
    int exit_code;
    const char* out;
    const char* err;
  } cases[] = {
      {"-r " + back, 0, "Reading flash... done.\n", ""},
      {"-w " + small, 1, "",
       "Error: Image size (4096 B) doesn't match the expected size (262144 B)!\n"},
      {"--verify " + small, 1, "",
       "Error: Image size (4096 B) doesn't match the expected size (262144 B)!\n"},
      {"-w " + small + " --size 4096", 0, written, ""},
      {"-w " + full, 0, written, ""},
      {"-E", 0, "Erasing flash chip... Erase done.\n", ""},
      {"-w /nonexistent/image.bin", 1, "",
       "Error: opening file \"/nonexistent/image.bin\" failed: No such file or directory\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("--sim spi flash 0x12345678:0 " + c.args, env);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
    if (c.exit_code) {
      EXPECT_EQ(run.err, c.err) << c.args;  // (progress lines otherwise)
    }
  }
  EXPECT_EQ(read_file(back), std::string(262144, '\xFF'));
  for (const char* both : {"-r x -E", "read x -w y", "-E erase"})
    EXPECT_EQ(varnel(std::string("--sim spi flash 0x12345678:0 ") + both).exit_code, 2) << both;
  for (const auto& file : {small, full, back}) std::remove(file.c_str());
}
