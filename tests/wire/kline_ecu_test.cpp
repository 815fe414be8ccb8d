// The virtual K-line unit on its own, with device times made up here: what the cases through the
// library cannot show (late pin commands, the idle before a pulse, the unit's own timing, the
// forms and services they do not ask for). Its answers to the services the library's cases use
// are checked there, end to end.
#include "sim/ecu/kline_ecu.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint64_t kMs = 1000;

// Fmt and addresses (if any), the message, and the sum of all of them.
Bytes framed(Bytes head, const Bytes& message) {
  head.insert(head.end(), message.begin(), message.end());
  unsigned sum = 0;
  for (uint8_t b : head) sum += b;
  head.push_back(uint8_t(sum));
  return head;
}

class KlineEcuTest : public ::testing::Test {
 protected:
  Bytes sent;
  std::vector<uint64_t> sent_at;
  sim::KLineEcu ecu{[this](uint8_t b, uint64_t t) { sent.push_back(b), sent_at.push_back(t); }};

  void forget_sent() { sent.clear(), sent_at.clear(); }
  // The tester's pattern: idle 300 ms, start bit, eight bits, stop bit; `late_us` added to every
  // pin command after the first, as a busy host would. Returns the stop bit's time.
  uint64_t five_baud(uint8_t address, uint64_t t, uint64_t late_us) {
    ecu.line_level(false, t);  // the pin made an output shows its latch, low
    ecu.line_level(true, t + 5);
    ecu.line_level(false, t += 300 * kMs);
    for (int bit = 0; bit < 8; ++bit)
      ecu.line_level((address >> bit) & 1, t += 200 * kMs + late_us);
    ecu.line_level(true, t += 200 * kMs + late_us);
    return t;
  }
  // Sends a frame byte by byte, 1 ms apart; returns the time of its last byte.
  uint64_t tester(const Bytes& frame, uint64_t t) {
    for (uint8_t b : frame) ecu.tester_byte(b, t += kMs);
    return t;
  }
};

TEST_F(KlineEcuTest, FiveBaudAddressesAreReadFromTheLevelsWhateverTheHostsDelay) {
  struct Row {
    uint8_t address;
    uint64_t late_us;
    bool answers;
  } rows[] = {{0x33, 0, true},  {0x10, 3 * kMs, true}, {0x33, 10 * kMs, true}, {0x11, 0, false},
              {0xFF, 0, false}, {0x00, 0, false},      {0xCC, 10 * kMs, false}};
  uint64_t t = 0;
  for (const Row& row : rows) {
    forget_sent();
    const uint64_t stop = five_baud(row.address, t, row.late_us);
    EXPECT_EQ(ecu.heard_address(), row.address) << int(row.address);
    t = stop + 5000 * kMs;
    if (!row.answers) {
      EXPECT_TRUE(sent.empty()) << int(row.address);
      continue;
    }
    ASSERT_EQ(sent, (Bytes{0x55, 0x08, 0x08})) << int(row.address);
    EXPECT_GE(sent_at[0], stop + 20 * kMs) << "W1 after the stop bit";
    ecu.tester_byte(0xF7, sent_at[2] + 35 * kMs);
    EXPECT_EQ(sent, (Bytes{0x55, 0x08, 0x08, uint8_t(~row.address)}));
    EXPECT_EQ(ecu.state(), sim::KLineEcu::State::kAwake);
    t = sent_at.back() + 5000 * kMs;
  }
}

// After a fast init: nothing before StartCommunication, answers P2 after a request, a corrupt
// request ignored, "response pending" well before the answer. (The answers' bytes are checked
// through the library.)
TEST_F(KlineEcuTest, FastInitWakesItForStartCommunicationOnlyAndItKeepsItsTimes) {
  ecu.line_level(false, 0);  // the pin made an output: its latch, low, with no idle before
  ecu.line_level(true, 30 * kMs);
  ecu.line_level(false, 50 * kMs);  // high for only 20 ms: not idle
  ecu.line_level(true, 75 * kMs);
  EXPECT_EQ(ecu.state(), sim::KLineEcu::State::kAsleep);
  ecu.line_level(false, 400 * kMs);
  ecu.line_level(true, 425 * kMs);
  EXPECT_EQ(ecu.state(), sim::KLineEcu::State::kFastWoken);
  const Bytes head = {0x82, 0x10, 0xF1};
  uint64_t t = tester(framed(head, {0x1A, 0x90}), 500 * kMs);
  EXPECT_TRUE(sent.empty()) << "nothing before StartCommunication";
  t = tester(framed({0x81, 0x10, 0xF1}, {0x81}), t + 1000 * kMs);
  EXPECT_EQ(sent, framed({0x83, 0xF1, 0x10}, {0xC1, 0xEF, 0x8F}));
  EXPECT_EQ(sent_at[0], t + 40 * kMs + 961) << "P2, then one byte time at 10400 baud";
  forget_sent();
  Bytes corrupt = framed(head, {0x21, 0x01});
  corrupt.back() ^= 1;
  t = tester(corrupt, t + 1000 * kMs);
  EXPECT_TRUE(sent.empty()) << "a bad checksum is ignored";
  tester(framed(head, {0x21, 0x02}), t + 1000 * kMs);
  ASSERT_EQ(sent.size(), 7u + 10u) << "83 F1 10 7F 21 78 CS, then 86 F1 10 61 02 01 02 03 04 CS";
  EXPECT_GE(sent_at[7] - sent_at[6], 200 * kMs) << "the answer comes well after pending";
}

}  // namespace
