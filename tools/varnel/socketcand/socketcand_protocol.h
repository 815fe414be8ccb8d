// The socketcand ASCII protocol as pure functions: cutting a TCP byte stream into `< ... >`
// elements, parsing the commands a client sends and formatting what the server answers. No
// sockets and no adapter here, so every text can be tested exactly.
//
// Elements are `<`, space-separated words, `>`. Identifiers and data bytes are hex. A received
// frame is `< frame ID SEC.USEC DATA >`: the identifier has 3 digits when standard and 8 when
// extended, the data bytes are two upper-case digits each without separators.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel_cli::socketcand {

// Longer elements are refused: the longest valid one (a 64-byte send with one space between
// words) has about 210 characters.
constexpr size_t kMaxElementLength = 512;

// The port socketcand listens on, and the UDP port of its discovery beacon.
constexpr uint16_t kDefaultPort = 29536;
constexpr uint16_t kBeaconPort = 42000;

struct Frame {
  uint32_t id = 0;  // 11 or 29 bits
  bool extended = false;
  bool fd = false;  // a CAN FD frame (sent with bit-rate switch)
  uint8_t len = 0;  // data bytes: 0-8, or a CAN FD length up to 64
  std::array<uint8_t, 64> data{};

  bool operator==(const Frame&) const = default;
};

// One piece of the stream: a complete `< ... >` element, or an error for bytes that are not one.
struct Element {
  bool ok = false;
  std::string text;  // the element with its brackets, or what was wrong
};

// Cuts the client's byte stream into elements; commands may arrive split across reads or several
// in one. Whitespace between elements is ignored. Anything else outside brackets is one error per
// run of such bytes; an element broken by a new `<` or a line end is "missing >"; one longer than
// kMaxElementLength is refused and skipped up to the next `<`.
class ElementSplitter {
 public:
  std::vector<Element> feed(std::string_view bytes);

 private:
  enum class State { Between, Inside, Garbage, Overlong };
  State state_ = State::Between;
  std::string current_;
};

enum class CommandKind {
  Open,         // < open BUS >
  RawMode,      // < rawmode >
  BcmMode,      // < bcmmode >
  Send,         // < send ID LEN DATA... >
  Echo,         // < echo >
  Unsupported,  // a known socketcand command this bridge does not offer (BCM, control, ISO-TP)
  Malformed,    // anything else; `error` says why
};

struct Command {
  CommandKind kind = CommandKind::Malformed;
  std::string bus;    // Open
  Frame frame;        // Send
  std::string error;  // Unsupported, Malformed
};

// Parses one element as ElementSplitter returns it (brackets included).
Command parse_command(std::string_view element);

// `< send >` identifiers: up to 8 hex digits; 8 digits or a value above 0x7FF make it extended.
// Lengths are hex (as python-can sends them; 0-8 read the same in decimal); one above 8 must be a
// CAN FD length and makes a CAN FD frame.
bool valid_fd_length(unsigned len);

// Server texts.
inline constexpr std::string_view kHi = "< hi >";
inline constexpr std::string_view kOk = "< ok >";
inline constexpr std::string_view kEcho = "< echo >";
std::string format_error(std::string_view message);
// `time_us`: microseconds since the Unix epoch.
std::string format_frame(const Frame& frame, uint64_t time_us);

// The discovery beacon, sent by UDP broadcast to kBeaconPort every few seconds.
std::string format_beacon(std::string_view host_name, std::string_view url,
                          const std::vector<std::string>& buses);

}  // namespace varnel_cli::socketcand
