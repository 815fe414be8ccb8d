// The virtual K-line unit on its own, with device times made up here: what the cases through the
// library cannot show (late pin commands, wrong or late key bytes, the idle before a pulse, the
// unit's own timing, the forms and services they do not ask for). Its answers to the services
// the library's cases use are checked there, end to end.
#include "sim/ecu/kline_ecu.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint64_t kMs = 1000;

struct Heard {
  uint8_t byte;
  uint64_t at_us;
};

class KlineEcuTest : public ::testing::Test {
 protected:
  std::vector<Heard> sent;
  sim::KLineEcu ecu{[this](uint8_t b, uint64_t t) { sent.push_back({b, t}); }};

  Bytes sent_bytes() const {
    Bytes out;
    for (auto& h : sent) out.push_back(h.byte);
    return out;
  }
  // The tester's pattern: idle 300 ms, start bit, eight bits, stop bit; `late_us` added to every
  // pin command after the first, as a busy host would.
  uint64_t five_baud(uint8_t address, uint64_t t, uint64_t late_us = 0) {
    ecu.line_level(false, t);  // the pin made an output shows its latch, low
    ecu.line_level(true, t + 5);
    t += 300 * kMs;
    ecu.line_level(false, t);
    for (int bit = 0; bit < 8; ++bit) {
      t += 200 * kMs + late_us;
      ecu.line_level((address >> bit) & 1, t);
    }
    t += 200 * kMs + late_us;
    ecu.line_level(true, t);
    return t;
  }
  uint64_t fast_init(uint64_t t) {
    ecu.line_level(true, t);
    ecu.line_level(false, t + 300 * kMs);
    ecu.line_level(true, t + 325 * kMs);
    return t + 350 * kMs;
  }
  // Sends a frame byte by byte, 1 ms apart; returns the time of its last byte.
  uint64_t tester(const Bytes& frame, uint64_t t) {
    for (uint8_t b : frame) ecu.tester_byte(b, t += kMs);
    return t;
  }
  static Bytes framed(Bytes head, const Bytes& message) {
    head.insert(head.end(), message.begin(), message.end());
    unsigned sum = 0;
    for (uint8_t b : head) sum += b;
    head.push_back(uint8_t(sum));
    return head;
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
    sent.clear();
    const uint64_t stop = five_baud(row.address, t, row.late_us);
    EXPECT_EQ(ecu.heard_address(), row.address) << int(row.address);
    if (!row.answers) {
      EXPECT_TRUE(sent.empty()) << int(row.address);
      t = stop + 5000 * kMs;
      continue;
    }
    ASSERT_EQ(sent_bytes(), (Bytes{0x55, 0x08, 0x08})) << int(row.address);
    EXPECT_GE(sent[0].at_us, stop + 20 * kMs) << "W1 after the stop bit";
    ecu.tester_byte(0xF7, sent[2].at_us + 35 * kMs);
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_EQ(sent[3].byte, uint8_t(~row.address));
    EXPECT_EQ(ecu.state(), sim::KLineEcu::State::kAwake);
    t = sent[3].at_us + 5000 * kMs;
  }
}

TEST_F(KlineEcuTest, AWrongOrLateInvertedKeyByteLeavesTheUnitAsleep) {
  for (auto [byte, after_kb2_us] :
       {std::pair<uint8_t, uint64_t>{0x08, 40 * kMs}, {0xF7, 400 * kMs}}) {
    sent.clear();
    five_baud(0x33, 10'000 * kMs * (byte == 0x08 ? 1 : 2));
    ASSERT_EQ(sent.size(), 3u);
    ecu.tester_byte(byte, sent[2].at_us + after_kb2_us);
    EXPECT_EQ(sent.size(), 3u);
    EXPECT_EQ(ecu.state(), sim::KLineEcu::State::kAsleep);
  }
}

TEST_F(KlineEcuTest, FastInitWantsStartCommunicationFirstThenAnswersServices) {
  ecu.line_level(false, 0);  // the pin made an output: its latch, low, with no idle before
  ecu.line_level(true, 30 * kMs);
  EXPECT_EQ(ecu.state(), sim::KLineEcu::State::kAsleep);
  ecu.line_level(false, 50 * kMs);  // high for only 20 ms: not idle
  ecu.line_level(true, 75 * kMs);
  EXPECT_EQ(ecu.state(), sim::KLineEcu::State::kAsleep);
  uint64_t t = fast_init(100 * kMs);
  EXPECT_EQ(ecu.state(), sim::KLineEcu::State::kFastWoken);
  t = tester(framed({0x82, 0x10, 0xF1}, {0x1A, 0x90}), t);
  EXPECT_TRUE(sent.empty()) << "nothing before StartCommunication";
  const uint64_t end = tester(framed({0x81, 0x10, 0xF1}, {0x81}), t + 100 * kMs);
  // 83 F1 10 C1 EF 8F, sum 3C3
  ASSERT_EQ(sent_bytes(), (Bytes{0x83, 0xF1, 0x10, 0xC1, 0xEF, 0x8F, 0xC3}));
  EXPECT_EQ(sent[0].at_us, end + 40 * kMs + 961) << "P2, then one byte time at 10400 baud";
  // a service the unit lacks, a request too short, no answer wanted
  for (auto [request, answer] : {std::pair<Bytes, Bytes>{{0x22, 0x01}, {0x7F, 0x22, 0x11}},
                                 {{0x21}, {0x7F, 0x21, 0x12}},
                                 {{0x3E, 0x02}, {}}}) {
    sent.clear();
    t = tester(framed({uint8_t(0x80 | request.size()), 0x10, 0xF1}, request), t + 1000 * kMs);
    EXPECT_EQ(sent_bytes(), answer.empty()
                                ? Bytes{}
                                : framed({uint8_t(0x80 | answer.size()), 0xF1, 0x10}, answer))
        << int(request[0]);
  }
}

TEST_F(KlineEcuTest, AnswersTakeTheRequestsFormAndPendingComesFirst) {
  uint64_t t = tester(framed({0x01}, {0x81}), fast_init(0));
  ASSERT_EQ(sent_bytes(), framed({0x03}, {0xC1, 0xEF, 0x8F})) << "no addresses asked, none given";
  sent.clear();
  t = tester(framed({0x02}, {0x21, 0x02}), t + 1000 * kMs);
  Bytes expected = framed({0x03}, {0x7F, 0x21, 0x78});
  const Bytes final_answer = framed({0x06}, {0x61, 0x02, 0x01, 0x02, 0x03, 0x04});
  expected.insert(expected.end(), final_answer.begin(), final_answer.end());
  ASSERT_EQ(sent_bytes(), expected);
  EXPECT_GE(sent[5].at_us - sent[4].at_us, 200 * kMs) << "the answer comes well after pending";
  sent.clear();
  tester(framed({0x02}, {0x21, 0x10}), t + 1000 * kMs);
  ASSERT_EQ(sent.size(), 1u + 1 + 102 + 1) << "Fmt, length byte, 61 10 + 100 bytes, checksum";
  EXPECT_EQ(sent[0].byte, 0x00);
  EXPECT_EQ(sent[1].byte, 102);
}

TEST_F(KlineEcuTest, RequestsWithABadChecksumOrAnotherTargetAreIgnored) {
  uint64_t t = tester(framed({0x81, 0x10, 0xF1}, {0x81}), fast_init(0));
  sent.clear();
  Bytes bad = framed({0x81, 0x10, 0xF1}, {0x3E});
  bad.back() ^= 1;
  t = tester(bad, t + 1000 * kMs);
  t = tester(framed({0x81, 0x22, 0xF1}, {0x3E}), t + 1000 * kMs);
  EXPECT_TRUE(sent.empty());
  tester(framed({0x81, 0x33, 0xF1}, {0x3E}), t + 1000 * kMs);
  EXPECT_EQ(sent_bytes(), framed({0x81, 0xF1, 0x10}, {0x7E})) << "the functional address is heard";
}

}  // namespace
