// Captures the tool writes (`can dump -w`, varnel-extcap), judged by tshark: Wireshark's own
// dissectors read the identifiers, data, CAN FD flags and error classes back, so a mistake in
// the format shows whatever our reader would think of it.
#include <sys/stat.h>

#include "cli_support.h"

using namespace cli_test;

namespace {

// One line per packet, the fields separated by commas.
std::string tshark_fields(const std::string& file, const std::string& fields) {
  return shell("tshark -r " + file + " -T fields -E separator=, " + fields + " 2>/dev/null");
}

}  // namespace

// Identifiers, lengths and data as sent by the virtual bus's node; the CAN FD frames with the
// bit-rate switch where the traffic asked for it (##1) and 72-byte canfd_frame packets (the FD
// flags field exists for CAN FD frames only: a classic frame leaves it empty); device events as
// error frames: controller problem (0x04) and counters (0x200) under the error flag 0x20000000, RX
// warning in byte 1, the receive error counter in byte 7 (0x60 = 96, then 0x80 = 128 with RX
// passive).
TEST(CaptureCli, TsharkReadsCanDumpCapturesAsSent) {
  const std::string base = "-e frame.interface_name -e can.id -e can.flags.xtd -e can.len ";
  const struct {
    const char* scene;
    const char* dump;
    std::string fields;
    const char* expected;
  } cases[] = {
      {"--sim-traffic 123#11223344@10,1ABCDEF0#AA@10", "can0 -n 2", base + "-e data.data",
       "can0,291,0,4,11223344\ncan0,448585456,1,1,aa\n"},
      {"--sim-traffic 1ABCDEF0##1112233445566778899AABBCC@10,456##0AABBCCDDEEFF0011@10",
       "can2 -n 2", base + "-e canfd.flags.brs -e data.data -e frame.protocols -e frame.len",
       "can2,448585456,1,12,1,112233445566778899aabbcc,can:data,72\n"
       "can2,1110,0,8,0,aabbccddeeff0011,can:data,72\n"},
      {"--sim-can-peer 250000/2000000 --sim-traffic 123#11@1", "0x53000001:0 -e -n 2 -T 5000",
       "-e frame.interface_name -e can.flags.err -e can.err.ctrl -e can.err.ctrl.rx_warning "
       "-e can.err.ctrl.rx_passive -e can.err.ctrl_specific -e frame.len",
       "can2,1,1,1,0,00 00 60,16\ncan2,1,1,1,1,00 00 80,16\n"},
      // the interface description names adapter, channel and rates; the link type SocketCAN's
      {"--sim-traffic 123#11@10", "can2 --bitrate 500000 -n 1",
       "-e frame.interface_description -e frame.encap_type",
       "VARNEL 0x53000001:0 CAN FD 500000/2000000 bit/s,125\n"},
  };
  for (const auto& c : cases) {
    const std::string file = temp_path("dump.pcapng");
    ToolRun run = varnel(std::string(c.scene) + " can dump " + c.dump + " -w " + file);
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, "") << "-w writes the frames instead of printing them";
    EXPECT_EQ(tshark_fields(file, c.fields), c.expected) << c.dump;
    std::remove(file.c_str());
  }
}

// A diagnostic exchange captured from the virtual ECU (the bus's node sends the request 22 F190
// and the flow control the tester would): Wireshark's ISO-TP reassembles the 20-byte response of
// first and consecutive frames and UDS decodes both, the VIN as the ECU documents it.
TEST(CaptureCli, TsharkDecodesUdsFromTheVirtualEcuWithoutADatabase) {
  const std::string file = temp_path("uds.pcapng");
  ToolRun run = varnel(
      "--sim-traffic 7E0#0322F19000000000@100,7E0#3000000000000000@100 can dump can0 -n 12 -T "
      "5000 -w " +
      file);
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const std::string uds =
      shell("tshark -r " + file +
            " -o iso15765.can.ids:0x7e0-0x7e8 -d iso15765.subdissector,uds -Y uds -T fields "
            "-E separator=, -e can.id -e uds.sid -e uds.reply -e uds.rdbi.data_identifier "
            "-e uds.rdbi.data_record 2>/dev/null");
  EXPECT_NE(uds.find("2016,0x22,0x00,0xf190,\n"), std::string::npos) << uds;
  const std::string vin = "5641524e454c53494d4543553030303031";  // "VARNELSIMECU00001"
  EXPECT_NE(uds.find("2024,0x22,0x01,0xf190," + vin + "\n"), std::string::npos) << uds;
  std::remove(file.c_str());
}

// Wireshark runs varnel-extcap from its extcap folder (here given by WIRESHARK_EXTCAP_DIR, which
// Wireshark honours only for an unprivileged user), passes the options as extcap preferences,
// takes N frames of the virtual bus's traffic and stops the program.
TEST(CaptureCli, TsharkCapturesFromTheExtcapInterfaceAndStops) {
  const std::string folder = temp_path("extcap");
  mkdir(folder.c_str(), 0755);
  symlink(VARNEL_BINARY_DIR "/bin/varnel-extcap", (folder + "/varnel-extcap").c_str());
  const std::string tshark =
      "setpriv --reuid=65534 --regid=65534 --clear-groups env HOME=/tmp WIRESHARK_EXTCAP_DIR=" +
      folder + " timeout 60 tshark ";
  EXPECT_NE(shell(tshark + "-D 2>/dev/null").find("varnel-can2 (VARNEL CAN FD can2 (0x53000001:0"),
            std::string::npos);
  const std::string out =
      shell(tshark +
            "-i varnel-can2 -o extcap.varnel_can2.sim:TRUE "
            "-o 'extcap.varnel_can2.simtraffic:321#CAFE@5' -c 4 -T fields -E separator=, "
            "-e frame.interface_name -e can.id -e data.data 2>/dev/null");
  EXPECT_EQ(out, "can2,801,cafe\ncan2,801,cafe\ncan2,801,cafe\ncan2,801,cafe\n");
  EXPECT_EQ(shell("pgrep -f '^" + folder + "/varnel-extcap' | wc -l"), "0\n")
      << "the extcap program still runs after the capture stopped";
  std::remove((folder + "/varnel-extcap").c_str());
  rmdir(folder.c_str());
}

// `monitor --record FILE.pcapng` writes the capture `can dump -w` does: tshark reads each
// watched channel as its own interface with the frames the bus carried. The monitor runs until
// its Ctrl-C (timeout's SIGINT), as a user stops it.
TEST(CaptureCli, TsharkReadsAMonitorRecording) {
  if (varnel("monitor --help").exit_code != 0) GTEST_SKIP() << "built without the monitor";
  const std::string file = temp_path("monitor.pcapng");
  ToolRun run = varnel("--sim-traffic 1ABCDEF0##1AABB@20 monitor can2 --port 0 --record " + file,
                       "timeout --preserve-status -s INT 2");
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const std::string out = tshark_fields(
      file,
      "-e frame.interface_name -e frame.interface_description -e can.id -e can.flags.xtd "
      "-e canfd.flags.brs -e data.data -c 1");
  EXPECT_EQ(out, "can2,VARNEL 0x53000001:0 CAN FD 500000/2000000 bit/s,448585456,1,1,aabb\n");
  std::remove(file.c_str());
}
