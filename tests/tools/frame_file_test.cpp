// The frames of a recorded file, read the same from a candump log and from a pcapng capture of
// the same traffic. The capture's packets are written here byte by byte from the SocketCAN
// layout (identifier in network order with the extended 0x80000000 / remote 0x40000000 / error
// 0x20000000 flags, length, FD flags 0x01 BRS 0x02 ESI 0x04 FD, two reserved bytes, the data
// padded to 8 or 64), not by the tool's own encoder.
#include "capture/frame_file.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "capture/capture_records.h"
#include "capture/pcapng_writer.h"
#include "frame_fields.h"

using namespace varnel_cli::capture;

namespace {

struct Row {
  const char* log_line;
  const char* interface;
  const char* packet;  // SocketCAN packet in hex, before the padding to 16 (CAN FD: 72) bytes
  const char* fields;  // nullptr: not a frame (left out)
};

// can0 and can1 interleaved: the channels come in order of first appearance.
const Row kRows[] = {
    {"(1.000000) can0 123#DEADBEEF", "can0", "0000012304000000DEADBEEF00000000",
     "1000000 can0 00000123 00 DEADBEEF"},
    {"(1.010000) can1 1ABCDEF0#R", "can1", "DABCDEF0000000000000000000000000",
     "1010000 can1 DABCDEF0 00 "},
    {"(1.020000) can0 00000123#11", "can0", "80000123010000001100000000000000",
     "1020000 can0 80000123 00 11"},
    // an error frame (controller problem, RX warning) is the controller's report: left out
    {"(1.030000) can0 20000004#0004000000000000", "can0", "20000004080000000004000000000000",
     nullptr},
    {"(1.040000) can1 456##1112233", "can1", "0000045603050000112233",
     "1040000 can1 00000456 05 112233"},
    {"(1.050000) can0 18FEF1FE##3AA", "can0", "98FEF1FE01070000AA", "1050000 can0 98FEF1FE 07 AA"},
};

std::vector<uint8_t> hex_bytes(const char* hex) {
  std::vector<uint8_t> bytes;
  for (const char* p = hex; p[0] && p[1]; p += 2)
    bytes.push_back(uint8_t(std::stoi(std::string(p, 2), nullptr, 16)));
  return bytes;
}

std::vector<std::string> all_fields(const FrameFile& file) {
  std::vector<std::string> out;
  for (const TimedFrame& f : file.frames)
    out.push_back(frame_fields(f.time_us, file.channels[f.channel].name, f.frame));
  return out;
}

// The rows as a capture: one interface per channel, and a LIN interface whose frame is no CAN
// frame (left out as well).
std::string capture_of_rows() {
  char* buffer = nullptr;
  size_t size = 0;
  std::FILE* out = open_memstream(&buffer, &size);
  {
    PcapngWriter writer(out, "test");
    const uint32_t lin = writer.add_interface(kLinkTypeLin, "lin0", "", 16);
    const uint32_t can0 = writer.add_interface(kLinkTypeSocketCan, "can0", "", 72);
    const uint32_t can1 = writer.add_interface(kLinkTypeSocketCan, "can1", "", 72);
    const auto lin_packet = hex_bytes("0100000012C1B40011");
    writer.write_packet(lin, 999999, lin_packet);
    for (const Row& row : kRows) {
      const uint64_t us = uint64_t(std::stod(row.log_line + 1) * 1e6 + 0.5);
      auto packet = hex_bytes(row.packet);
      packet.resize(packet[5] & 0x04 ? 72 : 16);
      writer.write_packet(std::string(row.interface) == "can0" ? can0 : can1, us, packet);
    }
    writer.flush();
  }
  std::fclose(out);
  std::string bytes(buffer, size);
  std::free(buffer);
  return bytes;
}

std::optional<FrameFile> read_text(const std::string& text, std::string& error) {
  std::istringstream in(text);
  return read_frame_file(in, "traffic", error);
}

}  // namespace

TEST(FrameFile, LogAndCaptureOfTheSameTrafficGiveTheSameFrames) {
  std::string log;
  std::vector<std::string> expected;
  for (const Row& row : kRows) {
    log += std::string(row.log_line) + "\n";
    if (row.fields) expected.push_back(row.fields);
  }
  for (const std::string& file : {log, capture_of_rows()}) {
    std::string error;
    const auto frames = read_text(file, error);
    ASSERT_TRUE(frames) << error;
    EXPECT_EQ(all_fields(*frames), expected);
    ASSERT_EQ(frames->channels.size(), 2u);
    EXPECT_EQ(frames->channels[0].name, "can0");
    EXPECT_EQ(frames->channels[1].name, "can1");
  }
}

// Where a channel first appears and why a file is bad are named for the user's messages.
TEST(FrameFile, NamesWhereChannelsAppearAndWhatIsBad) {
  std::string error;
  const auto log = read_text("# candump -L\n\n(1.0) vcan3 123#11\n", error);
  ASSERT_TRUE(log) << error;
  EXPECT_EQ(log->channels[0].where, "traffic:3");
  const auto capture = read_text(capture_of_rows(), error);
  ASSERT_TRUE(capture) << error;
  EXPECT_EQ(capture->channels[1].where, "traffic (packet 3)");  // after the LIN and can0 packets
  const struct {
    std::string file;
    std::string error;
  } cases[] = {
      {"(1.0) can0 123#11\n(1.1) can0 123#1\n",
       "traffic:2: not a frame: 123#1 (ID#DATA, ID#R or ID##FLAGS+DATA, in hex)"},
      // the section header holds 28 bytes, "test" as its application 8 and the end of options 4:
      // the first interface description starts at 40 and is cut
      {capture_of_rows().substr(0, 60),
       "traffic: a block length that does not fit the file at offset 40"},
  };
  for (const auto& c : cases) {
    error.clear();
    EXPECT_FALSE(read_text(c.file, error));
    EXPECT_EQ(error, c.error);
  }
}
