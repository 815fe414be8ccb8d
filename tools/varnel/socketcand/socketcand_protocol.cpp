#include "socketcand/socketcand_protocol.h"

#include <cstdio>

#include "src/can/can_text.h"

namespace varnel_cli::socketcand {
namespace {

bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

using varnel::can_text::parse_hex_number;

std::vector<std::string_view> split_words(std::string_view text) {
  std::vector<std::string_view> words;
  size_t at = 0;
  while (at < text.size()) {
    while (at < text.size() && is_space(text[at])) ++at;
    const size_t start = at;
    while (at < text.size() && !is_space(text[at])) ++at;
    if (at > start) words.push_back(text.substr(start, at - start));
  }
  return words;
}

// Client words go back in error replies; clients decode replies as ASCII, so anything else is
// replaced and long words are cut.
std::string printable(std::string_view word) {
  std::string text;
  for (char c : word.substr(0, 32)) text += (c >= 0x21 && c <= 0x7E) ? c : '?';
  if (word.size() > 32) text += "...";
  return text;
}

Command malformed(std::string message) {
  Command command;
  command.kind = CommandKind::Malformed;
  command.error = std::move(message);
  return command;
}

Command unsupported(std::string message) {
  Command command;
  command.kind = CommandKind::Unsupported;
  command.error = std::move(message);
  return command;
}

Command parse_send(const std::vector<std::string_view>& words) {
  if (words.size() < 3) return malformed("send needs ID LEN and the data bytes");
  const auto id = parse_hex_number(words[1], 8);
  if (!id || *id > 0x1FFFFFFFu) return malformed("send: bad identifier " + printable(words[1]));
  const auto len = parse_hex_number(words[2], 2);
  if (!len || (*len > 8 && !valid_fd_length(*len)))
    return malformed("send: bad length " + printable(words[2]));
  if (words.size() - 3 != *len)
    return malformed("send: length " + std::to_string(*len) + " but " +
                     std::to_string(words.size() - 3) + " data bytes");
  Command command;
  command.kind = CommandKind::Send;
  Frame& frame = command.frame;
  frame.id = *id;
  frame.extended = words[1].size() == 8 || *id > 0x7FFu;
  frame.fd = *len > 8;
  frame.len = uint8_t(*len);
  for (size_t i = 0; i < *len; ++i) {
    const auto byte = parse_hex_number(words[3 + i], 2);
    if (!byte) return malformed("send: bad data byte " + printable(words[3 + i]));
    frame.data[i] = uint8_t(*byte);
  }
  return command;
}

bool is_bcm_command(std::string_view word) {
  for (std::string_view bcm :
       {"add", "update", "delete", "filter", "subscribe", "unsubscribe", "muxfilter"})
    if (word == bcm) return true;
  return false;
}

bool is_other_mode_command(std::string_view word) {
  for (std::string_view other :
       {"controlmode", "isotpmode", "statistics", "isotpconf", "isotpsend"})
    if (word == other) return true;
  return false;
}

}  // namespace

std::vector<Element> ElementSplitter::feed(std::string_view bytes) {
  std::vector<Element> out;
  auto error = [&](std::string message) { out.push_back({false, std::move(message)}); };
  for (char c : bytes) {
    switch (state_) {
      case State::Between:
        if (c == '<') {
          state_ = State::Inside;
          current_ = "<";
        } else if (!is_space(c)) {
          state_ = State::Garbage;
          error("garbage outside a command");
        }
        break;
      case State::Garbage:
      case State::Overlong:
        // Skipped up to the start of the next element or the end of the line (or, for an
        // overlong element, its own end).
        if (c == '<') {
          state_ = State::Inside;
          current_ = "<";
        } else if (c == '\n' || (state_ == State::Overlong && c == '>')) {
          state_ = State::Between;
        }
        break;
      case State::Inside:
        if (c == '>') {
          current_ += '>';
          out.push_back({true, std::move(current_)});
          current_.clear();
          state_ = State::Between;
        } else if (c == '<') {
          error("missing > after a command");
          current_ = "<";
        } else if (c == '\n' || c == '\r') {
          error("missing > after a command");
          current_.clear();
          state_ = State::Between;
        } else if (current_.size() >= kMaxElementLength) {
          error("command too long");
          current_.clear();
          state_ = State::Overlong;
        } else {
          current_ += c;
        }
        break;
    }
  }
  return out;
}

bool valid_fd_length(unsigned len) {
  if (len <= 8) return true;
  for (unsigned fd : {12u, 16u, 20u, 24u, 32u, 48u, 64u})
    if (len == fd) return true;
  return false;
}

Command parse_command(std::string_view element) {
  if (element.size() < 2 || element.front() != '<' || element.back() != '>')
    return malformed("not a command");
  const auto words = split_words(element.substr(1, element.size() - 2));
  if (words.empty()) return malformed("empty command");
  const std::string_view name = words[0];
  if (name == "send") return parse_send(words);
  if (name == "open") {
    if (words.size() != 2) return malformed("open takes one bus name");
    Command command;
    command.kind = CommandKind::Open;
    command.bus = std::string(words[1]);
    return command;
  }
  for (auto [word, kind] :
       {std::pair{"rawmode", CommandKind::RawMode}, std::pair{"bcmmode", CommandKind::BcmMode},
        std::pair{"echo", CommandKind::Echo}}) {
    if (name != word) continue;
    if (words.size() != 1) return malformed(std::string(word) + " takes no arguments");
    Command command;
    command.kind = kind;
    return command;
  }
  if (is_bcm_command(name))
    return unsupported(printable(name) + " is a BCM command; this server offers rawmode only");
  if (is_other_mode_command(name)) return unsupported(printable(name) + " is not supported");
  return malformed("unknown command " + printable(name));
}

std::string format_error(std::string_view message) {
  return "< error " + std::string(message) + " >";
}

std::string format_frame(const Frame& frame, uint64_t time_us) {
  char head[64];
  std::snprintf(head, sizeof head,
                frame.extended ? "< frame %08X %llu.%06llu " : "< frame %03X %llu.%06llu ",
                unsigned(frame.id), (unsigned long long)(time_us / 1000000),
                (unsigned long long)(time_us % 1000000));
  std::string text = head;
  static constexpr char kDigits[] = "0123456789ABCDEF";
  for (size_t i = 0; i < frame.len && i < frame.data.size(); ++i) {
    text += kDigits[frame.data[i] >> 4];
    text += kDigits[frame.data[i] & 0xF];
  }
  // Also without data the space stays: clients split the body into three words.
  return text + " >";
}

namespace {
std::string xml_escaped(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}
}  // namespace

std::string format_beacon(std::string_view host_name, std::string_view url,
                          const std::vector<std::string>& buses) {
  std::string text = "<CANBeacon name=\"" + xml_escaped(host_name) +
                     "\" type=\"SocketCAN\" description=\"VARNEL socketcand bridge\">\n";
  text += "<URL>" + xml_escaped(url) + "</URL>\n";
  for (const auto& bus : buses) text += "<Bus name=\"" + xml_escaped(bus) + "\"/>\n";
  return text + "</CANBeacon>";
}

}  // namespace varnel_cli::socketcand
