// `varnel hex`: image files described and written out flat.
#include "cli_support.h"

using namespace cli_test;

TEST(HexCli, ConvertWritesTheImageObjcopyWrites) {
  struct Case {
    const char* options;
    const char* objcopy_options;  // the same image from binutils
  } cases[] = {
      {"", ""},  // only the first contiguous run: bytes 0x100-0x10F
      {"--fill 0xFF", "--gap-fill 0xFF"},
      {"--fill 0", "--gap-fill 0"},
  };
  const std::string hex = data_file("gapped.hex");
  const std::string out = testing::TempDir() + "hex_cli_out.bin";
  const std::string expected = testing::TempDir() + "hex_cli_objcopy.bin";
  for (const auto& c : cases) {
    ToolRun run = varnel(std::string("hex convert ") + c.options + " " + hex + " " + out);
    ASSERT_EQ(run.exit_code, 0) << c.options << run.err;
    ASSERT_EQ(std::system(("objcopy -I ihex -O binary " + std::string(c.objcopy_options) + " " +
                           hex + " " + expected)
                              .c_str()),
              0);
    std::string want = read_file(expected);
    if (!*c.objcopy_options) want.resize(16);  // objcopy fills the gap with zeros
    EXPECT_EQ(read_file(out), want) << c.options;
  }
  std::remove(out.c_str());
  std::remove(expected.c_str());
}

TEST(HexCli, InfoListsSegmentsAndReportsBadLines) {
  ToolRun good = varnel("hex info " + data_file("gapped.hex"));
  EXPECT_EQ(good.exit_code, 0) << good.err;
  EXPECT_NE(good.out.find("segments: 2 (address unit 1)\n"
                          "  #  start       end         bytes\n"
                          "  0  0x00000100  0x0000010F  16\n"
                          "  1  0x00000120  0x00000123  4\n"),
            std::string::npos)
      << good.out;
  ToolRun bad = varnel("hex info " + data_file("bad_checksum.hex"));
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_NE(bad.err.find("bad_checksum.hex: 1 bad line(s)"), std::string::npos) << bad.err;
}

TEST(HexCli, BadOptionsExitTwo) {
  const char* cases[] = {
      "hex convert --fill FF x.hex out.bin",
      "hex convert --fill 256 x.hex out.bin",
      "hex info --unit 3 x.hex",
      "hex info --format elf x.hex",
      "hex convert x.hex",
  };
  for (const char* args : cases) {
    ToolRun run = varnel(args);
    EXPECT_EQ(run.exit_code, 2) << args << "\n" << run.err;
  }
}
