// `varnel can play` replays a candump log as canplayer does. What it sends is seen by another
// channel on the same virtual bus: a dump beside it on a `varnel sim` daemon, whose log lines
// carry the bus time the adapter stamped each frame with.
#include <algorithm>
#include <regex>

#include "cli_support.h"

using namespace cli_test;

namespace {

// vcan0's frames classic, remote and CAN FD with the bit-rate switch, 50 and 150 ms apart; vcan9
// is never assigned; an error frame is the controller's report, not sent.
constexpr const char* kLog =
    "(1700000000.000000) vcan0 123#DEADBEEF\n"
    "(1700000000.050000) vcan0 1ABCDEF0#R\n"
    "(1700000000.200000) vcan9 7FF#00\n"
    "(1700000000.200000) vcan0 456##1112233445566778899AABBCC\n"
    "(1700000000.210000) vcan0 20000004#0004000000000000\n";
const std::vector<std::string> kPass = {"123#DEADBEEF", "1ABCDEF0#R",
                                        "456##1112233445566778899AABBCC"};

// Frames the dump of channel 1 saw from the replay (not the daemon's own 321), with bus times
// in µs. The replay starts once the dump shows its first frame: its channel is set up then.
void replay(const SimDaemon& daemon, const std::string& play_args, size_t expected,
            std::vector<std::string>& frames, std::vector<long long>& us) {
  Started dump =
      start("--net 127.0.0.1 can dump 0x55000140:1 -L 2>/dev/null", daemon.environment());
  char line[256];
  std::cmatch m;
  bool played = false;
  while (frames.size() < expected && fgets(line, sizeof line, dump.out) &&
         std::regex_match(line, m, std::regex(R"(\((\d+)\.(\d{6})\) can1 (\S+)\n)"))) {
    if (m[3] != "321#CAFE") {
      frames.push_back(m[3]);
      us.push_back(std::stoll(m[1]) * 1000000 + std::stoll(m[2]));
    }
    if (played) continue;
    played = true;
    ToolRun run = varnel("--net 127.0.0.1 can play " + play_args, daemon.environment());
    EXPECT_EQ(run.exit_code, 0) << run.err;
    if (run.exit_code != 0) break;
  }
  dump.stop();
}

// A `varnel sim` daemon serving adapter 0x55000140, whose node sends 321#CAFE every 20 ms.
struct Daemon : SimDaemon {
  Daemon() : SimDaemon("--sim-traffic 321#CAFE@20", "0x55000140", "127.0.0.44") {
    EXPECT_FALSE(environment().empty());
  }
};

}  // namespace

// The log's gaps hold on the bus: no frame leaves well before its time (a late first frame may
// shorten the next gap, hence the margin); a second pass starts over; -g replaces the timing.
TEST(CanPlayCli, SendsTheAssignedChannelsFramesInOrderAtTheLogsTimes) {
  const std::string log = temp_file("replay.log", kLog);
  std::vector<std::string> frames, gapped;
  std::vector<long long> us, gapped_us;
  {
    Daemon daemon;
    replay(daemon, log + " can0=vcan0 -l 2", 6, frames, us);
    replay(daemon, "-I " + log + " can0=vcan0 -g 100", 3, gapped, gapped_us);
  }
  std::vector<std::string> twice = kPass;
  twice.insert(twice.end(), kPass.begin(), kPass.end());
  ASSERT_EQ(frames, twice);
  for (size_t first : {0, 3}) {
    EXPECT_GE(us[first + 1] - us[first], 30000) << first;      // 50 ms in the log
    EXPECT_GE(us[first + 2] - us[first + 1], 90000) << first;  // 150 ms
  }
  ASSERT_EQ(gapped, kPass);
  EXPECT_GE(gapped_us[1] - gapped_us[0], 60000);
  EXPECT_GE(gapped_us[2] - gapped_us[1], 60000);
}

// -v prints each frame sent as canplayer does, stdout=LOGCHANNEL that channel's lines; a bad line
// (counted with comments and blank lines) or a log channel with no channel of its name fails
// before anything is sent.
TEST(CanPlayCli, PrintsWhatItSendsAndNamesTheLineThatFails) {
  const std::string log = temp_file("lines.log", kLog);
  ToolRun verbose = varnel("--sim can play " + log + " can2=vcan0 stdout=vcan9 -t -v");
  EXPECT_EQ(verbose.exit_code, 0) << verbose.err;
  EXPECT_EQ(verbose.out,
            "can2 (vcan0) 123#DEADBEEF\ncan2 (vcan0) 1ABCDEF0#R\n"
            "(1700000000.200000) vcan9 7FF#00\ncan2 (vcan0) 456##1112233445566778899AABBCC\n");
  const std::string bad =
      temp_file("bad.log", "# candump -L\n(1.000000) can0 123#11\r\n\n(1.1) can0 123#1\n");
  const struct {
    std::string args;
    int exit_code;
    std::string err;
  } cases[] = {
      {bad, 1, bad + ":4: not a frame: 123#1 (ID#DATA, ID#R or ID##FLAGS+DATA, in hex)"},
      {log, 1,
       log + ":1: log channel vcan0 is no channel name here (canN or HANDLE:CH): assign it a "
             "channel, CHANNEL=vcan0"},
      {log + " can0=vcan0 -l 0", 2, "-l takes a number of passes or i (forever), not 0"},
      {log + " vcan0=can0", 2,
       "bad assignment vcan0=can0 (CHANNEL=LOGCHANNEL, CHANNEL canN, HANDLE:CH or stdout)"},
      {log + " 0x12345678:0=vcan0", 1,  // a classic adapter for a CAN FD frame
       "the log has CAN FD frames on vcan0, and can0 is on an adapter without a CAN FD "
       "controller"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("--sim can play " + c.args);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args;
    EXPECT_EQ(run.err, "can play: " + c.err + "\n") << c.args;
    EXPECT_EQ(run.out, "") << c.args;
  }
}

// A capture `can dump -w` wrote replays as a log does: its interface's name (can2, the FD
// adapter in --sim) is the log channel, and what reaches the bus has the identifiers, data,
// remote and CAN FD flags the traffic was sent with (BRS and ESI: ##3).
TEST(CanPlayCli, ReplaysACanDumpCaptureOntoTheBus) {
  const std::string capture = temp_path("played.pcapng");
  std::vector<std::string> sent = {"123#DEADBEEF", "1ABCDEF0#R", "456##3112233445566778899AABBCC"};
  ToolRun dump = varnel("--sim-traffic " + sent[0] + "@10," + sent[1] + "@10," + sent[2] +
                        "@10 can dump can2 -n 3 -w " + capture);
  ASSERT_EQ(dump.exit_code, 0) << dump.err;
  std::vector<std::string> frames;
  std::vector<long long> us;
  {
    Daemon daemon;
    replay(daemon, capture + " 0x55000140:0=can2 -t", 3, frames, us);
  }
  std::sort(sent.begin(), sent.end());
  std::sort(frames.begin(), frames.end());
  EXPECT_EQ(frames, sent);
  std::remove(capture.c_str());
}
