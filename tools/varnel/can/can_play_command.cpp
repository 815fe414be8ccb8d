// varnel can play [LOGFILE | -I LOGFILE] [CHANNEL=LOGCHANNEL...]   replays a candump log (or a
// pcapng capture, whose interface names stand for the log's channels) as canplayer does: each frame
// at the time its log stamp gives (from the first frame), on the channel of the name the log gives,
// or the one assigned to that log channel. Options as canplayer's: -l N passes (-l i forever), -t
// ignores the stamps, -g MS a fixed gap between frames instead, -n N stops after N frames, -s S
// shortens gaps over S seconds, -v prints each frame sent. `stdout=LOGCHANNEL` prints that log
// channel's lines instead of sending them.
//
// The whole log is read before any adapter is opened: a bad line (or block) fails the command
// with its line number (offset) and nothing is sent; the channels to open and whether they need CAN
// FD are known first.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "can/can_channel.h"
#include "capture/frame_file.h"
#include "core/adapter.h"
#include "core/can_names.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/sim_mode.h"
#include "src/can/can_text.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

using Clock = std::chrono::steady_clock;
using capture::FrameFile;
using capture::TimedFrame;

constexpr int kDefaultGapMs = 1;  // canplayer's, between frames when the stamps are ignored
constexpr const char* kStdout = "stdout";

struct PlayOptions {
  std::vector<std::string> arguments;  // LOGFILE and CHANNEL=LOGCHANNEL, in any order
  std::string input;                   // -I
  std::string loops = "1";             // -l: a count or "i"
  int gap_ms = -1;                     // -g; -1: not given
  bool ignore_times = false;           // -t
  bool verbose = false;                // -v
  unsigned count = 0;                  // -n; 0: every frame
  unsigned skip_s = 0;                 // -s; 0: keep every gap
  CanRates rates;                      // -b, --data-bitrate
};

// Where the frames of one log channel go.
struct Route {
  std::string target;  // as given: canN, HANDLE:CH or stdout
  CanChannelId id;     // once resolved
  std::string interface;
  bool needs_fd = false;  // the log has CAN FD frames for it
};

struct Plan {
  std::string log_name;                 // for messages
  std::map<std::string, Route> routes;  // by log channel
  bool assigned = false;                // routes from the command line: other channels skipped
  uint64_t passes = 1;                  // 0: forever
};

std::atomic<bool> interrupted{false};

int usage_error(const std::string& message) {
  std::fprintf(stderr, "can play: %s\n", message.c_str());
  exit_code() = 2;
  return 2;
}

// "can1=can0": our channel (or stdout) and the log channel whose frames it gets.
bool add_assignment(const std::string& text, Plan& plan) {
  const size_t equals = text.find('=');
  const std::string target = text.substr(0, equals), log_channel = text.substr(equals + 1);
  if (log_channel.empty() || (target != kStdout && !parse_can_channel_name(target))) {
    usage_error("bad assignment " + text + " (CHANNEL=LOGCHANNEL, CHANNEL canN, HANDLE:CH or " +
                kStdout + ")");
    return false;
  }
  if (!plan.routes.emplace(log_channel, Route{target, {}, "", false}).second) {
    usage_error("log channel " + log_channel + " is assigned twice");
    return false;
  }
  plan.assigned = true;
  return true;
}

// The log read whole, from the file or standard input (canplayer's default input).
std::optional<FrameFile> read_log(const std::string& name, const std::string& shown) {
  std::string error;
  std::optional<FrameFile> file;
  if (name.empty() || name == "-") {
    std::stringstream kept;
    kept << std::cin.rdbuf();
    file = capture::read_frame_file(kept, shown, error);
  } else {
    file = capture::read_frame_file(name, error);
  }
  if (!file) {
    std::fprintf(stderr, "can play: %s\n", error.c_str());
    exit_code() = 1;
  }
  return file;
}

// A route for each log channel (its own name unless assignments were given), and which routes
// carry CAN FD frames.
bool plan_routes(const FrameFile& log, Plan& plan) {
  std::vector<Route*> by_channel(log.channels.size(), nullptr);
  for (size_t i = 0; i < log.channels.size(); ++i) {
    const auto& channel = log.channels[i];
    auto route = plan.routes.find(channel.name);
    if (route == plan.routes.end()) {
      if (plan.assigned) continue;
      if (!parse_can_channel_name(channel.name)) {
        std::fprintf(stderr,
                     "can play: %s: log channel %s is no channel name here (canN or "
                     "HANDLE:CH): assign it a channel, CHANNEL=%s\n",
                     channel.where.c_str(), channel.name.c_str(), channel.name.c_str());
        exit_code() = 1;
        return false;
      }
      route = plan.routes.emplace(channel.name, Route{channel.name, {}, "", false}).first;
    }
    by_channel[i] = &route->second;
  }
  for (const TimedFrame& f : log.frames)
    if (Route* route = by_channel[f.channel])
      route->needs_fd = route->needs_fd || (f.frame.Flags & 0x04);
  return true;
}

// Each route's channel among the adapters found; false (having said why) for a missing channel
// or CAN FD frames for an adapter without CAN FD.
bool resolve_routes(Plan& plan) {
  const auto scanned = scan_can_channels();
  for (auto& [log_channel, route] : plan.routes) {
    if (route.target == kStdout) continue;
    const auto id = resolve_can_channel(scanned, *parse_can_channel_name(route.target));
    if (!id) {
      std::fprintf(stderr,
                   "can play: %s: no such channel (%zu CAN channels found; see `varnel "
                   "scan`)\n",
                   route.target.c_str(), scanned.size());
      exit_code() = 1;
      return false;
    }
    route.id = *id;
    route.interface = can_interface_name(scanned, *id);
    if (route.needs_fd && !is_fd_adapter(id->handle)) {
      std::fprintf(stderr,
                   "can play: the log has CAN FD frames on %s, and %s is on an adapter without "
                   "a CAN FD controller\n",
                   log_channel.c_str(), route.interface.c_str());
      exit_code() = 1;
      return false;
    }
  }
  return true;
}

// Sleeps until shortly before `deadline`, then yields until it has come: a sleep alone wakes up
// to a scheduler tick late. Short sleeps keep Ctrl-C prompt during a long gap.
void wait_until(Clock::time_point deadline) {
  using namespace std::chrono_literals;
  for (auto now = Clock::now(); now < deadline && !interrupted; now = Clock::now()) {
    const auto left = deadline - now;
    if (left > 2ms)
      std::this_thread::sleep_for(std::min<Clock::duration>(left - 1ms, 100ms));
    else
      std::this_thread::yield();
  }
}

CAN_MSG to_classic(const CANFD_MSG& fd) {
  CAN_MSG msg{};
  msg.Id = fd.Id & 0x1FFFFFFFu;
  msg.Extended = (fd.Id >> 31) & 1;
  msg.Flags = (fd.Id >> 30) & 1;
  msg.DataLen = std::min<uint8_t>(fd.DataLen, 8);
  std::memcpy(msg.Data, fd.Data, 8);
  return msg;
}

// One frame out; a frame nobody acknowledged fails the replay as it fails `can send`.
CallResult send_frame(const Route& route, CANFD_MSG frame) {
  frame.TimeStamp = 0;  // on a record to send, a delay the caller allows: none
  const bool fd = is_fd_adapter(route.id.handle);
  CAN_MSG classic = to_classic(frame);
  const int rc = fd ? CANFD_SendMsg(route.id.handle, route.id.channel, &frame, 1)
                    : CAN_SendMsg(route.id.handle, route.id.channel, &classic, 1);
  if (rc == 0) {
    std::fprintf(stderr, "can play: %s: %s went out to nobody (no node acknowledged?)\n",
                 route.interface.c_str(), varnel::can_text::id_text(frame.Id).c_str());
    return CallResult::reported();
  }
  return rc < 0 ? CallResult(rc, {fd ? "CANFD_SendMsg" : "CAN_SendMsg", {}}) : CallResult(0);
}

// "123#DEADBEEF", as the log writes the frame.
std::string frame_text(const CANFD_MSG& frame) {
  const std::string line = varnel::can_text::candump_log_line("-", frame, 0);
  return line.substr(line.find(" - ") + 3);
}

// When a record is due: from the log's stamps relative to the pass's first frame, or a fixed gap
// after the previous frame.
class Pacer {
 public:
  explicit Pacer(const PlayOptions& o)
      : fixed_gap_(o.ignore_times || o.gap_ms >= 0),
        gap_(std::chrono::milliseconds(o.gap_ms >= 0 ? o.gap_ms : kDefaultGapMs)),
        skip_us_(uint64_t(o.skip_s) * 1000000) {}

  void start_pass() { first_ = true; }

  Clock::time_point due(uint64_t log_us) {
    const auto now = Clock::now();
    if (fixed_gap_) return any_sent_ ? std::max(now, last_sent_ + gap_) : now;
    if (first_) {
      first_ = false;
      start_ = now;
      origin_us_ = last_us_ = log_us;
      return now;
    }
    // a stamp before the previous one (logs put together) goes out at once
    if (log_us < last_us_) log_us = last_us_;
    if (skip_us_ && log_us - last_us_ > skip_us_) origin_us_ += log_us - last_us_;
    last_us_ = log_us;
    return start_ + std::chrono::microseconds(log_us - origin_us_);
  }
  void sent() {
    last_sent_ = Clock::now();
    any_sent_ = true;
  }

 private:
  const bool fixed_gap_;
  const Clock::duration gap_;
  const uint64_t skip_us_;
  bool first_ = true, any_sent_ = false;
  Clock::time_point start_, last_sent_;
  uint64_t origin_us_ = 0, last_us_ = 0;
};

CallResult play(const FrameFile& log, const Plan& plan, const PlayOptions& o) {
  std::vector<const Route*> by_channel;
  for (const auto& channel : log.channels) {
    const auto route = plan.routes.find(channel.name);
    by_channel.push_back(route == plan.routes.end() ? nullptr : &route->second);
  }
  Pacer pacer(o);
  uint64_t sent = 0;
  for (uint64_t pass = 0; (plan.passes == 0 || pass < plan.passes) && !interrupted; ++pass) {
    pacer.start_pass();
    for (const TimedFrame& record : log.frames) {
      if (interrupted) break;
      const Route* route = by_channel[record.channel];
      if (!route) continue;
      const std::string& channel = log.channels[record.channel].name;
      wait_until(pacer.due(record.time_us));
      if (interrupted) break;
      if (route->target == kStdout) {
        std::printf("(%llu.%06llu) %s %s\n", (unsigned long long)(record.time_us / 1000000),
                    (unsigned long long)(record.time_us % 1000000), channel.c_str(),
                    frame_text(record.frame).c_str());
      } else {
        const CallResult result = send_frame(*route, record.frame);
        if (result.code < 0) return result;
        if (o.verbose)
          std::printf("%s (%s) %s\n", route->interface.c_str(), channel.c_str(),
                      frame_text(record.frame).c_str());
      }
      std::fflush(stdout);
      pacer.sent();
      if (o.count && ++sent == o.count) return 0;
    }
  }
  return 0;
}

// Each adapter the routes name is opened in a session of its own, one inside the other, with its
// channels set up; the replay runs inside the last, whose session reports how it failed.
CallResult open_and_play(const std::vector<uint32_t>& handles, size_t next, const FrameFile& log,
                         const Plan& plan, const PlayOptions& o) {
  const auto setup = [&](const ChannelTarget& adapter) -> CallResult {
    std::vector<uint8_t> channels;
    for (const auto& [log_channel, route] : plan.routes)
      if (route.target != kStdout && route.id.handle == adapter.handle &&
          std::find(channels.begin(), channels.end(), route.id.channel) == channels.end())
        channels.push_back(route.id.channel);
    for (uint8_t channel : channels)
      if (const CallResult r = init_can_channel({adapter.handle, channel}, o.rates); r.code != 0)
        return r;
    return 0;
  };
  const auto inner = [&](const ChannelTarget&) -> CallResult {
    if (next + 1 == handles.size()) return play(log, plan, o);
    return open_and_play(handles, next + 1, log, plan, o);
  };
  const bool ok = run_channel_session({""}, ChannelTarget{handles[next], 0}, setup, inner);
  return ok ? CallResult(0) : CallResult::reported();
}

std::optional<uint64_t> passes_of(const std::string& loops) {
  if (loops == "i") return 0;
  char* end = nullptr;
  const unsigned long long n = std::strtoull(loops.c_str(), &end, 10);
  if (loops.empty() || *end || n == 0 || loops[0] == '-') return std::nullopt;
  return n;
}

void run_play(const PlayOptions& o) {
  Plan plan;
  std::string log_file = o.input;
  for (const auto& argument : o.arguments) {
    if (argument.find('=') != std::string::npos) {
      if (!add_assignment(argument, plan)) return;
    } else if (log_file.empty()) {
      log_file = argument;
    } else {
      usage_error("one log at a time: " + log_file + " and " + argument);
      return;
    }
  }
  const auto passes = passes_of(o.loops);
  if (!passes) {
    usage_error("-l takes a number of passes or i (forever), not " + o.loops);
    return;
  }
  plan.passes = *passes;
  plan.log_name = log_file.empty() || log_file == "-" ? "<stdin>" : log_file;
  const bool from_stdin = plan.log_name == "<stdin>";
  // standard input goes along when the tool starts again on the virtual adapter: read it there
  if (from_stdin && !prepare_adapters()) {
    exit_code() = 1;
    return;
  }
  const auto log = read_log(log_file, plan.log_name);
  if (!log || !plan_routes(*log, plan)) return;
  if ((!from_stdin && !prepare_adapters()) || !resolve_routes(plan)) {
    exit_code() = 1;
    return;
  }
  std::vector<uint32_t> handles;
  for (const auto& [log_channel, route] : plan.routes)
    if (route.target != kStdout &&
        std::find(handles.begin(), handles.end(), route.id.handle) == handles.end())
      handles.push_back(route.id.handle);
  // Ctrl-C ends a replay (a forever one too) with the adapters closed, exit 0
  interrupted = false;
  const auto previous = std::signal(SIGINT, [](int) { interrupted = true; });
  if (handles.empty())  // every log channel printed, none sent
    report_failure(play(*log, plan, o), {""});
  else
    open_and_play(handles, 0, *log, plan, o);
  std::signal(SIGINT, previous);
}

}  // namespace

void add_can_play_command(CLI::App* can) {
  auto o = std::make_shared<PlayOptions>();
  CLI::App* play = can->add_subcommand("play",
                                       "replay a candump log or pcapng capture as canplayer does: "
                                       "timing from the log, CHANNEL=LOGCHANNEL");
  play->add_option("ARGS", o->arguments,
                   "LOGFILE (default: -I, else standard input) and CHANNEL=LOGCHANNEL "
                   "assignments (can1=can0 sends the log's can0 frames on can1; none: each log "
                   "channel on the channel of its name)");
  play->add_option("-I,--input", o->input, "the log to replay (canplayer's option)");
  play->add_option("-l,--loops", o->loops, "passes through the log (i: forever; default 1)");
  play->add_option("-g,--gap", o->gap_ms, "milliseconds between frames instead of the log's timing")
      ->check(CLI::Range(0, 3600000));
  play->add_flag("-t,--ignore-timestamps", o->ignore_times,
                 "ignore the log's time stamps: one frame each 1 ms (or -g)");
  play->add_option("-n,--count", o->count, "stop after N frames");
  play->add_option("-s,--skip", o->skip_s, "shorten gaps longer than S seconds to nothing");
  play->add_flag("-v,--verbose", o->verbose, "print each frame sent: can1 (can0) 123#DEADBEEF");
  add_can_rates(play, o->rates);
  play->callback([o] { run_play(*o); });
}

}  // namespace varnel_cli
