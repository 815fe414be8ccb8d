// `varnel uds` against the virtual bus's diagnostic ECU: one hex line per response, negative
// responses by name (the list goes on; exit 1 at the end), usage errors with exit 2 before any
// adapter is touched.
#include <poll.h>

#include <chrono>

#include "cli_support.h"

using namespace cli_test;

TEST(UdsCli, ResponsesInHexAndNegativeOnesByName) {
  struct Case {
    const char* args;
    int exit_code;
    const char* out;
  } cases[] = {
      {"--sim uds can0 7E0 7E8 1003 22F186", 0, "50 03 00 32 01 F4\n62 F1 86 03\n"},
      // a refusal does not end the list; the exit code tells of it at the end
      {"--sim uds can0 7E0 7E8 3E00 22F1FF 3E00", 1,
       "7E 00\n7F 22 31 (requestOutOfRange)\n7E 00\n"},
      {"--sim uds can0 7E0 7E8 --no-iso-timing 22DEAD 22F186", 1,
       "7F 22 31 (requestOutOfRange)\n62 F1 86 01\n"},
      {"--sim uds 0x12345678:0 7E0 7E8 -x 10 3E00", 1, ""},  // nobody answers at address 0x10
      {"--sim-ecu 18DA10F1/18DAF110 uds can0 18DA10F1 18DAF110 3E00", 0, "7E 00\n"},
      {"--sim uds can0 7E0 7E8 22F19", 2, ""},  // odd digit count
      {"--sim uds can0 7E0 80000000 3E00", 2, ""},
      {"--sim uds can0 7E0 7E8 -x 100 3E00", 2, ""},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(c.args);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
  }
}

// A small image of two segments, one in each flash region of the default map, as S-records
// (objcopy writes them: an independent writer).
static std::string two_segment_image() {
  const std::string dir = testing::TempDir();
  std::system(("cd " + dir +
               " && head -c 1000 /dev/urandom > app.bin && head -c 300 /dev/urandom > cal.bin"
               " && objcopy -I binary -O srec --change-addresses 0x20000 app.bin app.srec"
               " && objcopy -I binary -O srec --change-addresses 0x10F00 cal.bin cal.srec"
               " && grep -h '^S[123]' cal.srec app.srec > image.srec")
                  .c_str());
  return dir + "image.srec";
}

TEST(UdsCli, FlashFaultsGiveTheirErrorAndExitCode) {
  const std::string image = two_segment_image();
  struct Case {
    const char* ecu;
    const char* extra;
    int exit_code;
    const char* said;  // on stderr, or stdout for success
  } cases[] = {
      {"7E0/7E8,block=18", "--verify", 0, "Read back 1300 bytes: VERIFIED."},
      {"7E0/7E8,key=xor", "--key-routine xor", 0, "the ECU's CRC-32 matches"},
      {"7E0/7E8,key=xor", "", 3, "security access (key): 7F 27 35 (invalidKey)"},
      {"7E0/7E8,fault=wrong-key", "", 3, "7F 27 35 (invalidKey)"},
      {"7E0/7E8,block=18,fault=wrong-sequence", "", 4, "7F 36 73 (wrongBlockSequenceCounter)"},
      {"7E0/7E8,block=18,fault=abort-transfer", "", 4, "7F 36 71 (transferDataSuspended)"},
      {"7E0/7E8,fault=checksum", "", 5, "the ECU's CRC-32 is"},
      {"7E0/7E8,fault=reset", "", 4, "no longer in its programming session (now 01)"},
      {"7E0/7E8", "--key-routine nonsense", 2, "expected rotate7, xor or LIB.so:FUNCTION"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(std::string("--sim-ecu ") + c.ecu + " uds flash can0 7E0 7E8 " + image +
                         " " + c.extra);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.ecu << "\n" << run.err;
    EXPECT_NE((run.out + run.err).find(c.said), std::string::npos) << c.ecu << "\n" << run.err;
    if (c.exit_code != 0) {
      EXPECT_EQ(run.out.find("VERIFIED"), std::string::npos) << c.ecu;
    }
  }
}

// Reads `fd` into `seen` until it holds `text` (true) or the file ends or `deadline` passes.
static bool read_until(int fd, const std::string& text,
                       std::chrono::steady_clock::time_point deadline, std::string& seen) {
  using namespace std::chrono;
  while (seen.find(text) == std::string::npos) {
    const auto left = duration_cast<milliseconds>(deadline - steady_clock::now()).count();
    pollfd p{fd, POLLIN, 0};
    if (left <= 0 || poll(&p, 1, int(left)) <= 0) return false;
    char buffer[512];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return false;
    seen.append(buffer, size_t(n));
  }
  return true;
}

// Ctrl-C in the middle of a flash: the ECU (served by a daemon, so that it outlives the tool) is
// erasing, with "response pending" for 100 ms per segment, and then takes 8 bytes a block; the
// tool finishes the request under way, puts the ECU back in its default session and exits 130.
// Asked afterwards, the ECU says it is in session 01.
TEST(UdsCli, CtrlCMidFlashLeavesTheEcuInItsDefaultSession) {
  const std::string image = two_segment_image();
  SimDaemon daemon("--sim-ecu 7E0/7E8,pending=100,block=10", "0x55000160", "127.0.0.60");
  ASSERT_FALSE(daemon.environment().empty());
  Started flash = start("--net 127.0.0.1 uds flash 0x55000160:0 7E0 7E8 " + image +
                            " 2>&1 >/dev/null",  // its stderr read
                        daemon.environment());
  const auto now = std::chrono::steady_clock::now;
  std::string err;
  const int out = fileno(flash.out);
  const bool erasing = read_until(out, "erasing", now() + std::chrono::seconds(10), err);
  kill(flash.pid, SIGINT);
  read_until(out, "\n\n never printed", now() + std::chrono::seconds(15), err);  // to the end
  const int status = flash.stop();
  ASSERT_TRUE(erasing) << err;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << status << "\n" << err;
  EXPECT_NE(err.find("interrupted: the ECU is back in its default session"), std::string::npos)
      << err;
  ToolRun session =
      varnel("--net 127.0.0.1 uds read 0x55000160:0 7E0 7E8 F186", daemon.environment());
  EXPECT_EQ(session.out, "F186: 01\n") << session.err;
}

TEST(UdsCli, InfoDtcAndReadDecodeWhatTheEcuSends) {
  // DTC texts by hand from the 3-byte codes: the top two bits pick P/C/B/U, the next two the
  // first digit, then three hex digits and the failure type byte (01 23 00 -> P0123-00,
  // 40 35 11 -> C0035-11, C1 00 87 -> U0100-87, 92 34 00 -> B1234-00)
  ToolRun dtc = varnel("--sim uds dtc can0 7E0 7E8");
  EXPECT_EQ(dtc.exit_code, 0) << dtc.err;
  EXPECT_EQ(dtc.out,
            "P0123-00  status 09: testFailed confirmedDTC\n"
            "C0035-11  status 04: pendingDTC\n"
            "U0100-87  status 28: confirmedDTC testFailedSinceLastClear\n"
            "B1234-00  status 20: testFailedSinceLastClear\n");
  EXPECT_EQ(varnel("--sim uds dtc can0 7E0 7E8 --mask 04").out,
            "C0035-11  status 04: pendingDTC\n");
  EXPECT_EQ(varnel("--sim uds dtc can0 7E0 7E8 --clear").out, "trouble codes cleared\n");

  ToolRun read = varnel("--sim uds read can0 7E0 7E8 F18B 0xF195 F1FF");
  EXPECT_EQ(read.exit_code, 1);
  EXPECT_EQ(read.out,
            "F18B: 24 03 15\nF195: 31 2E 34 2E 32 \"1.4.2\"\nF1FF: 7F 22 31 (requestOutOfRange)\n");

  ToolRun info = varnel("--sim uds info can0 7E0 7E8");
  EXPECT_EQ(info.exit_code, 0) << info.err;
  EXPECT_NE(info.out.find("F18B ECUManufacturingDate"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("24 03 15 (2024-03-15)"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("F186 activeDiagnosticSession"), std::string::npos) << info.out;
}
