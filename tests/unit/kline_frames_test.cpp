// KWP2000 responses read byte by byte: where the formats the wire cases do not reach end, and the
// longest response in the record, and no more than the frame in a K record. Checksums and request
// frames are checked on the wire.
#include "lin/kline_frames.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <vector>

using namespace varnel::kline;
using Bytes = std::vector<uint8_t>;

namespace {

// Feeds one byte at a time; returns after how many bytes the frame was complete (0: never).
size_t complete_after(ResponseReader& reader, const Bytes& bytes) {
  for (size_t i = 0; i < bytes.size(); ++i) {
    reader.feed({&bytes[i], 1});
    if (reader.complete()) return i + 1;
  }
  return 0;
}

}  // namespace

TEST(KlineFrames, ResponsesEndWhereTheirFormatSays) {
  struct Row {
    bool k_call;
    Bytes bytes;  // the frame, then one stray byte that must not count
    size_t length;
    uint8_t len, sid;
  } rows[] = {
      // address mode 1 has no addresses either
      {false, {0x41, 0x7E, 0xBF, 0xAA}, 3, 1, 0x7E},
      // the K_ calls read addresses whatever Fmt says
      {true, {0x01, 0xF1, 0x10, 0x7E, 0x80, 0xAA}, 5, 1, 0x7E},
      // addresses and a length byte
      {true, {0x80, 0xF1, 0x10, 0x01, 0x7E, 0x00, 0xAA}, 6, 1, 0x7E},
  };
  for (const Row& row : rows) {
    ResponseReader reader(row.k_call);
    EXPECT_EQ(complete_after(reader, row.bytes), row.length) << int(row.bytes[0]);
    reader.feed(row.bytes);  // more after the end changes nothing
    EXPECT_EQ(reader.length(), row.len);
    EXPECT_EQ(reader.at(reader.header_size()), row.sid);
    EXPECT_EQ(reader.sum(), reader.received_checksum()) << int(row.bytes[0]);
  }
}

TEST(KlineFrames, TheLongestResponseFillsTheRecordWithoutOverrun) {
  // 80 F1 10 FF, SID 61, 254 data bytes, CS: 260 bytes
  Bytes frame = {0x80, 0xF1, 0x10, 0xFF, 0x61};
  for (int i = 0; i < 254; ++i) frame.push_back(uint8_t(i));
  const auto sum = uint8_t(std::accumulate(frame.begin(), frame.end(), 0u));
  frame.push_back(sum);
  ResponseReader reader(false);
  ASSERT_EQ(complete_after(reader, frame), 260u);
  KWP_MSG m{};
  m.Status = 0x55;
  fill_record(reader, m);
  EXPECT_EQ(m.Len, 255);
  EXPECT_EQ(m.SID, 0x61);
  EXPECT_EQ(m.Data[253], 253) << "254 data bytes fill Data; the checksum has no room left";
  EXPECT_EQ(m.CheckSum, sum);
  EXPECT_EQ(m.Status, 0x55) << "fields before Fmt are not the reader's";
}

TEST(KlineFrames, KRecordsKeepTheReceivedChecksumAfterTheData) {
  const Bytes frame = {0x82, 0xF1, 0x10, 0x7F, 0x11, 0x00};  // checksum wrong on purpose
  ResponseReader reader(true);
  reader.feed(frame);
  ASSERT_TRUE(reader.complete());
  K_MSG m{};
  std::fill(std::begin(m.Data), std::end(m.Data), 0xEE);
  fill_record(reader, m);
  EXPECT_EQ(Bytes(m.Data, m.Data + 3), (Bytes{0x11, 0x00, 0xEE})) << "nothing after the frame";
  EXPECT_EQ(m.CheckSum, 0x13);  // 82+F1+10+7F+11 = 213
  EXPECT_NE(m.CheckSum, reader.received_checksum());
}
