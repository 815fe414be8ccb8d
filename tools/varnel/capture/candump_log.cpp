#include "capture/candump_log.h"

#include <ctime>
#include <optional>

#include "src/can/can_text.h"

namespace varnel_cli::candump_log {
namespace {

constexpr uint32_t kErrorFlag = 0x20000000;  // SocketCAN's CAN_ERR_FLAG in the identifier
constexpr size_t kMaxInterfaceName = 31;
constexpr const char* kFrameForms = "ID#DATA, ID#R or ID##FLAGS+DATA, in hex";

bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// The next word of `rest`, which moves past it; empty at the end.
std::string_view next_word(std::string_view& rest) {
  size_t start = 0;
  while (start < rest.size() && is_space(rest[start])) ++start;
  size_t end = start;
  while (end < rest.size() && !is_space(rest[end])) ++end;
  const std::string_view word = rest.substr(start, end - start);
  rest.remove_prefix(end);
  return word;
}

std::optional<uint64_t> decimal(std::string_view digits, size_t max_digits) {
  if (digits.empty() || digits.size() > max_digits) return std::nullopt;
  uint64_t value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + uint64_t(c - '0');
  }
  return value;
}

// "(1700000000.123456)" in microseconds. candump writes six decimals; fewer or more are read as
// the decimal fraction they are.
std::optional<uint64_t> time_of(std::string_view text) {
  if (text.size() < 5 || text.front() != '(' || text.back() != ')') return std::nullopt;
  text = text.substr(1, text.size() - 2);
  const size_t dot = text.find('.');
  if (dot == std::string_view::npos) return std::nullopt;
  const auto seconds = decimal(text.substr(0, dot), 12);
  const std::string_view fraction = text.substr(dot + 1);
  auto micro = decimal(fraction, 9);
  if (!seconds || !micro) return std::nullopt;
  for (size_t digits = fraction.size(); digits < 6; ++digits) *micro *= 10;
  for (size_t digits = fraction.size(); digits > 6; --digits) *micro /= 10;
  return *seconds * 1000000 + *micro;
}

// An error frame: the 8-digit identifier with the error flag, and its classic data.
bool error_frame_of(std::string_view text, LogRecord& record) {
  const size_t hash = text.find('#');
  if (hash != 8) return false;
  const auto id = varnel::can_text::parse_hex_number(text.substr(0, hash));
  if (!id || (*id & 0xE0000000u) != kErrorFlag) return false;
  const std::string_view data = text.substr(hash + 1);
  if (!data.empty() && (data[0] == '#' || data[0] == 'R' || data[0] == 'r')) return false;
  const auto frame = varnel::can_text::parse_frame("0#" + std::string(data));
  if (!frame) return false;
  record.frame = *frame;
  record.frame.Id = *id & ~kErrorFlag;
  record.error_frame = true;
  return true;
}

bool frame_of(std::string_view text, LogRecord& record, std::string& why) {
  if (text.find("###") != std::string_view::npos) {
    why = "a CAN XL frame: " + std::string(text) + " (CAN and CAN FD frames only)";
    return false;
  }
  if (error_frame_of(text, record)) return true;
  const auto frame = varnel::can_text::parse_frame(std::string(text));
  if (!frame) {
    why = "not a frame: " + std::string(text) + " (" + kFrameForms + ")";
    return false;
  }
  record.frame = *frame;
  return true;
}

ParsedLine bad(std::string why) {
  ParsedLine parsed;
  parsed.kind = LineKind::kBad;
  parsed.why = std::move(why);
  return parsed;
}

}  // namespace

std::string log_file_name() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char name[64];
  std::strftime(name, sizeof name, "candump-%Y-%m-%d_%H%M%S.log", &local);
  return name;
}

ParsedLine parse_line(std::string_view line) {
  std::string_view rest = line;
  const std::string_view stamp = next_word(rest);
  if (stamp.empty() || stamp.front() == '#') return {};
  ParsedLine parsed;
  const auto time = time_of(stamp);
  if (!time)
    return bad("expected a time stamp (SECONDS.MICROSECONDS) first, got " + std::string(stamp));
  parsed.record.time_us = *time;
  const std::string_view channel = next_word(rest);
  if (channel.empty()) return bad("no interface name after the time stamp");
  // an interface name is short and printable, as the kernel's are (15 characters) or ours
  // (HANDLE:CH); anything else would not survive being written again
  if (channel.size() > kMaxInterfaceName)
    return bad("an interface name longer than " + std::to_string(kMaxInterfaceName) +
               " characters");
  for (char c : channel)
    if (c < 0x21 || c > 0x7E) return bad("an interface name with unprintable bytes");
  parsed.record.channel = std::string(channel);
  const std::string_view frame = next_word(rest);
  if (frame.empty()) return bad("no frame after the interface name");
  if (!frame_of(frame, parsed.record, parsed.why)) return bad(parsed.why);
  // newer candumps add the direction: R received, T transmitted by this host
  std::string_view extra = next_word(rest);
  if (extra == "R" || extra == "T") extra = next_word(rest);
  if (!extra.empty()) return bad("unexpected " + std::string(extra) + " after the frame");
  parsed.kind = LineKind::kRecord;
  return parsed;
}

bool LogReader::next(LogRecord& record) {
  while (error_.empty() && std::getline(in_, line_)) {
    ++line_number_;
    ParsedLine parsed = parse_line(line_);
    if (parsed.kind == LineKind::kNothing) continue;
    if (parsed.kind == LineKind::kBad) {
      error_ = parsed.why;
      return false;
    }
    record = std::move(parsed.record);
    return true;
  }
  return false;
}

}  // namespace varnel_cli::candump_log
