// The capture records and pcapng blocks, judged by tshark: LIN frames with their protected
// identifiers, checksums and error bits as Wireshark's LIN dissector reads them; and our reader
// on a file that tshark itself wrote.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "capture/capture_records.h"
#include "capture/pcapng_reader.h"
#include "capture/pcapng_writer.h"
#include "frame_fields.h"

using namespace varnel_cli::capture;

namespace {

std::string shell(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  char buffer[4096];
  size_t n;
  while (pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  if (pipe) pclose(pipe);
  return out;
}

std::string temp_path(const std::string& name) {
  return testing::TempDir() + "varnel_pcapng_" + std::to_string(getpid()) + "_" + name;
}

LIN_EX_MSG lin(uint8_t id, std::initializer_list<uint8_t> data, uint8_t check, uint8_t verdict) {
  LIN_EX_MSG m{};
  m.MsgType = LIN_EX_MSG_TYPE_SR;
  m.PID = id;
  m.DataLen = uint8_t(data.size());
  std::copy(data.begin(), data.end(), m.Data);
  m.Check = check;
  m.CheckType = verdict;
  return m;
}

}  // namespace

// Protected identifiers by LIN's parity rule, worked by hand: 21 -> 61 (P0 = 1), 3C -> 3C,
// 3D -> 7D (P0 = 1), 00 -> 80 (P1 = 1). Checksum types 1 classic, 2 enhanced, 0 for a sum that
// matched neither (with the checksum error bit 0x08); a header nobody answered has no data and
// the no-response bit 0x01. A break alone writes no packet.
TEST(PcapngCapture, TsharkReadsLinFramesAsWritten) {
  const std::string file = temp_path("lin.pcapng");
  {
    FILE* out = std::fopen(file.c_str(), "wb");
    PcapngWriter writer(out, "test");
    writer.add_interface(kLinkTypeLin, "lin0", "", 16);
    const LIN_EX_MSG frames[] = {
        lin(0x21, {0x11, 0x22, 0x33, 0x44}, 0xF3, LIN_EX_CHECK_EXT),
        lin(0x3C, {0x10, 0x02, 0x10, 0x01, 0xFF, 0xFF, 0xFF, 0xFF}, 0xDB, LIN_EX_CHECK_STD),
        lin(0x3D, {0x01}, 0x00, LIN_EX_CHECK_ERROR),
        lin(0x00, {}, 0, LIN_EX_CHECK_NONE),
    };
    LIN_EX_MSG brk{};
    brk.MsgType = LIN_EX_MSG_TYPE_BK;
    uint64_t us = 1700000000000000;
    for (const auto& f : frames) writer.write_packet(0, us += 1000, lin_packet(f).view());
    EXPECT_EQ(lin_packet(brk).size, 0u);
    std::fclose(out);
  }
  EXPECT_EQ(shell("tshark -r " + file +
                  " -T fields -E separator=, -e lin.frame_id -e lin.protected_id -e lin.length "
                  "-e lin.checksum_type -e lin.checksum -e lin.errors -e lin.message_format "
                  "-e frame.time_epoch 2>/dev/null"),
            "0x21,0x61,4,2,0xf3,0x00,1,1700000000.001000000\n"
            "0x3c,0x3c,8,1,0xdb,0x00,1,1700000000.002000000\n"
            "0x3d,0x7d,1,0,0x00,0x08,1,1700000000.003000000\n"
            "0x00,0x80,0,0,0x00,0x01,1,1700000000.004000000\n");
  std::remove(file.c_str());
}

// tshark rewrites a capture in its own way (its own section header and interface options); our
// reader gives back the frames and time stamps that went in.
TEST(PcapngCapture, ReaderReadsWhatTsharkWrote) {
  const std::string ours = temp_path("ours.pcapng"), theirs = temp_path("theirs.pcapng");
  CANFD_MSG classic{}, fd{};
  classic.Id = 0x80000000u | 0x1ABCDEF0;
  classic.DataLen = 3;
  classic.Data[0] = 0xDE, classic.Data[2] = 0xEF;
  fd.Id = 0x123;
  fd.Flags = 0x05;
  fd.DataLen = 12;
  for (int i = 0; i < 12; ++i) fd.Data[i] = uint8_t(i * 17);
  {
    FILE* out = std::fopen(ours.c_str(), "wb");
    PcapngWriter writer(out, "test");
    writer.add_interface(kLinkTypeSocketCan, "can0", "", 72);
    writer.add_interface(kLinkTypeSocketCan, "can1", "", 72);
    writer.write_packet(0, 1700000000123456, socketcan_packet(classic).view());
    writer.write_packet(1, 1700000000123999, socketcan_packet(fd).view());
    std::fclose(out);
  }
  shell("tshark -r " + ours + " -F pcapng -w " + theirs + " 2>/dev/null");
  const auto bytes = read_capture_file(theirs);
  ASSERT_TRUE(bytes && !bytes->empty());
  PcapngReader reader(*bytes);
  CapturePacket p;
  for (const char* want : {"1700000000123456 can0 9ABCDEF0 00 DE00EF",
                           "1700000000123999 can1 00000123 05 00112233445566778899AABB"}) {
    ASSERT_TRUE(reader.next(p)) << reader.error();
    const auto can = decode_socketcan(p.data);
    ASSERT_TRUE(can);
    EXPECT_EQ(frame_fields(p.time_us, reader.interfaces().at(p.interface).name, can->frame), want);
  }
  EXPECT_FALSE(reader.next(p));
  EXPECT_EQ(reader.error(), "");
  std::remove(ours.c_str());
  std::remove(theirs.c_str());
}
