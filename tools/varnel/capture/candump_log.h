// candump's log files, line by line: "(1700000000.123456) can0 123#DEADBEEF" — the host time in
// seconds with six decimals, the interface the frame was seen on and the frame in can-utils
// syntax (123#R remote, 123##1... CAN FD, 8-digit identifiers extended). Error frames carry the
// error flag 0x20000000 in an 8-digit identifier, as candump writes them. Newer candumps may end
// a line with the direction, R or T. Pure text work: the replay, the monitor and the capture
// tools share it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <string_view>

#include "varnel.h"

namespace varnel_cli::candump_log {

struct LogRecord {
  uint64_t time_us = 0;
  std::string channel;
  // The frame as the CAN FD calls take it (bit 31 extended, bit 30 remote, Flags bit 2 CAN FD,
  // bit 0 bit-rate switch). For an error frame: Id holds the error class bits alone.
  CANFD_MSG frame{};
  bool error_frame = false;
};

enum class LineKind { kRecord, kNothing, kBad };

// One line without its line end. Blank lines and lines starting with '#' hold nothing; a bad
// line comes with the reason in `why`.
struct ParsedLine {
  LineKind kind = LineKind::kNothing;
  LogRecord record;
  std::string why;
};
ParsedLine parse_line(std::string_view line);

// candump's name for a log it writes (-l), in local time: candump-2026-11-26_051500.log.
std::string log_file_name();

// Reads records from a stream, counting lines so that a bad one can be named.
class LogReader {
 public:
  explicit LogReader(std::istream& in) : in_(in) {}
  // The next record; false at the end of the stream or at a bad line (error() then says which).
  bool next(LogRecord& record);
  // Why the line at line_number() is bad ("not a frame: 12G#00 (...)"); empty while every line
  // was good.
  const std::string& error() const { return error_; }
  size_t line_number() const { return line_number_; }

 private:
  std::istream& in_;
  std::string line_, error_;
  size_t line_number_ = 0;
};

}  // namespace varnel_cli::candump_log
