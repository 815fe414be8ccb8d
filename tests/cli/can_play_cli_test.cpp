// `varnel can play` replays a candump log as canplayer does. What it sends is seen by another
// channel on the same virtual bus: a dump running beside it on a `varnel sim` daemon, whose log
// lines carry the bus time the adapter stamped each frame with.
#include <fcntl.h>
#include <signal.h>

#include <fstream>
#include <regex>

#include "cli_support.h"

using namespace cli_test;

namespace {

// Written by the test: vcan0's frames classic, remote and CAN FD with the bit-rate switch, 50 and
// 150 ms apart; vcan9 is never assigned; an error frame is the controller's report, not sent.
constexpr const char* kLog =
    "(1700000000.000000) vcan0 123#DEADBEEF\n"
    "(1700000000.050000) vcan0 1ABCDEF0#R\n"
    "(1700000000.200000) vcan9 7FF#00\n"
    "(1700000000.200000) vcan0 456##1112233445566778899AABBCC\n"
    "(1700000000.210000) vcan0 20000004#0004000000000000\n";

std::string write_log(const std::string& name, const std::string& text) {
  const std::string path = testing::TempDir() + name + std::to_string(getpid()) + ".log";
  std::ofstream(path) << text;
  return path;
}

class CanPlayCli : public ::testing::Test {
 protected:
  void SetUp() override {
    log_ = write_log("replay", kLog);
    daemon_ = start({"--sim-traffic", "321#CAFE@20", "sim", "--adapter", "0x55000140",
                     "--discovery-port", "0", "--tcp-port", "0", "--first-address", "127.0.0.44"},
                    &daemon_out_);
    unsigned discovery = 0, tcp = 0;
    ASSERT_EQ(fscanf(daemon_out_, "varnel-sim: discovery on 127.0.0.255:%u, TCP port %u",
                     &discovery, &tcp),
              2);
    setenv("VARNEL_NET_DISCOVERY_PORT", std::to_string(discovery).c_str(), 1);
    setenv("VARNEL_NET_TCP_PORT", std::to_string(tcp).c_str(), 1);
  }
  void TearDown() override {
    stop(daemon_, daemon_out_);
    std::remove(log_.c_str());
  }

  // The tool in the background, its standard output readable.
  static pid_t start(std::vector<const char*> args, FILE** out) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    args.insert(args.begin(), "varnel");
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(fds[1], 1);
      close(fds[0]);
      const int quiet = open("/dev/null", O_WRONLY);  // not the dump's summary
      dup2(quiet, 2);
      for (const char* name : {"LD_LIBRARY_PATH", "VARNEL_USBSIM_ADAPTERS", "VARNEL_SIM_ACTIVE"})
        unsetenv(name);
      execv(VARNEL_BINARY_DIR "/bin/varnel", const_cast<char* const*>(args.data()));
      _exit(127);
    }
    close(fds[1]);
    *out = fdopen(fds[0], "r");
    return pid;
  }
  static void stop(pid_t pid, FILE* out) {
    if (pid > 0) kill(pid, SIGINT);
    if (pid > 0) waitpid(pid, nullptr, 0);
    if (out) fclose(out);
  }

  // Replays with `play_args` while channel 1 dumps; the frames it saw other than the daemon's own
  // 321, each with its bus time in µs. The dump is under way once the first 321 shows.
  std::vector<std::pair<long long, std::string>> replayed(const std::string& play_args,
                                                          size_t expected) {
    FILE* out = nullptr;
    const pid_t dump = start({"--net", "127.0.0.1", "can", "dump", "0x55000140:1", "-L"}, &out);
    std::vector<std::pair<long long, std::string>> seen;
    char line[256];
    std::cmatch m;
    const std::regex frame(R"(\((\d+)\.(\d{6})\) can1 (\S+)\n)");
    bool played = false;
    while (seen.size() < expected && fgets(line, sizeof line, out)) {
      if (!std::regex_match(line, m, frame)) break;
      if (m[3] != "321#CAFE")
        seen.emplace_back(std::stoll(m[1]) * 1000000 + std::stoll(m[2]), m[3]);
      if (played) continue;
      played = true;  // the dump receives: its channel is set up
      ToolRun run = varnel("--net 127.0.0.1 can play " + play_args);
      EXPECT_EQ(run.exit_code, 0) << run.err;
      if (run.exit_code != 0) break;
    }
    stop(dump, out);
    EXPECT_TRUE(played) << "the dump never ran";
    return seen;
  }

  pid_t daemon_ = -1;
  FILE* daemon_out_ = nullptr;
  std::string log_;
};

std::vector<std::string> frames_of(const std::vector<std::pair<long long, std::string>>& seen) {
  std::vector<std::string> frames;
  for (const auto& [us, frame] : seen) frames.push_back(frame);
  return frames;
}

}  // namespace

// The log's gaps hold on the bus: no frame leaves well before its time (a late first frame may
// shorten the next gap, hence the margin); a second pass starts over; -g replaces the timing.
TEST_F(CanPlayCli, SendsTheAssignedChannelsFramesInOrderAtTheLogsTimes) {
  const std::vector<std::string> pass = {"123#DEADBEEF", "1ABCDEF0#R",
                                         "456##1112233445566778899AABBCC"};
  const auto seen = replayed(log_ + " can0=vcan0 -l 2", 6);
  std::vector<std::string> twice = pass;
  twice.insert(twice.end(), pass.begin(), pass.end());
  ASSERT_EQ(frames_of(seen), twice);
  for (size_t first : {0, 3}) {
    EXPECT_GE(seen[first + 1].first - seen[first].first, 30000) << first;      // 50 ms in the log
    EXPECT_GE(seen[first + 2].first - seen[first + 1].first, 90000) << first;  // 150 ms
  }
  const auto gapped = replayed("-I " + log_ + " can0=vcan0 -g 100", 3);
  ASSERT_EQ(frames_of(gapped), pass);
  EXPECT_GE(gapped[1].first - gapped[0].first, 60000);
  EXPECT_GE(gapped[2].first - gapped[1].first, 60000);
}

// -v prints each frame sent as canplayer does, stdout=LOGCHANNEL that channel's lines; a bad line
// or a log channel with no channel of its name fails before anything is sent.
TEST(CanPlayCliLines, PrintsWhatItSendsAndNamesTheLineThatFails) {
  const std::string log = write_log("lines", kLog);
  ToolRun verbose = varnel("--sim can play " + log + " can2=vcan0 stdout=vcan9 -t -v");
  EXPECT_EQ(verbose.exit_code, 0) << verbose.err;
  EXPECT_EQ(verbose.out,
            "can2 (vcan0) 123#DEADBEEF\n"
            "can2 (vcan0) 1ABCDEF0#R\n"
            "(1700000000.200000) vcan9 7FF#00\n"
            "can2 (vcan0) 456##1112233445566778899AABBCC\n");
  const std::string bad = write_log("bad", "(1.000000) can0 123#11\n\n(1.1) can0 123#1\n");
  struct Case {
    std::string args;
    int exit_code;
    std::string err;
  } cases[] = {
      {bad + " -v", 1,
       "can play: " + bad + ":3: not a frame: 123#1 (ID#DATA, ID#R or ID##FLAGS+DATA, in hex)\n"},
      {log, 1,
       "can play: " + log +
           ":1: log channel vcan0 is no channel name here (canN or HANDLE:CH): assign it a "
           "channel, CHANNEL=vcan0\n"},
      {log + " can0=vcan0 -l 0", 2,
       "can play: -l takes a number of passes or i (forever), not 0\n"},
      {log + " vcan0=can0", 2,
       "can play: bad assignment vcan0=can0 (CHANNEL=LOGCHANNEL, CHANNEL canN, HANDLE:CH or "
       "stdout)\n"},
      {log + " 0x12345678:0=vcan0", 1,  // a classic adapter for a CAN FD frame
       "can play: the log has CAN FD frames on vcan0, and can0 is on an adapter without a CAN FD "
       "controller\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("--sim can play " + c.args);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args;
    EXPECT_EQ(run.err, c.err) << c.args;
    EXPECT_EQ(run.out, "") << c.args;
  }
  std::remove(log.c_str());
  std::remove(bad.c_str());
}
