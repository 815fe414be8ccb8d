// The standard reading and the whole-frame calls, on a file written for them; expected values
// worked out by hand from the signal definitions.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "varnel.h"

namespace {

const std::string kFile = std::string(VARNEL_TEST_DATA) + "/dbc-standard/standard_reading.dbc";
constexpr uint32_t kFloats = 0x100, kWide = 0x101, kCounters = 0x102, kMuxed = 0x80000103;

struct Decoded {
  int result;
  std::vector<double> values;
  std::vector<uint8_t> selected;
};

Decoded decode(DBC_HANDLE db, uint32_t id, std::vector<uint8_t> frame) {
  Decoded d{0, std::vector<double>(8, -1), std::vector<uint8_t>(8, 9)};
  d.result = VARNEL_DbcDecodeFrame(db, id, frame.data(), int(frame.size()), d.values.data(),
                                   d.selected.data(), 8);
  return d;
}

TEST(DbcStandardReading, DecodesWhatTheOriginalReadingGetsWrong) {
  const DBC_HANDLE standard = VARNEL_DbcLoadFileEx(kFile.c_str(), VARNEL_DBC_STANDARD);
  const DBC_HANDLE legacy = VARNEL_DbcLoadFileEx(kFile.c_str(), 0);
  ASSERT_NE(standard, 0u);
  ASSERT_NE(legacy, 0u);
  // Temp: IEEE single 21.5 = 0x41AC0000 on an unsigned signal; Pressure: 0x41200000 = 10.0 on a
  // signed one, then * 0.5 + 10.
  const std::vector<uint8_t> floats{0x00, 0x00, 0xAC, 0x41, 0x00, 0x00, 0x20, 0x41};
  Decoded d = decode(standard, kFloats, floats);
  EXPECT_EQ(d.result, 2);
  EXPECT_EQ(d.values[0], 21.5);
  EXPECT_EQ(d.values[1], 15.0);
  d = decode(legacy, kFloats, floats);
  EXPECT_EQ(d.values[0], double(0x41AC0000u));  // the original reading: an integer
  EXPECT_EQ(d.values[1], 10.0);                 // and unscaled float on the signed one

  // Energy: Motorola IEEE double 1.0 = 3FF0000000000000, most significant byte first.
  d = decode(standard, kWide, {0x3F, 0xF0, 0, 0, 0, 0, 0, 0});
  EXPECT_EQ(d.values[0], 1.0);

  // Signed0 (tab-separated line): 0xFB = -5, + 5 -> 0; Negative: 4 * -0.5; Gear 2;
  // Motorola 12-bit signed from bit 31 down: byte 3 = 0x80, byte 4 high nibble 0x1 -> 0x801 =
  // -2047 * 0.1.
  d = decode(standard, kCounters, {0xFB, 0x04, 0x02, 0x80, 0x10, 0, 0, 0});
  EXPECT_EQ(d.result, 4);
  EXPECT_EQ(std::vector<double>(d.values.begin(), d.values.begin() + 4),
            (std::vector<double>{0.0, -2.0, 2.0, -2047 * 0.1}));
  EXPECT_EQ(decode(legacy, kCounters, {0xFB, 0x04, 0x02, 0x80, 0x10, 0, 0, 0}).result, 3);

  char line[256];
  VARNEL_DbcFormatFrame(standard, kCounters, std::vector<uint8_t>(8, 0).data(), 8, line, 256);
  EXPECT_STREQ(line, "Counters(0x102): Signed0=5 Negative=0 Gear=\"Park position\" Motorola=0");
  EXPECT_EQ(VARNEL_DbcFormatFrame(standard, kCounters, floats.data(), 7, line, 256), -6);
  EXPECT_EQ(decode(standard, kCounters, {1, 2, 3}).result, -6);  // shorter than its 8 bytes
  EXPECT_EQ(decode(legacy, kCounters, {1, 2, 3}).result, 3);     // zeros beyond the frame
}

// Mux (bits 0-3) selects SubMux at 1 and D at 2..4; SubMux (bits 4-7) selects C at 2, 3, 5.
TEST(DbcStandardReading, ExtendedMultiplexingFollowsTheSwitchChain) {
  const DBC_HANDLE db = VARNEL_DbcLoadFileEx(kFile.c_str(), VARNEL_DBC_STANDARD);
  struct Case {
    uint8_t byte0;
    std::vector<uint8_t> selected;  // Mux SubMux C D Plain
  } cases[] = {{0x21, {1, 1, 1, 0, 1}}, {0x51, {1, 1, 1, 0, 1}}, {0x41, {1, 1, 0, 0, 1}},
               {0x22, {1, 0, 0, 1, 1}}, {0x24, {1, 0, 0, 1, 1}}, {0x25, {1, 0, 0, 0, 1}}};
  for (const auto& c : cases) {
    Decoded d = decode(db, kMuxed, {c.byte0, 0x33, 0x44, 0x55, 0, 0, 0, 9});
    ASSERT_EQ(d.result, 5);
    EXPECT_EQ(std::vector<uint8_t>(d.selected.begin(), d.selected.begin() + 5), c.selected)
        << int(c.byte0);
    if (c.selected[2]) {
      EXPECT_EQ(d.values[2], 0x5544);
    }
    if (!c.selected[3]) {
      EXPECT_TRUE(std::isnan(d.values[3]));
    }
  }
}

TEST(DbcStandardReading, EncodeRefusesOutOfRangeUnlessClamping) {
  const DBC_HANDLE db = VARNEL_DbcLoadFileEx(kFile.c_str(), VARNEL_DBC_STANDARD);
  const double nan = std::nan("");
  struct Case {
    uint32_t id;
    std::vector<double> values;
    uint32_t flags;
    int result;
    std::vector<uint8_t> frame;
  } cases[] = {
      // Signed0 -3: raw -8 = F8; [0|0] is no range, so -3 is taken; Gear 2
      {kCounters, {-3, nan, 2, nan}, 0, 8, {0xF8, 0, 2, 0, 0, 0, 0, 0}},
      {kCounters, {nan, nan, 16, nan}, 0, -8, {}},  // Gear is [0|15]
      {kCounters, {nan, nan, 16, nan}, VARNEL_DBC_CLAMP, 8, {0, 0, 15, 0, 0, 0, 0, 0}},
      {kCounters, {nan, nan, nan, -204.8}, 0, 8, {0, 0, 0, 0x80, 0, 0, 0, 0}},  // raw 0x800
      {kFloats, {21.5, 1000}, 0, 8, {0, 0, 0xAC, 0x41, 0, 0x80, 0xF7, 0x44}},   // (1000-10)/0.5f
      // SubMux 2 is written only because Mux 1 selects it; C follows SubMux
      {kMuxed, {1, 2, 0x1234, nan, nan}, 0, 8, {0x21, 0, 0x34, 0x12, 0, 0, 0, 0}},
      {kMuxed, {2, nan, nan, 7, nan}, 0, 8, {0x02, 7, 0, 0, 0, 0, 0, 0}},
      {kMuxed, {2, 2, 0x1234, 7, nan}, 0, -6, {}},  // Mux 2 selects neither SubMux nor C
  };
  for (const auto& c : cases) {
    std::vector<uint8_t> frame(64, 0xEE);
    EXPECT_EQ(VARNEL_DbcEncodeFrame(db, c.id, c.values.data(), int(c.values.size()), c.flags,
                                    frame.data(), 64),
              c.result);
    if (c.result > 0) {
      EXPECT_EQ(std::vector<uint8_t>(frame.begin(), frame.begin() + 8), c.frame) << c.id;
      EXPECT_EQ(frame[8], 0xEE);  // nothing past the message's length
    }
  }
}

TEST(DbcStandardReading, BadArgumentsGetTheirCodes) {
  const DBC_HANDLE db = VARNEL_DbcLoadFileEx(kFile.c_str(), VARNEL_DBC_STANDARD);
  double v[4];
  uint8_t frame[8] = {};
  EXPECT_EQ(VARNEL_DbcLoadFileEx(kFile.c_str(), 2), 0u);  // an unknown option
  EXPECT_EQ(VARNEL_DbcLoadFileEx(nullptr, VARNEL_DBC_STANDARD), 0u);
  EXPECT_EQ(VARNEL_DbcDecodeFrame(db + 8, kFloats, frame, 8, v, nullptr, 4), -4);
  EXPECT_EQ(VARNEL_DbcDecodeFrame(db, 0x7FF, frame, 8, v, nullptr, 4), -5);
  EXPECT_EQ(VARNEL_DbcDecodeFrame(db, kFloats, nullptr, 8, v, nullptr, 4), -7);
  EXPECT_EQ(VARNEL_DbcDecodeFrame(db, kFloats, frame, 8, nullptr, nullptr, 4), -7);
  EXPECT_EQ(VARNEL_DbcDecodeFrame(db, kFloats, frame, 8, v, nullptr, 1), 2);  // count, one written
  EXPECT_EQ(VARNEL_DbcEncodeFrame(db, kFloats, v, 0, 0, frame, 7), -7);       // 8 bytes needed
  EXPECT_EQ(VARNEL_DbcEncodeFrame(db, kFloats, v, 0, 4, frame, 8), -7);
  EXPECT_EQ(VARNEL_DbcEncodeFrame(db, kFloats, nullptr, 2, 0, frame, 8), -7);
}

}  // namespace
