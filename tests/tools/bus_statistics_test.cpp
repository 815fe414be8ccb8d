#include "can/bus_statistics.h"

#include <gtest/gtest.h>

#include <random>

namespace varnel_cli {
namespace {

BusFrame classic(uint32_t id, bool extended, std::vector<uint8_t>& data) {
  return BusFrame{id, extended, false, false, false, uint8_t(data.size()), data};
}

// CRC-15/CAN's check value from the CRC catalogue: the bits of "123456789" give 0x059E.
TEST(BusStatistics, CrcOfTheCatalogueCheckString) {
  std::vector<uint8_t> bits;
  for (char c : std::string("123456789"))
    for (int i = 7; i >= 0; --i) bits.push_back(uint8_t(c >> i & 1));
  EXPECT_EQ(can_crc15(bits), 0x059Eu);
}

// Hand counts. Classic frames: 47 bits (standard) or 67 (extended) besides the data; the worst
// case adds one stuff bit per four bits after the first of SOF..CRC (135 and 160 bits for eight
// bytes, the textbook figures). An all-zero standard frame with no data: 34 zero bits with a CRC
// of 0, stuffed after the 5th, 10th, ... 30th: 34 + 6 + 13. CAN FD, standard identifier 0, no
// data: 22 bits to the DLC, 3 dynamic stuff bits in 14 and 7 zeros (2 before ESI, 1 after), the
// stuff count and CRC-17 with 6 fixed stuff bits (27) and 13 trailing bits; with the bit-rate
// switch the run of five zeros at the end gets no dynamic stuff bit, so ESI..CRC are 5 + 27.
TEST(BusStatistics, FrameLengthsMatchHandCounts) {
  std::vector<uint8_t> none, eight(8, 0xFF);
  struct Row {
    BusFrame frame;
    Stuffing stuffing;
    uint32_t nominal, data_phase;
  } rows[] = {
      {classic(0, false, none), Stuffing::kExact, 53, 0},
      {classic(0, false, none), Stuffing::kNone, 47, 0},
      {classic(0, false, none), Stuffing::kWorstCase, 55, 0},
      {classic(0x7FF, false, eight), Stuffing::kNone, 111, 0},
      {classic(0x7FF, false, eight), Stuffing::kWorstCase, 135, 0},
      {classic(0x1FFFFFFF, true, eight), Stuffing::kNone, 131, 0},
      {classic(0x1FFFFFFF, true, eight), Stuffing::kWorstCase, 160, 0},
      {BusFrame{0, false, false, true, false, 0, {}}, Stuffing::kExact, 65, 0},
      {BusFrame{0, false, false, true, true, 0, {}}, Stuffing::kExact, 32, 32},
  };
  for (const Row& row : rows) {
    const FrameBits bits = frame_bits(row.frame, row.stuffing);
    EXPECT_EQ(bits.nominal, row.nominal) << std::hex << row.frame.id << " " << int(row.stuffing);
    EXPECT_EQ(bits.data_phase, row.data_phase) << std::hex << row.frame.id;
  }
  // 32 bits at 500 kbit/s and 32 at 2 Mbit/s: 64 + 16 us.
  EXPECT_DOUBLE_EQ(frame_seconds({32, 32}, 500000, 2000000), 80e-6);
}

TEST(BusStatistics, ExactStuffingLiesBetweenNoneAndTheWorstCase) {
  std::mt19937 random(7);
  static constexpr uint8_t kLengths[] = {0, 1, 5, 8, 12, 16, 20, 32, 64};
  for (int i = 0; i < 2000; ++i) {
    std::vector<uint8_t> data(64);
    for (auto& b : data) b = uint8_t(random() % 4 == 0 ? 0 : random());  // zero runs happen
    const bool fd = i % 2;
    const uint8_t length = fd ? kLengths[random() % 9] : uint8_t(random() % 9);
    const bool extended = random() % 2;
    const uint32_t id = uint32_t(random()) & (extended ? 0x1FFFFFFFu : 0x7FFu);
    const BusFrame f{id, extended, false, fd, false, length, std::span(data).first(length)};
    const uint32_t none = frame_bits(f, Stuffing::kNone).total();
    const uint32_t exact = frame_bits(f, Stuffing::kExact).total();
    ASSERT_LE(none, exact) << i;
    ASSERT_LE(exact, frame_bits(f, Stuffing::kWorstCase).total()) << i;
  }
}

// 500 frames of 111 bits (no stuffing) in a second at 500 kbit/s keep the bus 11.1% busy; half
// a second later the first half has left the window; the window keeps at most its bound.
TEST(BusStatistics, LoadCountsTheWindowOnly) {
  std::vector<uint8_t> eight(8, 0x55);
  BusLoad load(500000, 0, 1000000, Stuffing::kNone, 400);
  for (uint64_t k = 0; k < 500; ++k) load.add(classic(0x123, false, eight), k * 2000);
  BusLoad::Figures f = load.figures(999999);
  EXPECT_EQ(f.frames, 400u);
  EXPECT_EQ(f.frames_forgotten, 100u);
  EXPECT_NEAR(f.load_percent, 400 * 111 * 100.0 / 500000, 1e-9);
  f = load.figures(1501999);  // the window is 502000..1501999 us: 502000 is in it
  EXPECT_EQ(f.frames, 249u);
  EXPECT_EQ(f.bits, 249u * 111);
  EXPECT_EQ(f.payload_bits, 249u * 64);
  BusLoad one(500000);
  one.add(classic(0x123, false, eight), 0);
  EXPECT_EQ(one.figures(999999).frames, 1u);
  EXPECT_EQ(one.figures(1000000).frames, 0u) << "a window of 1 s ends before 0 at 1000000 us";
}

// Intervals of 8 and 12 ms: a period of 10 ms with 2 ms of jitter (their standard deviation);
// the bytes that differ from the frame before are marked.
TEST(BusStatistics, PeriodJitterAndChangedBytesPerIdentifier) {
  IdStatistics stats;
  std::vector<uint8_t> a{1, 2, 3}, b{1, 9, 3};
  stats.add(classic(0x10, false, a), 0);
  stats.add(classic(0x10, false, a), 8000);
  stats.add(classic(0x10, false, b), 20000);
  stats.add(classic(0x10, true, a), 20000);
  ASSERT_EQ(stats.entries().size(), 2u);  // 0x10 and extended 0x00000010 are two identifiers
  const auto& e = stats.entries().at(0x10);
  EXPECT_EQ(e.count, 3u);
  EXPECT_DOUBLE_EQ(e.period_us, 10000);
  EXPECT_DOUBLE_EQ(e.jitter_us, 2000);
  EXPECT_EQ(e.changed, (std::vector<bool>{false, true, false}));
}

}  // namespace
}  // namespace varnel_cli
