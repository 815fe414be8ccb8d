// `varnel can` against the virtual adapter, with a node on the virtual bus that acknowledges and
// sends the traffic named by --sim-traffic.
#include <algorithm>
#include <map>
#include <regex>
#include <set>

#include "cli_support.h"

using namespace cli_test;

namespace {

const std::string kBenchDbc = data_file("bench.dbc");

// Frames each line of `text` shows, in order, as "ID DATA..." without the time stamps.
std::vector<std::string> lines_matching(const std::string& text, const std::regex& pattern) {
  std::vector<std::string> found;
  for (std::sregex_iterator it(text.begin(), text.end(), pattern), end; it != end; ++it)
    found.push_back((*it)[1].str());
  return found;
}

}  // namespace

// A node at another bit rate makes the CAN FD controller count receive errors; its error state
// changes are device events, which only -e shows, as SocketCAN error frames: controller problem
// (0x04) with counters (0x200) under the error flag, byte 1 the warning/passive bits (0x04 rx
// warning at 96, 0x10 rx passive at 128), byte 7 the receive error counter.
TEST(CanCli, DeviceEventsShowOnlyWithErrorsAsErrorFrames) {
  const std::string scene = "--sim-can-peer 250000/2000000 --sim-traffic 123#11@1 ";
  ToolRun shown = varnel(scene + "can dump 0x53000001:0 -e -n 2 -T 5000 -t a");
  ASSERT_EQ(shown.exit_code, 0) << shown.err;
  EXPECT_EQ(
      lines_matching(shown.out, std::regex(R"(\) +(can2 .*)\n)")),
      (std::vector<std::string>{"can2  20000204   [8]  00 04 00 00 00 00 00 60   ERRORFRAME",
                                "can2  20000204   [8]  00 14 00 00 00 00 00 80   ERRORFRAME"}));
  ToolRun log = varnel(scene + "can dump 0x53000001:0 -e -L -n 1 -T 5000");
  EXPECT_NE(log.out.find(") can2 20000204#0004000000000060\n"), std::string::npos) << log.out;
  ToolRun hidden = varnel(scene + "can dump 0x53000001:0 -T 500");
  ASSERT_EQ(hidden.exit_code, 0) << hidden.err;
  EXPECT_EQ(hidden.out, "");
}

// candump's time stamp kinds (none unless asked for), and Ctrl-C ends a dump with exit 0.
TEST(CanCli, DumpStampsFramesAsCandumpDoes) {
  const std::string scene = "--sim-traffic 123#11@20 can dump 0x12345678:0 -n 2 ";
  const struct {
    const char* option;
    const char* line;  // each of the two lines
  } cases[] = {
      {"", R"(  can0  123   \[1\]  11\n)"},
      {"-t a", R"( \(\d{10}\.\d{6}\)  can0  123   \[1\]  11\n)"},
      {"-t A", R"( \(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}\)  can0  123   \[1\]  11\n)"},
      {"-t z", R"( \(000\.0[0-2]\d{4}\)  can0  123   \[1\]  11\n)"},
      {"-t d", R"( \(000\.0[0-2]\d{4}\)  can0  123   \[1\]  11\n)"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(scene + c.option);
    EXPECT_EQ(run.exit_code, 0) << c.option << run.err;
    EXPECT_TRUE(std::regex_match(run.out, std::regex(std::string("(") + c.line + "){2}")))
        << c.option << "\n"
        << run.out;
  }
  ToolRun z = varnel(scene + "-t z");
  EXPECT_EQ(z.out.rfind(" (000.000000) ", 0), 0u) << z.out;  // counted from the first frame
  ToolRun stopped =
      varnel("--sim-traffic 123#11@20 can dump 0x12345678:0", "timeout --preserve-status -s INT 1");
  EXPECT_EQ(stopped.exit_code, 0) << stopped.err;
  EXPECT_NE(stopped.out, "");
  EXPECT_EQ(stopped.err.rfind("can dump: ", 0), 0u) << stopped.err;  // the summary still comes
}

// candump's filters after the target: ID:MASK passes matches, ID~MASK passes the rest; any
// filter that passes a frame shows it.
TEST(CanCli, DumpFiltersAsCandumpDoes) {
  const std::string scene = "--sim-traffic 123#11@10,456#22@10,18FEF1FE#33@10 can dump ";
  const struct {
    const char* target;
    std::vector<std::string> ids;
  } cases[] = {
      {"0x12345678:0,123:7FF", {"123", "123"}},
      {"0x12345678:0,400:700", {"456", "456"}},  // only the top three bits compared
      {"0x12345678:0,123~7FF", {"456", "18FEF1FE"}},
      {"0x12345678:0,123:7FF,18FEF1FE:1FFFFFFF", {"123", "18FEF1FE", "123", "18FEF1FE"}},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(scene + c.target + " -n " + std::to_string(c.ids.size()));
    EXPECT_EQ(run.exit_code, 0) << c.target << run.err;
    EXPECT_EQ(lines_matching(run.out, std::regex(R"(can0  ([0-9A-F]+) )")), c.ids) << c.target;
  }
  EXPECT_EQ(varnel("--sim can dump 0x12345678:0,12G:7FF -n 1").exit_code, 2);
}

TEST(CanCli, DumpDecodesLiveFramesWithTheDatabase) {
  ToolRun run = varnel(
      "--sim-traffic 123#E803021E00000000@20,18FEF1FE#F4010000@30 can dump "
      "0x12345678:0 -n 4 -t a --dbc " +
      kBenchDbc);
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(without_host_times(run.out), golden("can_dump_dbc.txt"));
  EXPECT_EQ(run.err.rfind("can dump: 4 frames shown; dropped: application 0, diagnostic 0", 0), 0u)
      << run.err;
}

TEST(CanCli, DumpTimeStampsKeepTheSpacingTheFramesHadOnTheBus) {
  struct Case {
    const char* target;
    const char* traffic;
  } cases[] = {
      {"0x12345678:1", "123#11@20,124#R@25"},                          // 10 us ticks
      {"0x53000001:1", "123##1112233445566778899AABBCC@20,124#R@25"},  // 1 us ticks
  };
  for (const auto& c : cases) {
    ToolRun run =
        varnel(std::string("--sim-traffic ") + c.traffic + " can dump " + c.target + " -L -n 6");
    ASSERT_EQ(run.exit_code, 0) << c.target << run.err;
    // times of each frame, in the order they arrived
    std::map<std::string, std::vector<long long>> times;
    std::smatch m;
    static const std::regex line(R"(\((\d+)\.(\d{6})\) can\d (\S+)\n)");
    for (auto it = run.out.cbegin(); std::regex_search(it, run.out.cend(), m, line);
         it = m.suffix().first)
      times[m[3]].push_back(std::stoll(m[1]) * 1000000 + std::stoll(m[2]));
    // 123 every 20 ms and 124 every 25 ms: six frames in a row hold each at least twice. A frame
    // again is off by at most one tick of the classic 10 us clock.
    constexpr long long kTick = 10;
    ASSERT_EQ(times.size(), 2u) << run.out;
    for (const auto& [frame, us] : times) {
      const long long period = frame == "124#R" ? 25000 : 20000;
      ASSERT_GE(us.size(), 2u) << run.out;
      for (size_t i = 1; i < us.size(); ++i)
        EXPECT_NEAR(us[i] - us[i - 1], period, kTick) << c.target << " " << frame;
    }
  }
}

TEST(CanCli, SendNeedsANodeThatAcknowledgesAndFailuresSayWhy) {
  struct Case {
    const char* args;
    int exit_code;
    const char* out;
    const char* err;
  } cases[] = {
      {"--sim can send 0x53000001:0 123##1112233445566778899AABBCC 1ABCDEF0#R", 0,
       "  can2  123  [12]  11 22 33 44 55 66 77 88 99 AA BB CC\n"
       "  can2  1ABCDEF0   [0]  remote request\n",
       ""},
      {"--sim-can-peer none can send 0x53000001:0 123#11", 1, "",
       "CANFD_SendMsg: 0 of 1 frames went out (no node acknowledged?)\n"},
      // the node listens at 250 kbit/s; a CAN FD controller at 500 kbit/s finds nobody
      {"--sim-can-peer 250000 can send 0x53000001:0 123#11", 1, "",
       "CANFD_SendMsg: 0 of 1 frames went out (no node acknowledged?)\n"},
      {"--sim-can-peer 250000 can send 0x53000001:0 -b 250000 123#11", 0, "  can2  123   [1]  11\n",
       ""},
      {"--sim can send 0x12345678:0 123##1AA", 1, "", "this adapter has no CAN FD controller\n"},
      {"--sim can dump 0x12345678:0 -n 1 --dbc /nonexistent.dbc", 1, "",  // before opening
       "can dump: cannot load the database /nonexistent.dbc\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(c.args);
    EXPECT_EQ(run.exit_code, c.exit_code) << c.args << "\n" << run.err;
    EXPECT_EQ(run.out, c.out) << c.args;
    EXPECT_EQ(run.err, c.err) << c.args;
  }
}

// A channel has one name: canN, N counting the channels of the adapters in scan order
// (0x12345678, then 0x53000001). A dump's log line names the channel its frame replays on.
TEST(CanCli, LogLinesReplayOnTheChannelTheyName) {
  const struct {
    const char* target;
    const char* name;
  } cases[] = {{"0x12345678:1", "can1"}, {"0x53000001:0", "can2"}};
  for (const auto& c : cases) {
    ToolRun dump =
        varnel(std::string("--sim-traffic 1AB#C0FFEE@10 can dump ") + c.target + " -L -n 1");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(dump.out, m, std::regex(R"(\(\d+\.\d{6}\) (\S+) (\S+)\n)")))
        << dump.out;
    EXPECT_EQ(m[1], c.name);
    ToolRun replay = varnel("--sim can send " + m[1].str() + " " + m[2].str());
    EXPECT_EQ(replay.exit_code, 0) << replay.err;
    EXPECT_EQ(replay.out, "  " + m[1].str() + "  1AB   [3]  C0 FF EE\n");
  }
}

TEST(CanCli, GeneratedFramesAreRepeatable) {
  ToolRun first = varnel("--sim can gen 0x12345678:0 -n 3 -g 0 -vv");
  ToolRun second = varnel("--sim can gen 0x12345678:1 -n 3 -g 0 -vv");
  ASSERT_EQ(first.exit_code, 0) << first.err;
  EXPECT_EQ(first.out, golden("can_gen.txt"));
  EXPECT_EQ(lines_matching(second.out, std::regex("can1(.*)\n")),
            lines_matching(first.out, std::regex("can0(.*)\n")));
}

TEST(CanCli, BadArgumentsExitTwoWithoutTouchingAnAdapter) {
  const std::string cases[] = {
      "--sim can send 0x12345678:2 123#11",                         // no channel 2
      "--sim can send vcan0 123#11",                                // not a channel name
      "--sim can send 0x12345678:0 800#11",                         // 11-bit identifier too large
      "--sim can send 0x12345678:0 123#112",                        // odd number of digits
      "--sim can send 0x12345678:0 123#112233445566778899",         // 9 bytes
      "--sim can send 0x12345678:0 123##1" + std::string(26, 'A'),  // 13 bytes: no FD size
      "--sim-traffic 123#11 can dump 0x12345678:0",                 // no period
      "--sim-traffic 123#11@0 can dump 0x12345678:0",               // zero period
      "--sim-can-peer fast can dump 0x12345678:0",
      "--sim-can-peer none --sim-traffic 123#11@10 can dump 0x12345678:0",
      "--sim can gen 0x53000001:0 -n 1 --len 255 --fd",  // no CAN FD frame is 255 bytes
      "--sim can gen 0x53000001:0 -n 1 --len 9 --fd",    // nor 9 (8, then 12)
      "--sim can gen 0x12345678:0 -n 1 --len 9",         // a classic frame carries 8 at most
      "--sim can gen 0x12345678:0 -n 1 --len 64",
      "--sim can gen 0x12345678:0 -n 1 --len -2",
      "--sim can gen 0x12345678:0 -n 1 -I zz",         // not hex
      "--sim can gen 0x12345678:0 -n 1 -I 20000000",   // beyond 29 bits
      "--sim can gen 0x12345678:0 -n 1 -I 123456789",  // nine digits
      "--sim can gen 0x53000001:0 -n 1 -f -R",         // CAN FD has no remote frames
      "--sim can gen 0x12345678:0 -n 1 -D 1G",         // not hex
      "--sim can gen 0x12345678:0 -n 1 -b 250000",     // -b is the bit-rate switch, as in cangen
  };
  for (const std::string& args : cases) {
    ToolRun run = varnel(args);
    EXPECT_EQ(run.exit_code, 2) << args << "\n" << run.err;
    EXPECT_EQ(run.out, "") << args;
  }
}

// A power cycle mid-dump: the adapter drops off the bus, and without a rescan the library's write
// retry cannot reach it again; the poller stops, and the reads after it return 0 without an
// error, each after the retry's seconds. The dump says so and fails, whichever limit ends it.
TEST(CanCli, DumpFailsWhenAPowerCycleStopsThePoller) {
  // the twentieth packet the host writes comes some fetches into the dump
  ToolRun run = varnel("--sim-traffic 123#11@5 can dump 0x12345678:0 -T 1000",
                       "VARNEL_USBSIM_POWER_CYCLE_AFTER=20");
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_NE(run.err.find("can dump: the receive poller stopped: "), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("; poller stopped (result -2)"), std::string::npos) << run.err;
}

// candump -x puts the direction and the CAN FD flags (B bit-rate switch, E error state
// indicator) behind the interface, and " R" behind a log line; -a the bytes as text in a column
// that starts three spaces after where an eighth byte would end. Both lines derived from
// candump's layout by hand.
TEST(CanCli, DumpExtraAndAsciiColumnsAsCandump) {
  const struct {
    const char* traffic;
    const char* args;
    const char* line;
  } cases[] = {
      {"123#41420A7E@10", "can0 -a", "  can0  123   [4]  41 42 0A 7E               'AB.~'\n"},
      {"1ABCDEF0#3132333435363738@10", "can0 -a",
       "  can0  1ABCDEF0   [8]  31 32 33 34 35 36 37 38   '12345678'\n"},
      {"123#41@10", "can0 -x -a", "  can0  RX - -  123   [1]  41                        'A'\n"},
      {"123##1112233@10", "can2 -x", "  can2  RX B -  123  [03]  11 22 33\n"},
      {"123##3AA@10", "can2 -x", "  can2  RX B E  123  [01]  AA\n"},
      {"123##2AA@10", "can2 -x -L", "can2 123##2AA R\n"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(std::string("--sim-traffic ") + c.traffic + " can dump -n 1 " + c.args);
    EXPECT_EQ(run.exit_code, 0) << c.args << run.err;
    EXPECT_EQ(std::regex_replace(run.out, std::regex(R"(^\(\d+\.\d{6}\) )"), ""), c.line)
        << c.traffic << " " << c.args;
  }
}

// Several channels in one dump, each with its own filters, and `any` for every channel found;
// the lines name the channel each frame came on.
TEST(CanCli, DumpTakesSeveralChannelsAndAny) {
  const std::string traffic = "--sim-traffic 123#11@10,456#22@10 can dump ";
  ToolRun two = varnel(traffic + "can0,123:7FF 0x53000001:0,456:7FF -n 6");
  ASSERT_EQ(two.exit_code, 0) << two.err;
  std::map<std::string, int> seen;
  for (const auto& frame : lines_matching(two.out, std::regex(R"(  (can\d  \w+) )"))) ++seen[frame];
  EXPECT_EQ(seen.size(), 2u) << two.out;
  EXPECT_EQ(seen["can0  123"] + seen["can2  456"], 6) << two.out;
  // one summary line per channel, named
  EXPECT_NE(two.err.find("can dump: can0: "), std::string::npos) << two.err;
  EXPECT_NE(two.err.find("can dump: can2: "), std::string::npos) << two.err;
  ToolRun any = varnel(traffic + "any,123:7FF --duration 500");
  ASSERT_EQ(any.exit_code, 0) << any.err;
  const auto names = lines_matching(any.out, std::regex(R"(  (can\d)  123 )"));
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
            (std::set<std::string>{"can0", "can1", "can2", "can3"}));
}

// -T ends a dump after that long without a frame (as candump's), not after that long in all:
// frames every 20 ms keep a 300 ms dump going past 300 ms until its count. --duration keeps the
// limit in all.
TEST(CanCli, DumpIdleTimeoutWaitsForSilence) {
  ToolRun busy = varnel("--sim-traffic 123#11@20 can dump can0 -T 300 -n 30");
  EXPECT_EQ(busy.exit_code, 0) << busy.err;
  EXPECT_EQ(lines_matching(busy.out, std::regex("(can0)  123")).size(), 30u);
  // nothing passes the filter: silence ends it; a dump that never ended meets the guard's 30 s
  ToolRun silent = varnel("--sim-traffic 123#11@20 can dump can0,456:7FF -T 300", "timeout 30");
  EXPECT_EQ(silent.exit_code, 0) << silent.err;
  EXPECT_EQ(silent.out, "");
  ToolRun timed = varnel("--sim-traffic 123#11@20 can dump can0 --duration 300", "timeout 30");
  EXPECT_EQ(timed.exit_code, 0) << timed.err;
  EXPECT_NE(timed.out, "");
}

// cangen's modes: r random, i increment (identifier 0, 1, 2...; the lengths a length code names
// in order; the data a little-endian count of the frames before, in at least one byte: frame 256
// carries 00 01), or fixed values. -v prints each frame in cansend syntax with dots between the
// bytes, -vv candump's line, -vvv with the text column. -E sets the error state indicator (flags
// digit 2), -b the bit-rate switch (1).
TEST(CanCli, GeneratorTakesCangensModesAndPrintsAsCangen) {
  const struct {
    const char* args;
    int frames;
    const char* tail;  // the last lines
  } cases[] = {
      {"0x53000001:0 -n 3 -b -e -I i -L i -D i -vv", 3,
       "  can2  00000000  [01]  00\n  can2  00000001  [01]  01\n  can2  00000002  [02]  02 00\n"},
      {"0x53000001:0 -n 1 -f -I 1ABCDEF0 -L 12 -D 0102 -vv", 1,
       "  can2  1ABCDEF0  [12]  01 02 01 02 01 02 01 02 01 02 01 02\n"},
      {"0x12345678:0 -n 1 -R -I 7FF -L 4 -vv", 1, "  can0  7FF   [4]  remote request\n"},
      {"can0 -n 1 -e -I 1FFFFFFF -L 1 -D 5A -v", 1, "  can0  1FFFFFFF#5A\n"},  // the highest
      {"can0 -n 258 -I 123 -L 2 -D i -v", 258,
       "  can0  123#FF.00\n  can0  123#00.01\n  can0  123#01.01\n"},
      {"can0 -n 2 -I 7FF -L 4 -R -v", 2, "  can0  7FF#R4\n  can0  7FF#R4\n"},
      {"can2 -n 1 -I 123 -L 2 -D 4142 -E -v", 1, "  can2  123##2.41.42\n"},
      {"can2 -n 1 -I 123 -L 2 -D 4142 -b -E -vvv", 1,
       "  can2  123  [02]  41 42                     'AB'\n"},
      {"can0 -n 1 -I 123 -L 0 -v", 1, "  can0  123#\n"},  // no byte only when asked
      {"can0 -n 3", 0, ""},                               // silent without -v, as cangen
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(std::string("--sim can gen -g 0 ") + c.args);
    EXPECT_EQ(run.exit_code, 0) << c.args << "\n" << run.err;
    EXPECT_EQ(int(std::count(run.out.begin(), run.out.end(), '\n')), c.frames) << c.args;
    EXPECT_TRUE(run.out.ends_with(c.tail))
        << c.args << "\n"
        << run.out.substr(std::max<size_t>(run.out.size(), 80) - 80);
  }
}

// A random length is at least one byte; -m mixes standard, extended and remote frames, and CAN FD
// ones only where the adapter has a CAN FD controller.
TEST(CanCli, GeneratorLengthsAndMixAsCangen) {
  const struct {
    const char* args;
    std::vector<const char*> present, absent;  // patterns among the -v lines
  } cases[] = {
      {"can0 -n 200", {"#[0-9A-F]{2}"}, {"#\n"}},
      {"can2 -n 200 -f", {"##0\\."}, {"##0\n"}},
      {"can0 -n 200 -m", {"  [0-9A-F]{3}#[0-9A-F]", "  [0-9A-F]{8}#", "#R"}, {"##"}},
      {"can2 -n 200 -m", {"  [0-9A-F]{3}#[0-9A-F]", "##[13]\\.", "##[23]\\.", "#R"}, {}},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel(std::string("--sim can gen -g 0 -v ") + c.args);
    ASSERT_EQ(run.exit_code, 0) << c.args << run.err;
    for (const char* p : c.present)
      EXPECT_TRUE(std::regex_search(run.out, std::regex(p))) << c.args << " lacks " << p;
    for (const char* p : c.absent)
      EXPECT_FALSE(std::regex_search(run.out, std::regex(p))) << c.args << " has " << p;
  }
}

// A --sim-traffic item that is no frame is refused with what is wrong with it.
TEST(CanCli, SimTrafficErrorNamesTheFault) {
  const struct {
    std::string traffic, why;
  } cases[] = {
      {"123##1" + std::string(22, 'A') + "@10",
       "11 is not a CAN FD length: 0\u20138, 12, 16, 20, 24, 32, 48, 64"},
      {"123#112233445566778899@10", "9 bytes: a classic CAN frame carries 0-8"},
      {"800#11@10", "800 is beyond 11 bits"},
      {"123#11", "no period: add @MS"},
      {"123#11@0", "the period is a whole number of ms, 1-3600000"},
      {"123#1G@10", "1G is not a hex byte"},
  };
  for (const auto& c : cases) {
    ToolRun run = varnel("--sim-traffic " + c.traffic + " can dump can0");
    EXPECT_EQ(run.exit_code, 2) << c.traffic;
    EXPECT_NE(run.err.find("'" + c.traffic + "': " + c.why), std::string::npos) << c.traffic << "\n"
                                                                                << run.err;
  }
}
