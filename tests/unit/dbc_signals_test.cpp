#include "files/dbc_signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <tuple>

#include "files/dbc_codec.h"
#include "varnel.h"

namespace {

using varnel::dbc::parse;
using varnel::dbc::register_database;

uint64_t load(const std::string& text) {
  uint64_t h = register_database(parse(text));
  EXPECT_NE(h, 0u);
  return h;
}

// One message "M" (id 100, DLC 8) holding signal "S" with the given numbers.
uint64_t one_signal(const std::string& numbers, const std::string& extra = "") {
  return load("BO_ 100 M: 8 N\n SG_ S : " + numbers + " \"u\" N\n" + extra);
}

uint64_t& raw_of(uint64_t h, const char* message = "M", const char* signal = "S") {
  return varnel::dbc::database(h)->find_signal(message, signal)->raw_value;
}

// The 8 data bytes of a classic frame as one number, byte 0 the highest.
uint64_t frame_of(uint64_t h, const char* message = "M") {
  CAN_MSG msg;
  EXPECT_EQ(DBC_SyncValueToCANMsg(h, message, &msg), 0);
  uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v = v << 8 | msg.Data[i];
  return v;
}

void feed(uint64_t h, uint32_t id, uint64_t data) {
  CAN_MSG in{};
  in.Id = id;
  for (int i = 0; i < 8; ++i) in.Data[i] = uint8_t(data >> (56 - 8 * i));
  ASSERT_EQ(DBC_SyncCANMsgToValue(h, &in, 1), 0);
}

TEST(DbcCodec, PlacesBitsByByteOrderAndStopsAtDataEnd) {
  const std::tuple<const char*, uint64_t, uint64_t, uint64_t> rows[] = {
      // position, raw value, frame, raw value read back from the frame
      {"0|8@1+", 0xFF, 0xFF00000000000000, 0xFF},
      {"7|16@0+", 0x1234, 0x1234000000000000, 0x1234},
      {"3|12@0+", 0xABC, 0x0ABC000000000000, 0xABC},
      {"4|12@1+", 0xABC, 0xC0AB000000000000, 0xABC},
      {"39|32@0+", 0x11223344, 0x0000000011223344, 0x11223344},
      {"0|64@1+", 0x8877665544332211, 0x1122334455667788, 0x8877665544332211},
      {"7|64@0+", 0x0102030405060708, 0x0102030405060708, 0x0102030405060708},
      {"3|8@0+", 0xA5, 0x0A50000000000000, 0xA5},
      // Intel past the 8 data bytes: the bits that fit are written, nothing beyond.
      {"60|8@1+", 0xFF, 0x00000000000000F0, 0x0F},
      // Motorola from byte 8 (outside a classic frame) down into byte 7: the high byte lands.
      {"63|16@0+", 0xBEEF, 0x00000000000000BE, 0xBE00},
      {"67|16@0+", 0xBEEF, 0, 0},
  };
  for (const auto& [position, raw, frame, read_back] : rows) {
    uint64_t h = one_signal(std::string(position) + " (1,0) [0|0]");
    raw_of(h) = raw;
    EXPECT_EQ(frame_of(h), frame) << position;
    feed(h, 100, frame);
    EXPECT_EQ(raw_of(h), read_back) << position;
  }
}

TEST(DbcCodec, ConvertsBetweenPhysicalAndRaw) {
  struct Row {
    const char* numbers;
    const char* value_type;  // SIG_VALTYPE_ number, or ""
    double set;
    uint64_t raw;  // stored by DBC_SetSignalValue
    double read;   // DBC_GetSignalValue after a frame round trip
  } rows[] = {
      {"0|8@1+ (1,0) [0|255]", "", 255, 255, 255},
      {"0|8@1+ (1,0) [0|255]", "", 256, 255, 255},  // clamped first
      {"0|8@1- (1,0) [-128|127]", "", -1, 0xFF, -1},
      {"0|8@1- (1,0) [-128|127]", "", -128, 0x80, -128},
      {"0|8@1+ (0.5,-10) [0|0]", "", 117.5, 255, 117.5},
      {"0|8@1+ (0.5,0) [0|100]", "", 0.25, 1, 0.5},  // half away from zero
      {"0|8@1- (0.5,0) [-10|10]", "", -0.25, 0xFF, -0.5},
      {"0|8@1+ (0.5,0) [0|100]", "", 0.7, 1, 0.5},
      // Unsigned raw values are not masked when set; a negative result wraps.
      {"0|8@1+ (1,0) [-10|10]", "", -1, ~uint64_t(0), 255},
      {"0|64@1+ (1,0) [0|0]", "", 9223372036854775808.0, uint64_t(1) << 63, 9223372036854775808.0},
      {"0|64@1- (1,0) [-10|10]", "", -2, ~uint64_t(1), -2},  // the sign is bit 63
      // Float value types: the bits of the number; factor and offset do not apply.
      {"0|32@1- (2,7) [0|10]", "1", 1.5, 0x3FC00000, 1.5},
      {"0|64@1- (2,7) [-10|10]", "2", -2.5, 0xC004000000000000, -2.5},
      // A float type on an unsigned signal is read as an integer.
      {"0|32@1+ (1,0) [0|0]", "1", 1069547520, 0x3FC00000, 1069547520},
  };
  for (const Row& r : rows) {
    uint64_t h = one_signal(
        r.numbers,
        *r.value_type ? std::string("SIG_VALTYPE_ 100 S : ") + r.value_type + ";\n" : "");
    const std::string what = std::string(r.numbers) + " set " + std::to_string(r.set);
    ASSERT_EQ(DBC_SetSignalValue(h, "M", "S", r.set), 0) << what;
    EXPECT_EQ(raw_of(h), r.raw) << what;
    feed(h, 100, frame_of(h));
    double v = 0;
    ASSERT_EQ(DBC_GetSignalValue(h, "M", "S", &v), 0);
    EXPECT_DOUBLE_EQ(v, r.read) << what;
  }
  // Reading a stored raw value masks it to the signal and stores it back.
  uint64_t h = one_signal("0|8@1+ (1,0) [-10|10]");
  ASSERT_EQ(DBC_SetSignalValue(h, "M", "S", -1), 0);
  double v = 0;
  ASSERT_EQ(DBC_GetSignalValue(h, "M", "S", &v), 0);
  EXPECT_EQ(v, 255);
  EXPECT_EQ(raw_of(h), 0xFFu);
}

TEST(DbcCodec, WrapsRoundedValuesModulo2To64) {
  const std::pair<double, uint64_t> rows[] = {
      {0.5, 1},
      {-0.5, ~uint64_t(0)},
      {-0.4, 0},
      {2.5, 3},
      {18446744073709549568.0, 18446744073709549568u},
      {18446744073709551616.0, 0},  // 2^64
      {-9223372036854775808.0, uint64_t(1) << 63},
      {-18446744073709549568.0, 2048},
      {std::nan(""), 0},
      {INFINITY, 0},
  };
  for (const auto& [in, out] : rows) EXPECT_EQ(varnel::dbc::wrap_to_u64(in), out) << in;
}

const char* kMultiplexed =
    "BO_ 200 Mux: 8 N\n"
    " SG_ Sel M : 0|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ A m0 : 8|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ B m1 : 8|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ C m1 : 16|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ Plain : 24|8@1+ (1,0) [0|0] \"\" N\n"
    "VAL_ 200 Plain 68 \"Full\" ;\n";

// Setting a multiplexed signal selects it in the next frame; reading gives only the signals the
// last frame synced in selected.
TEST(DbcSignals, MultiplexorFollowsTheLastSignalSetAndTheLastFrameRead) {
  uint64_t h = load(kMultiplexed);
  double v = 0;
  // Nothing synced in yet: the stored payload is zero, so m0 signals are selected.
  EXPECT_EQ(DBC_GetSignalValue(h, "Mux", "A", &v), 0);
  EXPECT_EQ(DBC_GetSignalValue(h, "Mux", "B", &v), -6);
  const std::pair<const char*, double> set[] = {
      {"A", 0x11}, {"B", 0x22}, {"C", 0x33}, {"Plain", 0x44}};
  for (const auto& [signal, value] : set) ASSERT_EQ(DBC_SetSignalValue(h, "Mux", signal, value), 0);
  EXPECT_EQ(frame_of(h, "Mux"), 0x0122334400000000u);
  feed(h, 200, 0x0122334400000000);
  EXPECT_EQ(DBC_GetSignalValue(h, "Mux", "A", &v), -6);
  const std::pair<const char*, double> values[] = {{"B", 0x22}, {"Sel", 1}, {"Plain", 0x44}};
  for (const auto& [signal, value] : values) {
    ASSERT_EQ(DBC_GetSignalValue(h, "Mux", signal, &v), 0) << signal;
    EXPECT_EQ(v, value) << signal;
  }
  EXPECT_EQ(raw_of(h, "Mux", "A"), 0x22u);  // the inactive signal still received its bits

  // A multiplexed signal in a message without a multiplexor is never readable.
  uint64_t lone = load("BO_ 1 L: 8 N\n SG_ X m0 : 0|8@1+ (1,0) [0|0] \"\" N\n");
  EXPECT_EQ(DBC_GetSignalValue(lone, "L", "X", &v), -6);

  // Formatting a frame decodes only what it selects and leaves the stored values alone.
  const uint8_t data[8] = {1, 0x22, 0x33, 0x44};
  char line[256];
  h = load(kMultiplexed);
  EXPECT_EQ(VARNEL_DbcFormatFrame(h, 200, data, 8, line, sizeof line), 37);
  EXPECT_STREQ(line, "Mux(0xC8): Sel=1 B=34 C=51 Plain=Full");
  EXPECT_EQ(VARNEL_DbcFormatFrame(h, 201, data, 8, line, sizeof line), -5);
  EXPECT_EQ(raw_of(h, "Mux", "B"), 0u);
}

TEST(DbcSignals, ValueText) {
  uint64_t h = load(
      "BO_ 100 M: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n"
      " SG_ Speed : 8|8@1+ (0.5,0) [0|0] \"km/h\" N\n"
      " SG_ Neg : 16|8@1- (1.5,0) [-100|100] \"\" N\n"
      "VAL_ 100 S 1 \"On\" 0 \"Off\" ;\nVAL_ 100 Neg -1 \"Minus one\" ;\n");
  const std::tuple<const char*, double, const char*> rows[] = {
      {"S", 1, "On"},
      {"S", 7, "7-123456"},  // the marker of a value without description
      {"Speed", 25, "25.000000 km/h"},
      {"Neg", -1.5, "Minus one"},  // -1.5 truncates toward zero to -1
  };
  for (const auto& [signal, set, want] : rows) {
    ASSERT_EQ(DBC_SetSignalValue(h, "M", signal, set), 0);
    char text[VARNEL_DBC_TEXT_MAX];
    ASSERT_EQ(DBC_GetSignalValueStr(h, "M", signal, text), 0) << signal;
    EXPECT_STREQ(text, want) << signal;
  }
}

TEST(DbcSignals, FrameHeaders) {
  uint64_t h = load(
      "BA_DEF_ BO_ \"VFrameFormat\" ENUM "
      "\"StandardCAN\",\"ExtendedCAN\",\"StandardCAN_FD\",\"ExtendedCAN_FD\";\n"
      "BA_DEF_ BO_ \"CANFD_BRS\" ENUM \"0\",\"1\";\n"
      "BO_ 2364540158 Ext: 8 N\nBO_ 291 Fd: 64 N\n SG_ Last : 504|8@1+ (1,0) [0|0] \"\" N\n"
      "BA_ \"VFrameFormat\" BO_ 291 3;\nBA_ \"CANFD_BRS\" BO_ 291 1;\n");
  CAN_MSG can;
  ASSERT_EQ(DBC_SyncValueToCANMsg(h, "Ext", &can), 0);
  EXPECT_EQ(can.Id, 2364540158u & 0x1FFFFFFFu);
  EXPECT_EQ(can.Extended, 1);
  EXPECT_EQ(can.Flags, 0);
  EXPECT_EQ(can.DataLen, 8);
  EXPECT_EQ(can.TimeStamp, 10u);
  EXPECT_EQ(DBC_GetMsgIDByName(h, "Ext"), int(2364540158u));  // negative to a sign test

  ASSERT_EQ(DBC_SetSignalValue(h, "Fd", "Last", 0xAB), 0);
  CANFD_MSG fd;
  ASSERT_EQ(DBC_SyncValueToCANFDMsg(h, "Fd", &fd), 0);
  EXPECT_EQ(fd.Id, 0x80000123u);
  EXPECT_EQ(fd.DataLen, 64);
  EXPECT_EQ(fd.Flags, 5);
  EXPECT_EQ(fd.TimeStamp, 10u);
  EXPECT_EQ(fd.Data[63], 0xAB);

  // A classic record cannot hold byte 63: the signal is dropped, not written past the record.
  CAN_MSG small[2];
  std::memset(small, 0x5A, sizeof small);
  ASSERT_EQ(DBC_SyncValueToCANMsg(h, "Fd", &small[0]), 0);
  EXPECT_EQ(small[0].TimeStampHigh, 0);
  EXPECT_EQ(small[1].Id, 0x5A5A5A5Au);
}

TEST(DbcSignals, SyncFromFramesMatchesIdentifiersExactly) {
  uint64_t h = load(
      "BO_ 100 Std: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n"
      "BO_ 2147483748 Ext: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n"
      "BO_ 300 Fd: 64 N\n SG_ Sel M : 0|8@1+ (1,0) [0|0] \"\" N\n"
      " SG_ Far m1 : 496|8@1+ (1,0) [0|0] \"\" N\n");
  CAN_MSG recs[3] = {};
  recs[0].Id = recs[1].Id = 100;
  recs[1].Extended = 1;
  recs[0].Data[0] = 1, recs[1].Data[0] = 2;
  recs[2].Id = 555;  // unknown: skipped
  ASSERT_EQ(DBC_SyncCANMsgToValue(h, recs, 3), 0);
  EXPECT_EQ(raw_of(h, "Std"), 1u);
  EXPECT_EQ(raw_of(h, "Ext"), 2u);
  EXPECT_EQ(DBC_SyncCANMsgToValue(h, nullptr, 0), 0);

  // CAN FD: the payload stored for the multiplexor test is DataLen bytes long.
  CANFD_MSG fd{};
  fd.Id = 300;
  fd.Data[0] = 1;
  fd.Data[62] = 0x77;
  double v = 0;
  ASSERT_EQ(DBC_SyncCANFDMsgToValue(h, &fd, 1), 0);
  EXPECT_EQ(DBC_GetSignalValue(h, "Fd", "Far", &v), -6);  // DataLen 0: stored selector still 0
  fd.DataLen = 64;
  ASSERT_EQ(DBC_SyncCANFDMsgToValue(h, &fd, 1), 0);
  ASSERT_EQ(DBC_GetSignalValue(h, "Fd", "Far", &v), 0);
  EXPECT_EQ(v, 0x77);
}

TEST(DbcSignals, LooksUpNamesAndPublishers) {
  uint64_t h = load(
      "BO_ 100 First: 8 Node\n SG_ A : 0|8@1+ (1,0) [0|0] \"\" N\n"
      " SG_ B : 8|8@1+ (1,0) [0|0] \"\" N\nBO_ 2147483848 Second: 8 Other;\n");
  char text[VARNEL_DBC_TEXT_MAX];
  for (uint32_t id : {200u, 0x800000C8u}) {  // with or without the extended flag
    ASSERT_EQ(DBC_GetMsgNameByID(h, id, text), 0);
    EXPECT_STREQ(text, "Second");
  }
  EXPECT_EQ(DBC_GetMsgSignalQuantity(h, "First"), 2);
  ASSERT_EQ(DBC_GetMsgSignalName(h, "First", 1, text), 0);
  EXPECT_STREQ(text, "B");
  ASSERT_EQ(DBC_GetMsgPublisher(h, "First", text), 0);
  EXPECT_STREQ(text, "Node\n");
  ASSERT_EQ(DBC_GetMsgPublisher(h, "Second", text), 0);
  EXPECT_STREQ(text, "Other");
}

TEST(DbcSignals, StatusCodes) {
  uint64_t h = load("BO_ 100 M: 8 N\n SG_ S m1 : 0|8@1+ (1,0) [0|0] \"\" N\n");
  uint64_t empty = load("VERSION \"\"\n");
  const uint64_t bogus = h + 8;  // never issued
  char text[VARNEL_DBC_TEXT_MAX];
  double v;
  CAN_MSG can;
  CANFD_MSG fd;
  const std::tuple<const char*, int, int> rows[] = {
      // call, status, expected
      {"quantity null", DBC_GetMsgQuantity(0), -4},
      {"quantity bogus", DBC_GetMsgQuantity(bogus), -4},
      {"quantity empty", DBC_GetMsgQuantity(empty), 0},
      {"name null out", DBC_GetMsgName(h, 0, nullptr), -4},
      {"name index", DBC_GetMsgName(h, 1, text), -5},
      {"name negative", DBC_GetMsgName(h, -1, text), -5},
      {"name empty db", DBC_GetMsgName(empty, 0, text), -5},
      {"by id missing", DBC_GetMsgNameByID(h, 101, text), -5},
      {"by id null", DBC_GetMsgNameByID(0, 100, text), -4},
      {"id by name missing", DBC_GetMsgIDByName(h, "X"), -5},
      {"id by name null", DBC_GetMsgIDByName(h, nullptr), -4},
      {"signal count", DBC_GetMsgSignalQuantity(h, "X"), -7},
      {"signal count empty", DBC_GetMsgSignalQuantity(empty, "M"), -7},
      {"signal count null name", DBC_GetMsgSignalQuantity(h, nullptr), -7},
      {"signal name index", DBC_GetMsgSignalName(h, "M", 1, text), -5},
      {"signal name msg", DBC_GetMsgSignalName(h, "X", 0, text), -7},
      {"publisher", DBC_GetMsgPublisher(h, "X", text), -7},
      {"set no signal", DBC_SetSignalValue(h, "M", "X", 1), -9},
      {"set no message", DBC_SetSignalValue(h, "X", "S", 1), -9},
      {"set null", DBC_SetSignalValue(0, "M", "S", 1), -4},
      {"get no signal", DBC_GetSignalValue(h, "M", "X", &v), -9},
      {"get null signal name", DBC_GetSignalValue(h, "M", nullptr, &v), -9},
      {"get null message name", DBC_GetSignalValue(h, nullptr, "S", &v), -9},
      {"get unselected", DBC_GetSignalValue(h, "M", "S", &v), -6},
      {"get str unselected", DBC_GetSignalValueStr(h, "M", "S", text), -6},
      {"sync null", DBC_SyncCANMsgToValue(0, &can, 1), -4},
      {"sync fd null", DBC_SyncCANFDMsgToValue(0, &fd, 1), -4},
      {"sync negative count", DBC_SyncCANMsgToValue(h, &can, -3), 0},
      {"to can missing", DBC_SyncValueToCANMsg(h, "X", &can), -7},
      {"to fd missing", DBC_SyncValueToCANFDMsg(h, "X", &fd), -7},
      {"to fd null", DBC_SyncValueToCANFDMsg(0, "M", &fd), -4},
  };
  for (const auto& [call, got, want] : rows) EXPECT_EQ(got, want) << call;
}

TEST(DbcSignals, ParserFileNeedsAnOpenDeviceAndAParsableFile) {
  const std::string file = std::string(VARNEL_TEST_DATA) + "/dbc/opendbc__comma_body.dbc";
  const std::string truncated = testing::TempDir() + "/truncated.dbc";
  FILE* f = fopen(truncated.c_str(), "w");
  ASSERT_NE(f, nullptr);
  fputs("VERSION \"\"\nBO_ 100 M: 8\n", f);
  fclose(f);
  EXPECT_EQ(DBC_ParserFile(0x12345678u, file.c_str()), 0u);  // no such device
  EXPECT_EQ(DBC_ParserFile(0xFF000000u, "/nonexistent.dbc"), 0u);
  EXPECT_EQ(DBC_ParserFile(0xFF000000u, truncated.c_str()), 0u);
  // A handle with top byte 0xFF names device index 0 directly; every load is a new database.
  const uint64_t a = DBC_ParserFile(0xFF000000u, file.c_str());
  ASSERT_NE(a, 0u);
  EXPECT_NE(DBC_ParserFile(0xFF000000u, file.c_str()), a);
  EXPECT_GT(DBC_GetMsgQuantity(a), 0);
}

}  // namespace
