// Pure CAN pieces: frame bit lengths, the CAN FD init and device records, record conversions
// and the bounded queue.
#include "can/can_records.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "core/bytes.h"
#include "core/ring_queue.h"
#include "varnel.h"

using namespace varnel::can;
using varnel::RingQueue;

namespace {

CAN_MSG classic(uint32_t id, uint8_t extended, std::vector<uint8_t> data, uint8_t flags = 0) {
  CAN_MSG msg{};
  msg.Id = id;
  msg.Extended = extended;
  msg.Flags = flags;
  msg.DataLen = uint8_t(data.size());
  if (!data.empty()) std::memcpy(msg.Data, data.data(), std::min<size_t>(data.size(), 8));
  return msg;
}

std::vector<uint8_t> words(std::initializer_list<uint32_t> list, std::vector<uint8_t> data = {}) {
  std::vector<uint8_t> out;
  for (uint32_t w : list) {
    uint8_t b[4];
    varnel::put_be32(b, w);
    out.insert(out.end(), b, b + 4);
  }
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

}  // namespace

TEST(CanFrameLength, AllDominantFrameGetsAStuffBitAfterEveryFiveBits) {
  // 19 zero bits up to the data and a zero CRC: 34 equal bits take 6 stuff bits, plus 10
  const CAN_MSG zero = classic(0, 0, {});
  EXPECT_EQ(frame_bit_length(zero), 50);
  EXPECT_EQ(CAN_GetMsgSendTimeUs(&zero, 500000), 100);
  EXPECT_EQ(CAN_GetMsgSendTimeUs(&zero, 1000000), 50);
  EXPECT_EQ(CAN_GetMsgSendTimeUs(nullptr, 500000), 0);
}

TEST(CanFrameLength, StaysWithinTheUnstuffedAndWorstCaseBounds) {
  struct Case {
    CAN_MSG msg;
    int min, max;  // unstuffed length + 10, and the worst case with every possible stuff bit
  } cases[] = {
      {classic(0x7FF, 0, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), 108, 132},
      {classic(0x123, 0, {0xAA, 0x55, 0xAA, 0x55}), 76, 92},
      {classic(0x1ABCDEF0, 1, {1, 2, 3, 4, 5, 6, 7, 8}), 128, 157},
      {classic(0x800, 0, {}), 64, 77},                           // forced to a 29-bit identifier
      {classic(0x123, 0, {1, 2, 3, 4, 5, 6, 7, 8}, 1), 44, 54},  // remote: no data bits
  };
  for (auto& c : cases) {
    const int bits = frame_bit_length(c.msg);
    EXPECT_GE(bits, c.min) << std::hex << c.msg.Id;
    EXPECT_LE(bits, c.max) << std::hex << c.msg.Id;
  }
  EXPECT_GT(frame_bit_length(classic(0, 0, {0, 0, 0, 0, 0, 0, 0, 0})),
            frame_bit_length(classic(0, 0, {0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55})));
}

// Rates a table lacks are refused: can_bitrate_test.cpp.
TEST(CanBitRates, CanFdRecordFromBothTables) {
  struct Case {
    uint32_t handle, nominal, data;
    uint8_t bytes[13];
  } cases[] = {
      {0x55000011, 500000, 2000000, {0, 1, 3, 1, 20, 11, 4, 2, 4, 15, 4, 2, 0}},
      {0x55000011, 500000, 8000000, {0, 1, 3, 1, 20, 11, 4, 2, 1, 14, 5, 2, 5}},
      {0x53000010, 1000000, 5000000, {0, 1, 3, 1, 2, 14, 5, 2, 1, 5, 2, 2, 0}},
      // classic-only table: prescaler low byte only (1000 wraps to 0xE8), data rate ignored
      {0x57000000, 5000, 12345, {0, 1, 1, 1, 0xE8, 16, 3, 1, 0, 0, 0, 0, 0}},
      {0x45000000, 125000, 0, {0, 1, 1, 1, 21, 11, 4, 2, 0, 0, 0, 0, 0}},
  };
  for (auto& c : cases) {
    CANFD_INIT_CONFIG config;
    std::memset(&config, 0xAA, sizeof config);
    ASSERT_EQ(CANFD_GetCANSpeedArg(c.handle, &config, c.nominal, c.data), 0) << c.nominal;
    std::vector<uint8_t> got(reinterpret_cast<uint8_t*>(&config),
                             reinterpret_cast<uint8_t*>(&config) + 20);
    std::vector<uint8_t> want(c.bytes, c.bytes + 13);
    want.resize(20, 0);
    EXPECT_EQ(got, want) << std::hex << c.handle;
  }
}

TEST(CanFdRecords, LengthCodesRoundUpToTheNextSize) {
  const uint8_t codes[65] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  9,  9,  9,  10, 10, 10, 10,
                             11, 11, 11, 11, 12, 12, 12, 12, 13, 13, 13, 13, 13, 13, 13, 13, 14,
                             14, 14, 14, 14, 14, 14, 14, 14, 14, 14, 14, 14, 14, 14, 14, 15, 15,
                             15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15, 15};
  for (int len = 0; len <= 64; ++len) EXPECT_EQ(fd_length_code(uint8_t(len)), codes[len]) << len;
  EXPECT_EQ(fd_code_length(11), 20);
  EXPECT_EQ(fd_code_length(13), 32);
  EXPECT_EQ(fd_code_length(15), 64);
}

TEST(CanFdRecords, EncodesIdentifierLayoutAndControlWord) {
  CANFD_MSG msg{};
  msg.Id = 0x80000000u | 0x12345678u;  // extended; identifier bits 0-28 = 0x12345678
  msg.DataLen = 20;
  msg.Flags = 0x07;
  msg.TimeStamp = 0x01020304;
  for (int i = 0; i < 20; ++i) msg.Data[i] = uint8_t(i);
  uint8_t out[76];
  ASSERT_EQ(encode_fd_record(msg, 5, out), 32u);
  const uint32_t id = 0x12345678u;
  EXPECT_EQ(varnel::get_be32(out), ((id >> 18) & 0x7FF) | ((id & 0x3FFFF) << 11));
  EXPECT_EQ(varnel::get_be32(out + 4), 11u | 1u << 4 | 1u << 6 | 1u << 7 | 1u << 8 | 5u << 9);
  EXPECT_EQ(varnel::get_be32(out + 8), 0x01020304u);
  EXPECT_EQ(out[12 + 19], 19);

  CANFD_MSG standard{};
  standard.Id = 0x40000000u | 0x7FF;  // remote
  standard.DataLen = 3;
  ASSERT_EQ(encode_fd_record(standard, 0, out), 15u);
  EXPECT_EQ(varnel::get_be32(out), 0x7FFu);
  EXPECT_EQ(varnel::get_be32(out + 4), 3u | 1u << 5);

  CANFD_MSG wide{};
  wide.Id = 0x800;  // over 11 bits without bit 31: goes out extended
  encode_fd_record(wide, 0, out);
  EXPECT_EQ(varnel::get_be32(out + 4) & (1u << 4), 1u << 4);
}

TEST(CanFdRecords, DecodesLengthsEventsEchoesAndStopsAtCutRecords) {
  std::vector<uint8_t> bytes = words({0x123, 13u | 0x42u << 16, 777}, std::vector<uint8_t>(32, 9));
  auto event = words({0xFFFFFFFFu, 0x55u << 25 | 0x07u << 16, 4242}, {1, 2, 3, 4, 5, 6, 7, 8});
  bytes.insert(bytes.end(), event.begin(), event.end());
  // an extended echo: word-1 bit 24, index 3, bits 6 and 8 -> Flags 0 and 1
  auto echo = words({(0x1ABCDEF0u >> 18) | ((0x1ABCDEF0u & 0x3FFFF) << 11),
                     2u | 1u << 4 | 1u << 6 | 1u << 8 | 3u << 9 | 1u << 24, 5},
                    {0xAA, 0xBB});
  bytes.insert(bytes.end(), echo.begin(), echo.end());
  auto cut = words({0x10, 8, 0}, {1, 2, 3});  // announces 8 bytes, carries 3
  bytes.insert(bytes.end(), cut.begin(), cut.end());

  CANFD_MSG out[8];
  ASSERT_EQ(decode_fd_records(bytes, 1, out, 8), 3u);
  EXPECT_EQ(out[0].Id, 0x123u);
  EXPECT_EQ(out[0].DataLen, 32);
  EXPECT_EQ(out[0].TimeStamp, 777u);
  EXPECT_EQ(out[0].TimeStampHigh, 0x42);
  EXPECT_EQ(out[0].Flags, 0x20);  // channel 1
  EXPECT_EQ(out[1].Id, VARNEL_CANFD_EVENT_ID);
  EXPECT_EQ(out[1].TimeStamp, 4242u);
  EXPECT_EQ(out[1].TimeStampHigh, 7);
  EXPECT_EQ(out[1].Data[7], 8);
  EXPECT_EQ(out[2].Id, 0x80000000u | 0x1ABCDEF0u);
  EXPECT_EQ(out[2].Flags, 0x80 | 0x20 | 0x03);
  EXPECT_EQ(out[2].DataLen, 2);

  EXPECT_EQ(decode_fd_records({bytes.data(), 11}, 0, out, 8), 0u);  // shorter than a header
  EXPECT_EQ(decode_fd_records(bytes, 0, out, 1), 1u);               // bounded by the caller
}

TEST(CanFdRecords, RoundTripThroughTheDeviceFormat) {
  const uint32_t ids[] = {0, 0x7FF, 0x80000000u | 0x800, 0x80000000u | 0x1FFFFFFF, 0x40000123};
  for (uint32_t id : ids)
    for (uint8_t len : {0, 8, 12, 64}) {
      CANFD_MSG msg{};
      msg.Id = id;
      msg.DataLen = len;
      msg.Flags = len > 8 ? 0x04 : 0;
      for (int i = 0; i < len; ++i) msg.Data[i] = uint8_t(i * 7);
      uint8_t bytes[76];
      const size_t size = encode_fd_record(msg, 0, bytes);
      CANFD_MSG back{};
      ASSERT_EQ(decode_fd_records({bytes, size}, 0, &back, 1), 1u);
      EXPECT_EQ(back.Id, id) << std::hex << id;
      EXPECT_EQ(back.DataLen, len);
      EXPECT_EQ(back.Flags, msg.Flags);
      EXPECT_EQ(std::memcmp(back.Data, msg.Data, len), 0);
    }
}

TEST(CanConversions, TimeStampsScaleByTenAcross40Bits) {
  CANFD_MSG fd{};
  fd.Id = 0x80000000u | 0x40000000u | 0x1234567;
  fd.DataLen = 12;
  fd.Flags = 0x20 | 0x80;
  fd.TimeStampHigh = 0x12;
  fd.TimeStamp = 0x3456789A;
  const CAN_MSG msg = to_can(fd);
  const uint64_t fd_stamp = (uint64_t(0x12) << 32) | 0x3456789A;
  EXPECT_EQ((uint64_t(msg.TimeStampHigh) << 32) | msg.TimeStamp, fd_stamp / 10);
  EXPECT_EQ(msg.Id, 0x1234567u);
  EXPECT_EQ(msg.Extended, 1);
  EXPECT_EQ(msg.Flags, 0x80 | 0x20 | 0x01);
  EXPECT_EQ(msg.DataLen, 8);

  const CANFD_MSG again = to_canfd(msg);
  EXPECT_EQ((uint64_t(again.TimeStampHigh) << 32) | again.TimeStamp, fd_stamp / 10 * 10);
  EXPECT_EQ(again.Id, fd.Id);
}

TEST(CanQueue, DropsOldestAcrossTheWrapAndCountsThem) {
  RingQueue<int> queue(5);
  const int first[] = {1, 2, 3, 4};
  queue.append(first, 4);
  int out[8];
  ASSERT_EQ(queue.take(out, 3), 3u);  // head moves to slot 3
  const int more[] = {5, 6, 7, 8, 9, 10};
  queue.append(more, 6);  // 4..10 do not fit: 4 and 5 go
  EXPECT_EQ(queue.dropped(), 2u);
  ASSERT_EQ(queue.take(out, 8), 5u);
  EXPECT_EQ(std::vector<int>(out, out + 5), (std::vector<int>{6, 7, 8, 9, 10}));
  const int flood[] = {1, 2, 3, 4, 5, 6, 7};
  queue.append(flood, 7);  // more than the whole queue at once
  EXPECT_EQ(queue.dropped(), 4u);
  ASSERT_EQ(queue.take(out, 8), 5u);
  EXPECT_EQ(out[0], 3);
}
