// Images written by independent tools (GNU objcopy, srec_cat from srecord) from real binaries of
// this machine, read back with our converters: the bytes must come back exactly.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "varnel.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;
using Converter = int (*)(const char*, int32_t, HEXFILE_SEGMENT*, uint32_t, int8_t);

Bytes read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

void write_file(const fs::path& path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

class HexfileOracle : public ::testing::Test {
 protected:
  static constexpr size_t kInputSize = 100000;  // more than 64 KiB: S2 records, several bases

  void SetUp() override {
    for (const char* tool : {"objcopy", "srec_cat"})
      ASSERT_EQ(std::system((std::string("command -v ") + tool + " >/dev/null").c_str()), 0)
          << tool << " is missing: the image oracles need the Debian packages binutils and srecord";
    dir_ = fs::temp_directory_path() / ("varnel_hexfile_oracle_" + std::to_string(getpid()));
    fs::create_directories(dir_);
    Bytes ls = read_file("/usr/bin/ls");
    ASSERT_GE(ls.size(), kInputSize);
    input_.assign(ls.begin(), ls.begin() + kInputSize);
    write_file(dir_ / "in.bin", input_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  // Runs a shell command in the temp dir; fails the test with the command on error.
  void run(const std::string& command) {
    std::string full = "cd '" + dir_.string() + "' && " + command + " 2>&1";
    ASSERT_EQ(std::system(full.c_str()), 0) << full;
  }

  struct Loaded {
    int result = 0;
    std::vector<HEXFILE_SEGMENT> segments;
    ~Loaded() { hexfile_free_data(segments.data(), static_cast<int32_t>(segments.size())); }
  };

  // Loads the file with hexfile_load_file, as a caller does, and converts it.
  void convert(const std::string& name, Converter converter, int8_t unit, Loaded& out) {
    fs::path path = dir_ / name;
    std::vector<char> text(fs::file_size(path));
    int size = hexfile_load_file(path.c_str(), text.data());
    ASSERT_EQ(size, static_cast<int>(text.size()));
    out.segments.resize(64);
    out.result = converter(text.data(), size, out.segments.data(), 64, unit);
  }

  // The file holds the whole input as one segment starting at `start`.
  void expect_whole_input(const std::string& name, Converter converter, int8_t unit,
                          uint32_t start) {
    SCOPED_TRACE(name);
    Loaded loaded;
    convert(name, converter, unit, loaded);
    ASSERT_EQ(loaded.result, 1);
    EXPECT_EQ(loaded.segments[0].StartAddr, start);
    ASSERT_EQ(loaded.segments[0].DataLen, input_.size());
    EXPECT_EQ(Bytes(loaded.segments[0].pData, loaded.segments[0].pData + input_.size()), input_);
  }

  fs::path dir_;
  Bytes input_;
};

TEST_F(HexfileOracle, ObjcopyImagesRoundTrip) {
  run("objcopy -I binary -O ihex in.bin seg.hex");  // type 02 segment records past 64 KiB
  run("objcopy -I binary -O ihex --change-addresses 0x08000000 in.bin linear.hex");  // type 04
  run("objcopy -I binary -O srec in.bin s28.srec");
  run("objcopy -I binary -O srec --srec-forceS3 --change-addresses 0x20000000 in.bin s37.srec");
  run("objcopy -I binary -O srec --srec-len=64 --change-addresses 0x1234 in.bin long.srec");
  run("grep -q '^:02000002' seg.hex && grep -q '^:02000004' linear.hex && grep -q '^S3' s37.srec");
  expect_whole_input("seg.hex", hexfile_convert_ihx, 1, 0);
  expect_whole_input("linear.hex", hexfile_convert_ihx, 1, 0x08000000);
  expect_whole_input("s28.srec", hexfile_convert_s19, 1, 0);
  expect_whole_input("s37.srec", hexfile_convert_s19, 1, 0x20000000);
  expect_whole_input("long.srec", hexfile_convert_s19, 1, 0x1234);
}

TEST_F(HexfileOracle, SrecCatImagesRoundTrip) {
  run("srec_cat in.bin -binary -offset 0x12340 -o seg.hex -intel -address-length=3");
  run("srec_cat in.bin -binary -offset 0x08000000 -o linear.hex -intel -obs 32");
  run("srec_cat in.bin -binary -crop 0 0xFF00 -o s19.srec -address-length=2");
  run("srec_cat in.bin -binary -offset 0x10000 -o s28.srec -address-length=3");
  run("srec_cat in.bin -binary -offset 0x80000000 -o s37.srec -address-length=4 -obs 250");
  run("srec_cat in.bin -binary -offset 0x1000 -o word.srec -Motorola 2");
  run("srec_cat in.bin -binary -offset 0x40000 -o long.srec -Motorola 4 -address-length=4");
  run("grep -q '^:02000002' seg.hex && grep -q '^S1' s19.srec && ! grep -q '^S[23]' s19.srec");
  expect_whole_input("seg.hex", hexfile_convert_ihx, 1, 0x12340);
  expect_whole_input("linear.hex", hexfile_convert_ihx, 1, 0x08000000);
  expect_whole_input("s28.srec", hexfile_convert_s19, 1, 0x10000);
  expect_whole_input("s37.srec", hexfile_convert_s19, 1, 0x80000000);
  expect_whole_input("word.srec", hexfile_convert_s19, 2, 0x800);        // 16-bit addresses
  expect_whole_input("long.srec", hexfile_convert_s19, 4, 0x40000 / 4);  // 32-bit addresses

  Loaded s19;
  convert("s19.srec", hexfile_convert_s19, 1, s19);
  ASSERT_EQ(s19.result, 1);
  EXPECT_EQ(Bytes(s19.segments[0].pData, s19.segments[0].pData + s19.segments[0].DataLen),
            Bytes(input_.begin(), input_.begin() + 0xFF00));
}

TEST_F(HexfileOracle, GapsAreFilledLikeSrecCat) {
  run("srec_cat in.bin -binary -crop 0 0x4000 in.bin -binary -crop 0x9000 0x10000 "
      "in.bin -binary -crop 0x10010 0x12000 -o gaps.hex -intel");
  run("srec_cat gaps.hex -intel -fill 0xFF 0 0x12000 -o filled.bin -binary");
  Loaded loaded;
  convert("gaps.hex", hexfile_convert_ihx, 1, loaded);
  ASSERT_EQ(loaded.result, 3);
  Bytes expected = read_file(dir_ / "filled.bin");
  Bytes image(expected.size());
  EXPECT_EQ(hexfile_convert_image(image.data(), loaded.segments.data(), 3, 1, int8_t(0xFF)),
            static_cast<int>(expected.size()));
  EXPECT_EQ(image, expected);

  fs::path out = dir_ / "ours.bin";
  EXPECT_EQ(hexfile_save_image(out.c_str(), loaded.segments.data(), 3, 1, 1),
            static_cast<int>(expected.size()));
  EXPECT_EQ(read_file(out), expected);
  EXPECT_EQ(hexfile_save_image(out.c_str(), loaded.segments.data(), 3, 1, 0), 0x4000);
  EXPECT_EQ(read_file(out), Bytes(input_.begin(), input_.begin() + 0x4000));
}

}  // namespace
