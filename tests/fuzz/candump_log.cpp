// libFuzzer target: arbitrary bytes as a candump log. Every line is read without a crash; what a
// good line gives holds together (a frame length the format allows, an interface name without
// blanks) and, written again as candump writes it, reads back to the same record.
#include "capture/candump_log.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>

#include "src/can/can_text.h"

namespace {

using namespace varnel_cli::candump_log;

void check(bool holds) {
  if (!holds) __builtin_trap();
}

void judge(const LogRecord& r) {
  const bool fd = r.frame.Flags & 0x04;
  check(r.frame.DataLen <= (fd ? 64 : 8));
  check(!r.channel.empty() && r.channel.find_first_of(" \t\r\n") == std::string::npos);
  if (r.error_frame) return;
  const std::string again = varnel::can_text::candump_log_line(r.channel, r.frame, r.time_us);
  const ParsedLine back = parse_line(again);
  check(back.kind == LineKind::kRecord);
  check(back.record.time_us == r.time_us && back.record.channel == r.channel);
  check(back.record.frame.Id == r.frame.Id && back.record.frame.Flags == r.frame.Flags);
  if (r.frame.Id & 0x40000000u) return;  // the log writes a remote frame's length as nothing
  check(back.record.frame.DataLen == r.frame.DataLen);
  check(std::memcmp(back.record.frame.Data, r.frame.Data, r.frame.DataLen) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream log(std::string(reinterpret_cast<const char*>(data), size));
  LogReader reader(log);
  LogRecord record;
  while (reader.next(record)) judge(record);
  check(reader.error().empty() || reader.line_number() > 0);
  return 0;
}
