// The monitor's LIN, UART and K-line views without adapters: KWP2000 frames cut out of a K-line's
// bytes, and what an update carries of each family within its bounds.
#include "monitor/family_view.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>

#include "monitor/kline_framer.h"

namespace varnel_cli::monitor {
namespace {

// The frame with its checksum (sum of the bytes modulo 256) appended, or `bad` added to it.
std::vector<uint8_t> kwp(std::vector<uint8_t> bytes, uint8_t bad = 0) {
  bytes.push_back(uint8_t(std::accumulate(bytes.begin(), bytes.end(), 0) + bad));
  return bytes;
}

TEST(KlineFramer, CutsFramesByTheirFormatByteAcrossReads) {
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
    size_t split;  // the bytes come in two reads
    bool ok;
  };
  const Case cases[] = {
      {"addresses, length in Fmt", kwp({0x81, 0x10, 0xF1, 0x3E}), 2, true},
      {"addresses, length byte", kwp({0x80, 0x10, 0xF1, 0x02, 0x21, 0x01}), 3, true},
      {"no addresses", kwp({0x02, 0x1A, 0x90}), 1, true},
      {"bad checksum", kwp({0x83, 0xF1, 0x10, 0x7E, 0x01, 0x02}, 1), 5, false},
  };
  for (const Case& c : cases) {
    KlineFramer framer;
    std::vector<KlineFrame> out;
    std::vector<uint8_t> stream = c.bytes;
    stream.insert(stream.end(), {0x02, 0x1A});  // and the start of the next frame
    framer.add(stream.data(), c.split, 1000, out);
    EXPECT_TRUE(out.empty()) << c.what;
    framer.add(stream.data() + c.split, stream.size() - c.split, 2000, out);
    ASSERT_EQ(out.size(), 1u) << c.what;
    EXPECT_EQ(out[0].bytes, c.bytes) << c.what;
    EXPECT_EQ(out[0].checksum_ok, c.ok) << c.what;
    EXPECT_EQ(out[0].at_us, 1000u) << c.what;
    framer.idle(2000 + 99999, out);  // quiet, but not long enough
    EXPECT_EQ(out.size(), 1u) << c.what;
    framer.idle(2000 + 100000, out);
    ASSERT_EQ(out.size(), 2u) << c.what;
    EXPECT_FALSE(out[1].complete) << c.what;
    EXPECT_EQ(out[1].bytes, (std::vector<uint8_t>{0x02, 0x1A})) << c.what;
  }
}

LIN_EX_MSG lin_frame(uint8_t pid, uint8_t data, uint8_t check, uint8_t verdict) {
  LIN_EX_MSG m{};
  m.PID = pid;
  m.DataLen = 1;
  m.Data[0] = data;
  m.Check = check;
  m.CheckType = verdict;
  return m;
}

TEST(FamilyView, UpdateCarriesTheNewestRowsAndBytesAndCountsThoseLeftOut) {
  FamilyView view({{Family::kLin, "lin0", 1, 0, 19200}, {Family::kUart, "uart1", 1, 1, 9600}}, 2,
                  4);
  FamilyBatch batch;
  batch.lin = {{0, 10, lin_frame(0x61, 0x11, 0x8C, LIN_EX_CHECK_EXT)},
               {0, 20, lin_frame(0xE2, 0x22, 0xAA, LIN_EX_CHECK_ERROR)},
               {0, 30, lin_frame(0xA3, 0x33, 0x0B, LIN_EX_CHECK_STD)}};
  batch.uart = {{1, 15, {'a', 'b', 'c'}}, {1, 25, {'d', 'e', 'f'}}};
  view.add(batch);
  const std::string delta = view.json(false);
  EXPECT_NE(delta.find(R"("channels":[{"name":"lin0","family":"lin","baud":19200,"count":3,)"
                       R"("errors":1,"skipped":1},{"name":"uart1","family":"uart","baud":9600,)"
                       R"("count":6,"errors":0,"skipped":2}])"),
            std::string::npos)
      << delta;
  EXPECT_NE(delta.find(R"("lin":[{"ch":0,"t":20,"id":"22","pid":"E2","data":"22","check":"AA",)"
                       R"("verdict":"bad"},{"ch":0,"t":30,"id":"23","pid":"A3","data":"33",)"
                       R"("check":"0B","verdict":"classic"}])"),
            std::string::npos)
      << delta;
  EXPECT_NE(delta.find(R"("uart":[{"ch":1,"t":15,"hex":"63646566"}])"), std::string::npos) << delta;
  view.end_interval();
  const std::string quiet = view.json(false), full = view.json(true);
  EXPECT_NE(quiet.find(R"("lin":[],"kline":[],"uart":[]})"), std::string::npos) << quiet;
  EXPECT_NE(full.find(R"({"ch":0,"t":30,"id":"23")"), std::string::npos) << full;
  EXPECT_NE(full.find(R"("hex":"63646566")"), std::string::npos) << full;
  batch.uart.clear();
  batch.lin.resize(2);  // as many rows as an update carries, after one was carried: none skipped
  view.add(batch);
  const std::string next = view.json(false);
  EXPECT_NE(next.find(R"("count":5,"errors":2,"skipped":1})"), std::string::npos) << next;
}

}  // namespace
}  // namespace varnel_cli::monitor
