// Frames as text in the can-utils forms, written from their definition: cansend's
// <id>#{data}, <id>#R{len} and <id>##<flags>{data}, where an identifier of 3 hex digits is
// 11-bit and one of 8 is 29-bit, data are 0-8 (CAN FD: 0-64) hex bytes with optional dots, and
// candump's screen and log (-L) lines.
#include "can/can_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace varnel::can_text;
using Bytes = std::vector<uint8_t>;

namespace {
std::string hex_bytes(int count) {
  std::string text;
  for (int i = 0; i < count; ++i)
    text += "0123456789ABCDEF"[i / 16 % 16], text += "0123456789ABCDEF"[i % 16];
  return text;
}
}  // namespace

TEST(CanText, ParsesCansendSyntax) {
  struct Case {
    std::string text;
    uint32_t id;  // bit 31 extended, bit 30 remote
    uint8_t len, flags;
    Bytes data;
  } cases[] = {
      {"123#DEADBEEF", 0x123, 4, 0, {0xDE, 0xAD, 0xBE, 0xEF}},
      {"7ff#de.ad.be.ef", 0x7FF, 4, 0, {0xDE, 0xAD, 0xBE, 0xEF}},
      {"000#", 0, 0, 0, {}},
      {"12345678#", 0x92345678, 0, 0, {}},
      {"00000123#11", 0x80000123, 1, 0, {0x11}},
      {"1FFFFFFF#0102030405060708", 0x9FFFFFFF, 8, 0, {1, 2, 3, 4, 5, 6, 7, 8}},
      {"123#R", 0x40000123, 0, 0, {}},
      {"123#r8", 0x40000123, 8, 0, {}},
      {"1ABCDEF0#R3", 0xDABCDEF0, 3, 0, {}},
      {"123##1" + hex_bytes(12), 0x123, 12, 0x05, {0x00, 0x01, 0x02}},
      {"123##0", 0x123, 0, 0x04, {}},
      {"12345678##0" + hex_bytes(64), 0x92345678, 64, 0x04, {0x00, 0x01}},
  };
  for (auto& c : cases) {
    auto msg = parse_frame(c.text);
    ASSERT_TRUE(msg) << c.text;
    EXPECT_EQ(msg->Id, c.id) << c.text;
    EXPECT_EQ(msg->DataLen, c.len) << c.text;
    EXPECT_EQ(msg->Flags, c.flags) << c.text;
    EXPECT_EQ(Bytes(msg->Data, msg->Data + c.data.size()), c.data) << c.text;
  }
}

TEST(CanText, RefusesWhatCansendWouldNotSend) {
  const std::string bad[] = {
      "",        "123",     "#00",       "G23#00",     "123#1G",
      "123#ABC", "800#00",  "20000000#", "123456789#", "123#112233445566778899",
      "123#R9",  "123#R12", "123##",     "123##G",     "123##0" + hex_bytes(65)};
  for (auto& text : bad) EXPECT_FALSE(parse_frame(text)) << text;
}

// A candump log line carries the frame back in cansend syntax.
TEST(CanText, CandumpLinesShowTheFrame) {
  struct Case {
    std::string frame;
    uint64_t host_us;
    std::string log, screen;  // screen empty: not compared
  } cases[] = {
      {"123#DEADBEEF", 1700000000123456ull, "(1700000000.123456) can0 123#DEADBEEF",
       "  can0  123   [4]  DE AD BE EF"},
      {"12345678#0102", 5, "(0.000005) can0 12345678#0102", "  can0  12345678   [2]  01 02"},
      {"1ABCDEF0#R", 0, "(0.000000) can0 1ABCDEF0#R", "  can0  1ABCDEF0   [0]  remote request"},
      {"123#", 999999, "(0.999999) can0 123#", ""},
      {"123##1" + hex_bytes(12), 1000000, "(1.000000) can0 123##1" + hex_bytes(12), ""},
      {"7FF##0" + hex_bytes(64), 0, "(0.000000) can0 7FF##0" + hex_bytes(64), ""},
  };
  for (auto& c : cases) {
    auto msg = parse_frame(c.frame);
    ASSERT_TRUE(msg) << c.frame;
    EXPECT_EQ(candump_log_line("can0", *msg, c.host_us), c.log);
    if (!c.screen.empty()) {
      EXPECT_EQ(candump_line("can0", *msg), c.screen);
    }
  }
}

// A CAN FD length code says 0-8, 12, 16, 20, 24, 32, 48 or 64 bytes; nothing between.
TEST(CanText, CanFdDataTakesOnlyTheLengthsALengthCodeCanSay) {
  const std::vector<int> sizes = {12, 16, 20, 24, 32, 48, 64};
  for (int len = 0; len <= 64; ++len) {
    const bool valid = len <= 8 || std::count(sizes.begin(), sizes.end(), len);
    auto msg = parse_frame("123##1" + hex_bytes(len));
    EXPECT_EQ(bool(msg), valid) << len;
    if (msg) {
      EXPECT_EQ(msg->DataLen, len);
    }
  }
}

// The screen line gives CAN FD lengths in two digits; a record claiming more than 64 bytes
// shows 64.
TEST(CanText, LinesOfCanFdRecordsStayWithinTheRecord) {
  CANFD_MSG msg{};
  msg.Id = 0x123;
  msg.Flags = 0x04;
  for (uint8_t len : {8, 10, 64}) {
    msg.DataLen = len;
    const std::string bracket = len < 10 ? "[08]" : "[" + std::to_string(len) + "]";
    EXPECT_NE(candump_line("can0", msg).find(bracket), std::string::npos) << int(len);
  }
  msg.DataLen = 200;
  EXPECT_EQ(candump_log_line("can0", msg, 0), "(0.000000) can0 123##0" + std::string(128, '0'));
  EXPECT_EQ(candump_line("can0", msg).size(), candump_line("can0", msg).find(']') + 2 + 64 * 3);
}
