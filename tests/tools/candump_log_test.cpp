// candump log lines as candump -L writes them (can-utils' log format: "(SECONDS.MICROSECONDS)
// INTERFACE FRAME"), read back into time, interface and frame; bad lines say why.
#include "capture/candump_log.h"

#include <gtest/gtest.h>

#include <vector>

#include "frame_fields.h"

namespace {

using namespace varnel_cli::candump_log;

std::string fields(const LogRecord& r) {
  return frame_fields(r.time_us, r.channel, r.frame) + (r.error_frame ? " error" : "");
}

// Id bit 31 extended, bit 30 remote; Flags 0x04 CAN FD, 0x01 the bit-rate switch.
TEST(CandumpLog, ReadsTimeInterfaceAndFrameOfEachForm) {
  const struct {
    const char* line;
    const char* fields;
  } cases[] = {
      {"(1700000000.123456) can0 123#DEADBEEF", "1700000000123456 can0 00000123 00 DEADBEEF"},
      {"(0000000001.000001) vcan1 1ABCDEF0#R", "1000001 vcan1 DABCDEF0 00 "},
      {"(1.5) can0 7FF#", "1500000 can0 000007FF 00 "},  // a short fraction is still a fraction
      {"(2.000000) can1 00000123#11", "2000000 can1 80000123 00 11"},
      {"(3.000000) can0 123##1112233", "3000000 can0 00000123 05 112233"},
      {"(3.000000) can0 18FEF1FE##0AA", "3000000 can0 98FEF1FE 04 AA"},
      {"(4.000000) can0 123#01 T", "4000000 can0 00000123 00 01"},  // newer candumps' direction
      // error flag 0x20000000 with controller problem 0x04: rx warning in byte 1
      {"(5.000000) can0 20000004#0004000000000000",
       "5000000 can0 00000004 00 0004000000000000 error"},
  };
  for (const auto& c : cases) {
    const ParsedLine parsed = parse_line(c.line);
    ASSERT_EQ(parsed.kind, LineKind::kRecord) << c.line << ": " << parsed.why;
    EXPECT_EQ(fields(parsed.record), c.fields) << c.line;
  }
}

TEST(CandumpLog, BadLinesSayWhy) {
  const std::string forms = " (ID#DATA, ID#R or ID##FLAGS+DATA, in hex)";
  const struct {
    const char* line;
    std::string why;
  } cases[] = {
      {"can0 123#11", "expected a time stamp (SECONDS.MICROSECONDS) first, got can0"},
      {"(1.000000)", "no interface name after the time stamp"},
      {"(1.000000) can0", "no frame after the interface name"},
      {"(1.000000) c\x01n0 123#11", "an interface name with unprintable bytes"},
      {"(1.000000) can45678901234567890123456789012 123#11",
       "an interface name longer than 31 characters"},
      {"(1.000000) can0 800#11", "not a frame: 800#11" + forms},
      {"(1.000000) can0 40000123#11", "not a frame: 40000123#11" + forms},  // not candump's flag
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

}  // namespace
