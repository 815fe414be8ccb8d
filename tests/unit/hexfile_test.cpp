// Firmware image files: converters, images and file loading, checked on exact bytes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "varnel.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Converter = int (*)(const char*, int32_t, HEXFILE_SEGMENT*, uint32_t, int8_t);

struct Segment {
  uint32_t start;
  Bytes data;
  bool operator==(const Segment&) const = default;
};

void PrintTo(const Segment& s, std::ostream* os) {
  *os << "{0x" << std::hex << s.start << ", " << std::dec << s.data.size() << " bytes}";
}

struct Converted {
  int result;
  std::vector<Segment> segments;  // the entries in use, whatever the result
};

Converted run(Converter convert, const std::string& text, uint32_t max_segments = 8,
              int8_t unit = 1) {
  std::vector<HEXFILE_SEGMENT> array(max_segments, HEXFILE_SEGMENT{0x5A5A5A5A, 77, nullptr});
  Converted out;
  out.result =
      convert(text.data(), static_cast<int32_t>(text.size()), array.data(), max_segments, unit);
  for (const auto& s : array)
    if (s.StartAddr != 0xFFFFFFFF || s.DataLen != 0)
      out.segments.push_back(
          {s.StartAddr, s.pData ? Bytes(s.pData, s.pData + s.DataLen) : Bytes{}});
  EXPECT_EQ(hexfile_free_data(array.data(), static_cast<int32_t>(max_segments)), 0);
  for (const auto& s : array) EXPECT_EQ(s.pData, nullptr);
  return out;
}

Bytes counting(size_t n, uint8_t first = 0) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(first + i);
  return b;
}

std::string hex(const Bytes& bytes) {
  static const char* digits = "0123456789ABCDEF";
  std::string s;
  for (uint8_t b : bytes) {
    s += digits[b >> 4];
    s += digits[b & 15];
  }
  return s;
}

// One S-record with its checksum.
std::string srec(int type, uint32_t address, const Bytes& data) {
  Bytes body;
  // S0, S5 and S9 carry 2 address bytes, S8 three, S7 four; S1-S3 type + 1
  int address_bytes = type >= 1 && type <= 3 ? type + 1 : type == 8 ? 3 : type == 7 ? 4 : 2;
  body.push_back(static_cast<uint8_t>(address_bytes + data.size() + 1));
  for (int i = address_bytes - 1; i >= 0; --i)
    body.push_back(static_cast<uint8_t>(address >> 8 * i));
  body.insert(body.end(), data.begin(), data.end());
  uint8_t sum = 0;
  for (uint8_t b : body) sum = static_cast<uint8_t>(sum + b);
  body.push_back(static_cast<uint8_t>(~sum));
  return "S" + std::to_string(type) + hex(body) + "\n";
}

std::string ihex(uint8_t type, uint16_t address, const Bytes& data) {
  Bytes body{static_cast<uint8_t>(data.size()), static_cast<uint8_t>(address >> 8),
             static_cast<uint8_t>(address), type};
  body.insert(body.end(), data.begin(), data.end());
  uint8_t sum = 0;
  for (uint8_t b : body) sum = static_cast<uint8_t>(sum + b);
  body.push_back(static_cast<uint8_t>(-sum));
  return ":" + hex(body) + "\n";
}

struct Case {
  const char* name;
  std::string text;
  int8_t unit;
  uint32_t max_segments;
  int result;
  std::vector<Segment> segments;
};

void check_cases(Converter convert, const std::vector<Case>& cases) {
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Converted got = run(convert, c.text, c.max_segments, c.unit);
    EXPECT_EQ(got.result, c.result);
    if (c.result > 0) {
      EXPECT_EQ(got.segments, c.segments);
    }
  }
}

// A well-formed record followed by its own copy with one digit changed.
std::string corrupt_last_digit(std::string record) {
  size_t i = record.size() - 2;  // before '\n'
  record[i] = record[i] == '0' ? '1' : '0';
  return record;
}

// Joined records, S2/S3 and 04 addresses, units 2 and 4 and the 64 KiB boundaries on whole images:
// hexfile_oracle_test.cpp.
TEST(HexfileS19, ConvertsRecordsIntoSegments) {
  std::string lower = srec(1, 0x0000, {0xAB, 0xCD});
  for (char& ch : lower) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  lower[0] = 'S';
  // clang-format off
  check_cases(hexfile_convert_s19, {
      {"header, count, start and garbage lines are skipped",
       srec(0, 0, {'h', 'd', 'r'}) + "garbage\n" + srec(1, 0x100, {9}) + srec(5, 1, {}) +
           "S9030000FC\nS4zzzz\n",
       1, 8, 1, {{0x100, {9}}}},
      {"gap opens a second segment", srec(1, 0, {1}) + srec(1, 2, {2}),
       1, 8, 2, {{0, {1}}, {2, {2}}}},
      {"going backwards opens a segment too", srec(1, 0x10, {1}) + srec(1, 0, {2}),
       1, 8, 2, {{0x10, {1}}, {0, {2}}}},
      {"lower-case digits, CR LF, lone CR, trailing blanks",
       lower.substr(0, lower.size() - 1) + "\r\n\r\n" + srec(1, 2, {0xEF}).substr(0, 12) + " \t\r" +
           srec(1, 3, {1}),
       1, 8, 1, {{0, {0xAB, 0xCD, 0xEF, 1}}}},
      {"a zero byte ends the text", srec(1, 0, {7}) + std::string(1, '\0') + "S1 broken\n",
       1, 8, 1, {{0, {7}}}},
      {"exactly as many segments as allowed", srec(1, 0, {1}) + srec(1, 5, {2}),
       1, 2, 2, {{0, {1}}, {5, {2}}}},
      {"no data records", srec(0, 0, {}) + srec(9, 0, {}), 1, 8, 0, {}},
      {"an empty data record takes no room", srec(1, 0x10, {}) + srec(1, 0x20, {5}),
       1, 8, 1, {{0x20, {5}}}},
      {"skipped lines may fill the line buffer exactly",
       "S0" + std::string(1022, '0') + "\n" + srec(1, 0, {1}),
       1, 8, 1, {{0, {1}}}},
  });
  // clang-format on
}

TEST(HexfileS19, RejectsBadRecordsWithResultZero) {
  const std::string good = srec(1, 0, {1, 2, 3});  // S1060000010203F3
  // clang-format off
  check_cases(hexfile_convert_s19, {
      {"wrong checksum", good + corrupt_last_digit(srec(1, 3, {4})), 1, 8, 0, {}},
      {"truncated line", good + good.substr(0, good.size() - 3) + "\n", 1, 8, 0, {}},
      {"odd digit count", good.substr(0, good.size() - 1) + "0\n", 1, 8, 0, {}},
      {"count shorter than address and checksum", "S1020000FD\n", 1, 8, 0, {}},
      {"non-hex digit in data", "S1060000010G03F3\n", 1, 8, 0, {}},
      {"non-hex byte count", "S1Z60000010203F3\n", 1, 8, 0, {}},
      {"overlong line", "S0" + std::string(1023, '0') + "\n" + good, 1, 8, 0, {}},
      {"too many segments", good + srec(1, 0x10, {1}) + srec(1, 0x20, {1}), 1, 2, 0, {}},
      {"no segment allowed at all", good, 1, 0, 0, {}},
      {"unit 3", good, 3, 8, 0, {}},
  });
  // clang-format on
}

TEST(HexfileS19, FailedConversionKeepsDataForFreeing) {
  // The first segment's data is allocated before the bad line; run() frees it with max_segments
  // and checks every pointer is cleared (ASan reports a leak otherwise).
  Converted got = run(hexfile_convert_s19,
                      srec(1, 0, counting(200)) + srec(1, 0x1000, {1}) + "S1030000FF\n", 4);
  EXPECT_EQ(got.result, 0);
  ASSERT_EQ(got.segments.size(), 2u);
  EXPECT_EQ(got.segments[0], (Segment{0, counting(200)}));
}

TEST(HexfileIhx, ConvertsRecordsIntoSegments) {
  // clang-format off
  check_cases(hexfile_convert_ihx, {
      {"segment base 0x1000", ihex(2, 0, {0x10, 0x00}) + ihex(0, 0x0010, {1}),
       1, 8, 1, {{0x10010, {1}}}},
      {"linear record keeps the segment base: both add up",
       ihex(2, 0, {0x10, 0x00}) + ihex(4, 0, {0x00, 0x01}) + ihex(0, 0x0004, {1}),
       1, 8, 1, {{0x20004, {1}}}},
      {"segment record clears the linear base",
       ihex(4, 0, {0x00, 0x01}) + ihex(2, 0, {0x00, 0x01}) + ihex(0, 0, {1}),
       1, 8, 1, {{0x10, {1}}}},
      {"reading goes on after end of file", ihex(0, 0, {1}) + ":00000001FF\n" + ihex(0, 1, {2}),
       1, 8, 1, {{0, {1, 2}}}},
      {"types 1, 3, 5 and 8 are skipped unchecked",
       ":00000001AA\n:0400000300000000AA\n:0400000500000000AA\n:0000000800\n" + ihex(0, 0, {1}),
       1, 8, 1, {{0, {1}}}},
      {"other types are checked and store nothing", ihex(6, 0, {1, 2}) + ihex(0, 4, {3}),
       1, 8, 1, {{4, {3}}}},
      {"lines without a colon are skipped", "; comment\n" + ihex(0, 0, {1}), 1, 8, 1, {{0, {1}}}},
      {"unit 2", ihex(0, 0, {1, 2, 3, 4}) + ihex(0, 2, {5, 6}), 2, 8, 1, {{0, {1, 2, 3, 4, 5, 6}}}},
  });
  // clang-format on
}

TEST(HexfileIhx, RejectsBadRecordsWithResultZero) {
  const std::string good = ihex(0, 0, {1, 2, 3});
  // clang-format off
  check_cases(hexfile_convert_ihx, {
      {"wrong data checksum", good + corrupt_last_digit(ihex(0, 3, {4})), 1, 8, 0, {}},
      {"wrong checksum on an unknown type", corrupt_last_digit(ihex(6, 0, {})) + good, 1, 8, 0, {}},
      {"wrong checksum on a linear base", corrupt_last_digit(ihex(4, 0, {0, 1})) + good,
       1, 8, 0, {}},
      {"truncated line", good + good.substr(0, 9) + "\n", 1, 8, 0, {}},
      {"shorter than its byte count", ":0400000001020304\n", 1, 8, 0, {}},
      {"odd digit count", good.substr(0, good.size() - 1) + "F\n", 1, 8, 0, {}},
      {"non-hex digit", ":03000000010X03F9\n", 1, 8, 0, {}},
      {"linear base of one byte", ihex(4, 0, {8}) + good, 1, 8, 0, {}},
      {"overlong line", good + ":" + std::string(1024, '0') + "\n", 1, 8, 0, {}},
      {"too many segments", good + ihex(0, 0x10, {1}), 1, 1, 0, {}},
  });
  // clang-format on
}

TEST(HexfileTxt, StoresValuesAsUnitBytesMostSignificantFirst) {
  // clang-format off
  check_cases(hexfile_convert_txt, {
      {"unit 2: 0x1234 stores 12 34 and advances one address", "0x0000 0x1234\n0x0001 0x5678\n",
       2, 8, 1, {{0, {0x12, 0x34, 0x56, 0x78}}}},
      {"unit 4", "0x10 0x01020304\n17 0XaBcDeF01\n",
       4, 8, 1, {{0x10, {1, 2, 3, 4, 0xAB, 0xCD, 0xEF, 0x01}}}},
      {"unit 1 keeps the low byte", "0 0x1234\n1 255\n", 1, 8, 1, {{0, {0x34, 0xFF}}}},
      {"decimal fields", "4294967295 4294967295\n",
       4, 8, 1, {{0xFFFFFFFF, {0xFF, 0xFF, 0xFF, 0xFF}}}},
      {"comments, blank lines, extra fields, tabs", "# header\n \n0x8\t 1 trailing words\n9 2\n",
       1, 8, 1, {{8, {1, 2}}}},
      {"gap", "0 1\n2 2\n", 1, 8, 2, {{0, {1}}, {2, {2}}}},
  });
  // clang-format on
}

TEST(HexfileTxt, RejectsBadFieldsWithResultZero) {
  for (const char* line : {"0x12G4 1", "12a 1", "0x 1", "1", "1 -1", "1 +1", "0x100000000 1",
                           "4294967296 1", "1 0x1FFFFFFFF", "x10 1", "1 1e3"}) {
    SCOPED_TRACE(line);
    EXPECT_EQ(run(hexfile_convert_txt, std::string("0 0\n") + line + "\n").result, 0);
  }
}

TEST(HexfileConverters, RejectBadArguments) {
  HEXFILE_SEGMENT segments[2];
  const char text[] = "0 1\n";
  for (Converter convert : {hexfile_convert_s19, hexfile_convert_ihx, hexfile_convert_txt}) {
    EXPECT_EQ(convert(nullptr, 4, segments, 2, 1), 0);
    EXPECT_EQ(convert(text, -1, segments, 2, 1), 0);
    EXPECT_EQ(convert(text, 4, nullptr, 2, 1), 0);
    EXPECT_EQ(convert(text, 4, segments, 2, 0), 0);
    EXPECT_EQ(convert(nullptr, 0, segments, 2, 1), 0);
  }
  EXPECT_EQ(hexfile_convert_txt(text, 4, segments, 2, 1), 1);
  hexfile_free_data(segments, 2);
}

// --- images ---------------------------------------------------------------------------------

// Segments and the bytes they point at; records() hands out the array the calls sort in place.
struct Image {
  std::vector<std::pair<uint32_t, Bytes>> list;
  Image(std::initializer_list<std::pair<uint32_t, Bytes>> l) : list(l) {}
  std::vector<HEXFILE_SEGMENT> records() {
    std::vector<HEXFILE_SEGMENT> out;
    for (auto& [start, bytes] : list)
      out.push_back({start, static_cast<uint32_t>(bytes.size()), bytes.data()});
    return out;
  }
};

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

Bytes read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

std::string temp_path(const char* name) {
  return (std::filesystem::temp_directory_path() /
          ("varnel_hexfile_" + std::to_string(getpid()) + "_" + name))
      .string();
}

TEST(HexfileImage, FillsGapsAndSortsSegments) {
  const Bytes a = counting(16), b = counting(16, 0x80), ff16 = Bytes(16, 0xFF);
  struct ImageCase {
    const char* name;
    Image image;
    int8_t unit;
    Bytes filled;      // gaps as 0xFF, in memory and in a file saved with filling
    size_t first_run;  // what a file saved without filling holds: the first contiguous run
  };
  // clang-format off
  std::vector<ImageCase> cases = {
      {"two segments with a 16-byte gap", {{0, a}, {0x20, b}}, 1, concat({a, ff16, b}), 16},
      {"unsorted input is sorted first", {{0x20, b}, {0x18, {7}}, {0, a}}, 1,
       concat({a, Bytes(8, 0xFF), {7}, Bytes(7, 0xFF), b}), 16},
      {"contiguous segments are one run", {{4, {1, 2}}, {6, {3}}}, 1, {1, 2, 3}, 3},
      {"unit 2: gaps count in 16-bit words", {{0, {1, 2, 3, 4}}, {4, {5, 6}}}, 2,
       {1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 5, 6}, 4},
      {"unit 4", {{0x10, {1, 2, 3, 4}}, {0x12, {5, 6, 7, 8}}}, 4,
       concat({{1, 2, 3, 4}, Bytes(4, 0xFF), {5, 6, 7, 8}}), 4},
      {"empty and unused entries are left out", {{0xFFFFFFFF, {}}, {0, {1}}, {0x3, {}}, {1, {2}}},
       1, {1, 2}, 2},
      {"gap larger than one fill piece", {{0, {1}}, {3001, {2}}}, 1,
       concat({{1}, Bytes(3000, 0xFF), {2}}), 1},
  };
  // clang-format on
  const std::string path = temp_path("image.bin");
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto segments = c.image.records();
    const int n = static_cast<int>(segments.size()), size = static_cast<int>(c.filled.size());
    EXPECT_EQ(VARNEL_hexfile_convert_image_n(nullptr, 0, segments.data(), n, c.unit, 0), size);
    Bytes out(c.filled.size() + 4, 0xEE);
    EXPECT_EQ(hexfile_convert_image(out.data(), segments.data(), n, c.unit, int8_t(0xFF)), size);
    EXPECT_EQ(out, concat({c.filled, Bytes(4, 0xEE)}));  // nothing written past the image
    for (int i = 1; i < n; ++i) EXPECT_LE(segments[i - 1].StartAddr, segments[i].StartAddr);

    EXPECT_EQ(hexfile_save_image(path.c_str(), segments.data(), n, c.unit, 1), size);
    EXPECT_EQ(read_file(path), c.filled);
    EXPECT_EQ(hexfile_save_image(path.c_str(), segments.data(), n, c.unit, 0), int(c.first_run));
    EXPECT_EQ(read_file(path), Bytes(c.filled.begin(), c.filled.begin() + c.first_run));
  }
  std::filesystem::remove(path);
}

TEST(HexfileImage, FillByteIsUsedInMemory) {  // any byte, not only the file's 0xFF
  Image image{{0, {1}}, {2, {2}}};
  auto segments = image.records();
  Bytes out(3);
  EXPECT_EQ(hexfile_convert_image(out.data(), segments.data(), 2, 1, int8_t(0xA5)), 3);
  EXPECT_EQ(out, (Bytes{1, 0xA5, 2}));
}

TEST(HexfileImage, RefusesOverlapsBadArgumentsAndSmallBuffers) {
  const std::string path = temp_path("refused.bin");
  std::filesystem::remove(path);
  Image overlapping_image{{0, {1, 2, 3}}, {2, {4}}};
  auto overlapping = overlapping_image.records();
  Bytes out(16);
  EXPECT_EQ(hexfile_convert_image(out.data(), overlapping.data(), 2, 1, 0), 0);
  EXPECT_EQ(hexfile_save_image(path.c_str(), overlapping.data(), 2, 1, 1), 0);
  EXPECT_FALSE(std::filesystem::exists(path));

  Image image_list{{0, {1, 2}}, {4, {3}}};
  auto image = image_list.records();
  EXPECT_EQ(hexfile_convert_image(out.data(), image.data(), 2, 3, 0), 0);
  EXPECT_EQ(hexfile_convert_image(nullptr, image.data(), 2, 1, 0), 0);
  EXPECT_EQ(hexfile_convert_image(out.data(), image.data(), -1, 1, 0), 0);
  EXPECT_EQ(hexfile_save_image(path.c_str(), image.data(), 2, 0, 1), 0);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(hexfile_save_image("/nonexistent-dir/x.bin", image.data(), 2, 1, 1), -1);

  Bytes buffer(5, 0xEE);
  EXPECT_EQ(VARNEL_hexfile_convert_image_n(buffer.data(), 4, image.data(), 2, 1, 0), -2);
  EXPECT_EQ(buffer, Bytes(5, 0xEE));
  EXPECT_EQ(VARNEL_hexfile_convert_image_n(buffer.data(), 5, image.data(), 2, 1, 0), 5);
  EXPECT_EQ(buffer, (Bytes{1, 2, 0, 0, 3}));

  // 4 GiB of gap: beyond the image bound, refused before writing
  Image huge_image{{0, {1}}, {0xFFFFFFF0, {2}}};
  auto huge = huge_image.records();
  EXPECT_EQ(VARNEL_hexfile_convert_image_n(nullptr, 0, huge.data(), 2, 1, 0), 0);
  EXPECT_EQ(hexfile_save_image(path.c_str(), huge.data(), 2, 1, 0), 1);  // first run only
  std::filesystem::remove(path);
}

// --- files ----------------------------------------------------------------------------------

TEST(HexfileLoad, ReadsWholeFileAndBoundsTheBuffer) {
  const std::string path = temp_path("load.txt");
  const std::string content = "S1060000010203F3\n" + std::string(5000, 'x');
  std::ofstream(path, std::ios::binary) << content;
  std::string buffer(content.size() + 8, '#');
  EXPECT_EQ(hexfile_load_file(path.c_str(), buffer.data()), static_cast<int>(content.size()));
  EXPECT_EQ(buffer, content + std::string(8, '#'));  // no terminator, nothing past the file

  EXPECT_EQ(VARNEL_hexfile_load_file_n(path.c_str(), nullptr, 0), static_cast<int>(content.size()));
  std::string exact(content.size(), '#');
  EXPECT_EQ(VARNEL_hexfile_load_file_n(path.c_str(), exact.data(), exact.size()),
            static_cast<int>(content.size()));
  EXPECT_EQ(exact, content);
  std::string small(content.size() + 1, '#');
  EXPECT_EQ(VARNEL_hexfile_load_file_n(path.c_str(), small.data(), content.size() - 1), -2);
  EXPECT_EQ(small.back(), '#');

  EXPECT_EQ(hexfile_load_file("/nonexistent/file.hex", buffer.data()), -1);
  EXPECT_EQ(VARNEL_hexfile_load_file_n("/nonexistent/file.hex", buffer.data(), 10), -1);
  EXPECT_EQ(hexfile_load_file(std::filesystem::temp_directory_path().c_str(), buffer.data()), -1);
  EXPECT_EQ(hexfile_load_file(nullptr, buffer.data()), -1);
  std::filesystem::remove(path);
}

TEST(HexfileLoad, RefusesFilesAboveTheBoundWithoutTouchingTheBuffer) {
  const std::string path = temp_path("big.bin");
  std::ofstream{path};
  std::filesystem::resize_file(path, VARNEL_HEXFILE_MAX_FILE + 1);  // sparse: costs no disk
  char buffer[16] = {'#'};
  EXPECT_EQ(hexfile_load_file(path.c_str(), buffer), -1);
  EXPECT_EQ(buffer[0], '#');
  std::filesystem::remove(path);
}

// Problems as "count line:kind ..." over the whole array: 1 bad checksum, 2 malformed, 3 overlong,
// 4 bad field; 0:0 where nothing was stored.
TEST(HexfileCheck, ReportsEveryBadLineWithItsNumber) {
  const std::string good = srec(1, 0, {1});
  const std::string s19 = good + corrupt_last_digit(srec(1, 1, {2})) + "\r\n" + "S1030\n" + good +
                          "\r" + std::string(1100, 'S') + "\n" + good;
  const std::string txt = "0 1\nzz 1\n";
  auto check = [](const std::string& text, int format, uint32_t room, bool store = true) {
    VARNEL_HEXFILE_PROBLEM all[4] = {};
    std::string out = std::to_string(VARNEL_hexfile_check(text.data(), int32_t(text.size()), format,
                                                          store ? all : nullptr, room));
    for (const auto& p : all) out += " " + std::to_string(p.Line) + ":" + std::to_string(p.Kind);
    return out;
  };
  EXPECT_EQ(check(s19, VARNEL_HEXFILE_S19, 2), "3 2:1 4:2 0:0 0:0");
  EXPECT_EQ(check(s19, VARNEL_HEXFILE_S19, 4), "3 2:1 4:2 7:3 0:0");
  EXPECT_EQ(check(s19, VARNEL_HEXFILE_S19, 4, false), "3 0:0 0:0 0:0 0:0");  // only counted
  EXPECT_EQ(check(txt, VARNEL_HEXFILE_TXT, 4), "1 2:4 0:0 0:0 0:0");
  EXPECT_EQ(check(txt, 9, 4), "-1 0:0 0:0 0:0 0:0");
}

}  // namespace
