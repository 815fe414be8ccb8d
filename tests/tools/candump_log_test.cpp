// candump log lines as candump -L writes them (can-utils' log format: "(SECONDS.MICROSECONDS)
// INTERFACE FRAME"), read back into time, interface and frame; bad lines say why.
#include "capture/candump_log.h"

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

namespace {

using namespace varnel_cli::candump_log;

constexpr uint32_t kExtended = 0x80000000, kRemote = 0x40000000;

TEST(CandumpLog, ReadsTimeInterfaceAndFrameOfEachForm) {
  struct Case {
    const char* line;
    uint64_t time_us;
    const char* channel;
    uint32_t id;
    uint8_t flags;
    std::vector<uint8_t> data;
    bool error_frame = false;
  } cases[] = {
      {"(1700000000.123456) can0 123#DEADBEEF",
       1700000000123456,
       "can0",
       0x123,
       0,
       {0xDE, 0xAD, 0xBE, 0xEF}},
      {"(0000000001.000001) vcan1 1ABCDEF0#R",
       1000001,
       "vcan1",
       0x1ABCDEF0 | kExtended | kRemote,
       0,
       {}},
      {"(1.5) can0 7FF#", 1500000, "can0", 0x7FF, 0, {}},  // a short fraction is still a fraction
      {"(2.000000) can1 00000123#11", 2000000, "can1", 0x123 | kExtended, 0, {0x11}},
      // CAN FD: the flags nibble, 1 the bit-rate switch (0x04 FD, 0x01 BRS in the record)
      {"(3.000000) can0 123##1112233", 3000000, "can0", 0x123, 0x05, {0x11, 0x22, 0x33}},
      {"(3.000000) can0 18FEF1FE##0AA", 3000000, "can0", 0x18FEF1FE | kExtended, 0x04, {0xAA}},
      // newer candumps end with the direction
      {"(4.000000) can0 123#01 T", 4000000, "can0", 0x123, 0, {0x01}},
      // error flag 0x20000000 with controller problem 0x04: rx warning in byte 1
      {"(5.000000) can0 20000004#0004000000000000",
       5000000,
       "can0",
       0x04,
       0,
       {0, 0x04, 0, 0, 0, 0, 0, 0},
       true},
  };
  for (const auto& c : cases) {
    const ParsedLine parsed = parse_line(c.line);
    ASSERT_EQ(parsed.kind, LineKind::kRecord) << c.line << ": " << parsed.why;
    const LogRecord& r = parsed.record;
    EXPECT_EQ(r.time_us, c.time_us) << c.line;
    EXPECT_EQ(r.channel, c.channel) << c.line;
    EXPECT_EQ(r.frame.Id, c.id) << c.line;
    EXPECT_EQ(r.frame.Flags, c.flags) << c.line;
    EXPECT_EQ(std::vector<uint8_t>(r.frame.Data, r.frame.Data + r.frame.DataLen), c.data) << c.line;
    EXPECT_EQ(r.error_frame, c.error_frame) << c.line;
  }
}

TEST(CandumpLog, BadLinesSayWhy) {
  struct Case {
    const char* line;
    const char* why;
  } cases[] = {
      {"can0 123#11", "expected a time stamp (SECONDS.MICROSECONDS) first, got can0"},
      {"(17000x0000.000000) can0 123#11",
       "expected a time stamp (SECONDS.MICROSECONDS) first, got (17000x0000.000000)"},
      {"(1.000000)", "no interface name after the time stamp"},
      {"(1.000000) can0", "no frame after the interface name"},
      {"(1.000000) c\x01n0 123#11", "an interface name with unprintable bytes"},
      {"(1.000000) can45678901234567890123456789012 123#11",
       "an interface name longer than 31 characters"},
      {"(1.000000) can0 800#11", "not a frame: 800#11 (ID#DATA, ID#R or ID##FLAGS+DATA, in hex)"},
      {"(1.000000) can0 123#112", "not a frame: 123#112 (ID#DATA, ID#R or ID##FLAGS+DATA, in hex)"},
      {"(1.000000) can0 123##1"
       "00112233445566778899",  // 10 bytes: no CAN FD length
       "not a frame: 123##100112233445566778899 (ID#DATA, ID#R or ID##FLAGS+DATA, in hex)"},
      {"(1.000000) can0 40000123#11",  // a flag candump never writes
       "not a frame: 40000123#11 (ID#DATA, ID#R or ID##FLAGS+DATA, in hex)"},
      {"(1.000000) can0 123###80112233",
       "a CAN XL frame: 123###80112233 (CAN and CAN FD frames only)"},
      {"(1.000000) can0 123#11 X", "unexpected X after the frame"},
  };
  for (const auto& c : cases) {
    const ParsedLine parsed = parse_line(c.line);
    EXPECT_EQ(parsed.kind, LineKind::kBad) << c.line;
    EXPECT_EQ(parsed.why, c.why) << c.line;
  }
}

// Blank lines and comments hold nothing; the reader stops at the first bad line and names it.
TEST(CandumpLog, ReaderNamesTheLineThatIsBad) {
  std::istringstream log(
      "# from candump -L\n"
      "(1.000000) can0 123#11\r\n"
      "\n"
      "(1.000100) can1 456#R\n"
      "(1.000200) can0 12G#00\n"
      "(1.000300) can0 123#22\n");
  LogReader reader(log);
  LogRecord r;
  std::vector<std::string> read;
  while (reader.next(r)) read.push_back(r.channel + " " + std::to_string(r.time_us));
  EXPECT_EQ(read, (std::vector<std::string>{"can0 1000000", "can1 1000100"}));
  EXPECT_EQ(reader.line_number(), 5u);
  EXPECT_EQ(reader.error(), "not a frame: 12G#00 (ID#DATA, ID#R or ID##FLAGS+DATA, in hex)");
  EXPECT_FALSE(reader.next(r)) << "it stays stopped";
}

}  // namespace
