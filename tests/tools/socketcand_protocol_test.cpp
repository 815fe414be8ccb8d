// The socketcand texts: how a byte stream is cut into commands, what each command parses to, and
// the exact replies and frame lines a client receives.
#include "socketcand_protocol.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace varnel_cli::socketcand;

// Elements as "ok:<text>" / "error:<text>", so a table can list them in order.
std::vector<std::string> split(const std::vector<std::string>& reads) {
  ElementSplitter splitter;
  std::vector<std::string> out;
  for (const auto& read : reads)
    for (const auto& element : splitter.feed(read))
      out.push_back((element.ok ? "ok:" : "error:") + element.text);
  return out;
}

TEST(SocketcandSplitter, CutsTheStreamIntoElements) {
  struct Case {
    const char* name;
    std::vector<std::string> reads;
    std::vector<std::string> expected;
  } cases[] = {
      {"one command", {"< open can0 >"}, {"ok:< open can0 >"}},
      {"two in one read, blanks between",
       {"< rawmode >\r\n  < echo >"},
       {"ok:< rawmode >", "ok:< echo >"}},
      {"split across three reads", {"< se", "nd 123 1 ", "ff >"}, {"ok:< send 123 1 ff >"}},
      {"closing bracket alone", {"< echo ", ">"}, {"ok:< echo >"}},
      {"garbage line, then a command",
       {"hello there\n< echo >"},
       {"error:garbage outside a command", "ok:< echo >"}},
      {"one error per garbage line",
       {"x\ny\n"},
       {"error:garbage outside a command", "error:garbage outside a command"}},
      {"garbage glued to a command",
       {"abc< echo >"},
       {"error:garbage outside a command", "ok:< echo >"}},
      {"missing > before the next <",
       {"< send 123 0 < echo >"},
       {"error:missing > after a command", "ok:< echo >"}},
      {"missing > at the line end",
       {"< echo\n< echo >"},
       {"error:missing > after a command", "ok:< echo >"}},
      {"incomplete command waits", {"< echo"}, {}},
  };
  for (const auto& c : cases) EXPECT_EQ(split(c.reads), c.expected) << c.name;
}

TEST(SocketcandSplitter, RefusesOverlongElementsAndResynchronises) {
  const std::string overlong = "< send " + std::string(kMaxElementLength, '1');
  // Refused once, the rest of it skipped, also when it arrives over several reads.
  EXPECT_EQ(split({overlong, "1111 >< echo >"}),
            (std::vector<std::string>{"error:command too long", "ok:< echo >"}));
  // An element of exactly the limit still passes.
  const std::string longest = "<" + std::string(kMaxElementLength - 1, ' ') + ">";
  EXPECT_EQ(split({longest}), (std::vector<std::string>{"ok:" + longest}));
}

TEST(SocketcandCommands, ParsesWhatClientsSend) {
  struct Case {
    const char* text;
    CommandKind kind;
    const char* detail;  // bus for open, error text otherwise
  } cases[] = {
      {"< open can0 >", CommandKind::Open, "can0"},
      {"<open 0x12345678:1>", CommandKind::Open, "0x12345678:1"},
      {"< rawmode >", CommandKind::RawMode, ""},
      {"< bcmmode >", CommandKind::BcmMode, ""},
      {"< echo >", CommandKind::Echo, ""},
      {"< open >", CommandKind::Malformed, "open takes one bus name"},
      {"< open can0 can1 >", CommandKind::Malformed, "open takes one bus name"},
      {"< rawmode now >", CommandKind::Malformed, "rawmode takes no arguments"},
      {"<  >", CommandKind::Malformed, "empty command"},
      {"< hello >", CommandKind::Malformed, "unknown command hello"},
      {"< \x01\xff >", CommandKind::Malformed, "unknown command ??"},
      {"< subscribe 0 0 123 >", CommandKind::Unsupported,
       "subscribe is a BCM command; this server offers rawmode only"},
      {"< add 1 0 123 1 ff >", CommandKind::Unsupported,
       "add is a BCM command; this server offers rawmode only"},
      {"< isotpmode >", CommandKind::Unsupported, "isotpmode is not supported"},
      {"echo", CommandKind::Malformed, "not a command"},
  };
  for (const auto& c : cases) {
    const Command command = parse_command(c.text);
    EXPECT_EQ(command.kind, c.kind) << c.text;
    EXPECT_EQ(c.kind == CommandKind::Open ? command.bus : command.error, c.detail) << c.text;
  }
}

TEST(SocketcandCommands, ParsesSendFrames) {
  struct Case {
    const char* text;
    uint32_t id;
    bool extended;
    bool fd;
    std::vector<uint8_t> data;
  } cases[] = {
      // python-can writes the identifier and length with %X and each byte with %x.
      {"< send 123 3 1 a ff >", 0x123, false, false, {0x01, 0x0A, 0xFF}},
      {"< send 7FF 0 >", 0x7FF, false, false, {}},
      {"< send 0 8 0 1 2 3 4 5 6 7 >", 0, false, false, {0, 1, 2, 3, 4, 5, 6, 7}},
      // Eight digits make an identifier extended even when it is small; so does a large value.
      {"< send 00000123 1 11 >", 0x123, true, false, {0x11}},
      {"< send 800 1 11 >", 0x800, true, false, {0x11}},
      {"< send 1fffffff 2 DE ad >", 0x1FFFFFFF, true, false, {0xDE, 0xAD}},
      {"< send 123 C 0 1 2 3 4 5 6 7 8 9 a b >",
       0x123,
       false,
       true,
       {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
  };
  for (const auto& c : cases) {
    const Command command = parse_command(c.text);
    ASSERT_EQ(command.kind, CommandKind::Send) << c.text << ": " << command.error;
    Frame expected;
    expected.id = c.id;
    expected.extended = c.extended;
    expected.fd = c.fd;
    expected.len = uint8_t(c.data.size());
    std::copy(c.data.begin(), c.data.end(), expected.data.begin());
    EXPECT_EQ(command.frame, expected) << c.text;
  }
  // The longest frame: 64 bytes.
  std::string longest = "< send 1 40";
  for (int i = 0; i < 64; ++i) longest += " " + std::to_string(i % 10);
  const Command command = parse_command(longest + " >");
  ASSERT_EQ(command.kind, CommandKind::Send) << command.error;
  EXPECT_EQ(command.frame.len, 64);
  EXPECT_TRUE(command.frame.fd);
  EXPECT_EQ(command.frame.data[63], 3);
}

TEST(SocketcandCommands, RefusesBadSendFrames) {
  struct Case {
    const char* text;
    const char* error;
  } cases[] = {
      {"< send >", "send needs ID LEN and the data bytes"},
      {"< send 123 >", "send needs ID LEN and the data bytes"},
      {"< send 12G 0 >", "send: bad identifier 12G"},
      {"< send 20000000 0 >", "send: bad identifier 20000000"},
      {"< send 123456789 0 >", "send: bad identifier 123456789"},
      {"< send -1 0 >", "send: bad identifier -1"},
      {"< send 123 9 1 2 3 4 5 6 7 8 9 >", "send: bad length 9"},
      {"< send 123 41 >", "send: bad length 41"},
      {"< send 123 100 >", "send: bad length 100"},
      {"< send 123 x >", "send: bad length x"},
      {"< send 123 2 1 >", "send: length 2 but 1 data bytes"},
      {"< send 123 1 1 2 >", "send: length 1 but 2 data bytes"},
      {"< send 123 1 100 >", "send: bad data byte 100"},
      {"< send 123 1 zz >", "send: bad data byte zz"},
  };
  for (const auto& c : cases) {
    const Command command = parse_command(c.text);
    EXPECT_EQ(command.kind, CommandKind::Malformed) << c.text;
    EXPECT_EQ(command.error, c.error) << c.text;
  }
}

TEST(SocketcandFormat, FrameLinesAndReplies) {
  auto frame = [](uint32_t id, bool extended, std::vector<uint8_t> data) {
    Frame f;
    f.id = id;
    f.extended = extended;
    f.len = uint8_t(data.size());
    std::copy(data.begin(), data.end(), f.data.begin());
    return f;
  };
  struct Case {
    Frame frame;
    uint64_t time_us;
    const char* text;
  } cases[] = {
      {frame(0x123, false, {0xDE, 0xAD, 0xBE, 0xEF}), 1700000000123456ull,
       "< frame 123 1700000000.123456 DEADBEEF >"},
      // Standard identifiers get three digits, extended ones eight.
      {frame(0x5, false, {0x0A}), 1000001, "< frame 005 1.000001 0A >"},
      {frame(0x5, true, {0x0A}), 1000001, "< frame 00000005 1.000001 0A >"},
      {frame(0x1FFFFFFF, true, {}), 0, "< frame 1FFFFFFF 0.000000  >"},
      {frame(0x7FF, false, std::vector<uint8_t>(12, 0xA5)), 42,
       "< frame 7FF 0.000042 A5A5A5A5A5A5A5A5A5A5A5A5 >"},
  };
  for (const auto& c : cases) EXPECT_EQ(format_frame(c.frame, c.time_us), c.text);
  EXPECT_EQ(format_error("open a bus first"), "< error open a bus first >");
  EXPECT_EQ(kHi, "< hi >");
  EXPECT_EQ(kOk, "< ok >");
}

TEST(SocketcandFormat, Beacon) {
  EXPECT_EQ(format_beacon("bench<1>", "can://127.0.0.1:29536", {"can0", "can1"}),
            "<CANBeacon name=\"bench&lt;1&gt;\" type=\"SocketCAN\" description=\"VARNEL "
            "socketcand bridge\">\n"
            "<URL>can://127.0.0.1:29536</URL>\n"
            "<Bus name=\"can0\"/>\n"
            "<Bus name=\"can1\"/>\n"
            "</CANBeacon>");
}

}  // namespace
