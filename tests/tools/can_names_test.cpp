// The tool's CAN channel names: what parses, and that the name printed for a channel parses back
// to that channel.
#include "core/can_names.h"

#include <gtest/gtest.h>

namespace {

using namespace varnel_cli;

TEST(CanChannelNames, NumberedAndHandleChannelNamesParseBack) {
  // two adapters found: channels 0 and 1 of the first are can0 and can1, of the second can2, can3
  const std::vector<CanChannelId> scanned = {
      {0x12345678, 0}, {0x12345678, 1}, {0x53000001, 0}, {0x53000001, 1}};
  struct Case {
    const char* text;
    bool valid = false;
    uint32_t handle = 0;  // what it resolves to among `scanned` (0: nothing)
    uint8_t channel = 0;
    const char* printed = "";  // the name output lines give that channel
  } cases[] = {
      {"can0", true, 0x12345678, 0, "can0"},
      {"can3", true, 0x53000001, 1, "can3"},
      {"can4", true, 0, 0, ""},  // a name, but no channel of this scan
      {"can119", true, 0, 0, ""},
      {"0x12345678:1", true, 0x12345678, 1, "can1"},
      {"0X53000001:0", true, 0x53000001, 0, "can2"},
      {"305419896:0", true, 0x12345678, 0, "can0"},
      {"0x00000042:1", true, 0x42, 1, "0x00000042:1"},  // not found by the scan: named as given
      {"can", false},
      {"can-1", false},
      {"can1000", false},
      {"vcan0", false},
      {"0x12345678", false},
      {"0x12345678:2", false},
      {"0x123456789:0", false},
      {"4294967296:0", false},
      {":0", false},
      {"0x:0", false},
  };
  for (const auto& c : cases) {
    const auto name = parse_can_channel_name(c.text);
    ASSERT_EQ(name.has_value(), c.valid) << c.text;
    if (!name) continue;
    const auto id = resolve_can_channel(scanned, *name);
    ASSERT_EQ(id.has_value(), c.handle != 0) << c.text;
    if (!id) continue;
    EXPECT_EQ(*id, (CanChannelId{c.handle, c.channel})) << c.text;
    EXPECT_EQ(can_interface_name(scanned, *id), c.printed) << c.text;
    EXPECT_EQ(resolve_can_channel(scanned, *parse_can_channel_name(c.printed)), id) << c.text;
  }
}

}  // namespace
