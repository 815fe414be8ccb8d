// varnel can dump CHANNEL... [-L] [-n N] [-t S] [-x] [-a] [-T MS]   candump-like lines, host time
// CHANNEL is canN or HANDLE:CH (can_names.h), or `any`; output lines name the channel canN.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "can/can_channel.h"
#include "capture/candump_log.h"
#include "capture/capture_file.h"
#include "core/adapter.h"
#include "core/can_names.h"
#include "core/can_time.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "src/can/can_text.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

using Clock = std::chrono::steady_clock;

// candump's receive filters: "ID:MASK" passes a frame whose identifier matches ID in the bits of
// MASK, "ID~MASK" one that does not; a frame passes when any filter passes it (no filter: all).
struct Filter {
  uint32_t id = 0, mask = 0;
  bool inverse = false;
  bool passes(uint32_t frame_id) const { return ((frame_id & mask) == (id & mask)) != inverse; }
};

// One channel argument of a dump: canN, HANDLE:CH or `any` (every channel found), then
// ,FILTER...
struct DumpTarget {
  bool every = false;
  CanChannelName name;
  std::vector<Filter> filters;
};

bool parse_filter(const std::string& text, Filter& filter) {
  const size_t at = text.find_first_of(":~");
  if (at == std::string::npos) return false;
  const auto id = varnel::can_text::parse_hex_number(text.substr(0, at)),
             mask = varnel::can_text::parse_hex_number(text.substr(at + 1));
  if (!id || !mask) return false;
  filter = {*id & 0x1FFFFFFF, *mask & 0x1FFFFFFF, text[at] == '~'};
  return true;
}

std::optional<DumpTarget> parse_dump_target(const std::string& text) {
  const size_t comma = text.find(',');
  const std::string head = text.substr(0, comma);
  DumpTarget target;
  for (size_t at = comma; at != std::string::npos;) {
    const size_t next = text.find(',', at + 1);
    Filter filter;
    if (!parse_filter(text.substr(at + 1, next - at - 1), filter)) return std::nullopt;
    target.filters.push_back(filter);
    at = next;
  }
  target.every = head == "any";
  if (target.every) return target;
  const auto name = parse_can_channel_name(head);
  if (!name) return std::nullopt;
  target.name = *name;
  return target;
}

bool passes_filters(const std::vector<Filter>& filters, uint32_t frame_id) {
  if (filters.empty()) return true;
  return std::any_of(filters.begin(), filters.end(),
                     [&](const Filter& f) { return f.passes(frame_id & 0x1FFFFFFF); });
}

CLI::Validator dump_target_validator() {
  return CLI::Validator(
      [](std::string& text) {
        return parse_dump_target(text) ? std::string()
                                       : "expected canN, HANDLE:CH (CH 0 or 1) or any, then "
                                         ",ID:MASK|ID~MASK..., got " +
                                             text;
      },
      "CHANNEL");
}

uint64_t host_us() {
  return uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count());
}

// Turns a record's device time stamp into host time (can_time.h).
struct FrameClock {
  int64_t start_ms = 0;
  unsigned tick_us = kClassicTickUs;
  uint64_t host_us(uint8_t high, uint32_t low) const {
    return frame_host_us(start_ms, high, low, tick_us);
  }
};

FrameClock frame_clock(const OpenCanChannel& c, bool fd) {
  FrameClock clock;
  clock.start_ms =
      fd ? CANFD_GetStartTime(c.handle, c.channel) : CAN_GetStartTime(c.handle, c.channel);
  clock.tick_us = fd ? kFdTickUs : kClassicTickUs;
  // without a start time (an old adapter), fall back to the time of arrival at the host
  if (clock.start_ms <= 0) clock.start_ms = int64_t(host_us() / 1000);
  return clock;
}
CANFD_MSG from_classic(const CAN_MSG& msg) {
  CANFD_MSG fd{};
  fd.Id = msg.Id | (msg.Extended & 1 ? 0x80000000u : 0) | (msg.Flags & 1 ? 0x40000000u : 0);
  fd.Flags = msg.Flags & 0x80;  // sent by this host
  fd.DataLen = msg.DataLen;
  fd.TimeStamp = msg.TimeStamp;  // still in the classic unit
  fd.TimeStampHigh = msg.TimeStampHigh;
  std::memcpy(fd.Data, msg.Data, 8);
  return fd;
}

void print_decoded(FILE* out, DBC_HANDLE db, const CANFD_MSG& f) {
  if (!db) return;
  char text[VARNEL_DBC_TEXT_MAX];
  const int n =
      VARNEL_DbcFormatFrame(db, f.Id & ~0x40000000u, f.Data, f.DataLen, text, sizeof text);
  if (n >= 0) std::fprintf(out, "  %s\n", text);
  if (n == -6) std::fprintf(out, "  (frame shorter than its message in the database)\n");
}

// One channel of a dump, with what the dump keeps about it.
struct DumpChannel {
  OpenCanChannel open;
  std::vector<Filter> filters;
  bool fd = false;
  FrameClock clock;
  int shown = 0;
  int64_t reconnects_before = 0, reconnects_seen = 0;
  bool poller_reported = false;
  std::vector<CAN_MSG> classic;  // receive buffers
  std::vector<CANFD_MSG> frames;
  uint32_t capture_interface = 0;  // with -w: its interface in the capture
};

// One line on stderr per channel when the dump ends: what the host queues lost, the poller's
// state and how often the adapter was connected again during the dump.
void print_receive_stats(const DumpChannel& c, bool name_it) {
  VARNEL_RECEIVE_STATS s{};
  if (VARNEL_CAN_GetReceiveStats(c.open.handle, c.open.channel, &s) != 0) return;
  std::fprintf(stderr,
               "can dump: %s%s%d frames shown; dropped: application %llu, diagnostic %llu, "
               "garbage fetches %llu; poller %s (result %d); errors rx %u tx %u flags %u; "
               "reconnects %lld\n",
               name_it ? c.open.interface.c_str() : "", name_it ? ": " : "", c.shown,
               (unsigned long long)s.ApplicationDropped, (unsigned long long)s.DiagnosticDropped,
               (unsigned long long)s.FetchesDropped, s.PollerRunning ? "running" : "stopped",
               int(s.PollerStopResult), unsigned(s.Status.RxErrorCounter),
               unsigned(s.Status.TxErrorCounter), unsigned(s.Status.ErrorFlags),
               (long long)(c.reconnects_seen - c.reconnects_before));
}

// An adapter that was unplugged or lost power comes back through the library's reconnection
// with its channels stopped, and CAN_GetMsg returns 0 from then on without an error: the
// reconnection count is the one trace of it. Warns once per change; `seen` follows the count.
void warn_if_reconnected(DumpChannel& c) {
  const int64_t now = VARNEL_GetReconnectCount(c.open.handle);
  if (now == c.reconnects_seen) return;
  std::fprintf(
      stderr,
      "can dump: warning: adapter 0x%08X was connected again (unplugged or power-cycled?): "
      "frames it received meanwhile are lost, and after a power cycle it receives "
      "nothing until the channel is initialised again\n",
      c.open.handle);
  c.reconnects_seen = now;
}

// True (after a warning) when the receive poller stopped on a failed fetch.
bool poller_stopped(const DumpChannel& c) {
  VARNEL_RECEIVE_STATS s{};
  if (VARNEL_CAN_GetReceiveStats(c.open.handle, c.open.channel, &s) != 0 || s.PollerRunning)
    return false;
  std::fprintf(stderr, "can dump: the receive poller stopped: %s\n",
               result_text(s.PollerStopResult));
  return true;
}

// A CAN FD adapter's device event (data: 1, transmit errors, receive errors, state flags 1
// warning, 2 passive, 4 bus off) as the error frame SocketCAN delivers for the same change: a
// controller problem with the warning/passive bits per direction, the counters in bytes 6 and 7,
// and bus-off when it is. candump prints these with the error flag in the identifier:
// "20000204#0004000000000060" in a log, "20000204   [8]  00 04 ...   ERRORFRAME" on screen.
std::string error_frame_text(const CANFD_MSG& event, bool log) {
  constexpr uint32_t kErrorFlag = 0x20000000, kController = 0x04, kBusOff = 0x40, kCounters = 0x200;
  const uint8_t tec = event.Data[1], rec = event.Data[2];
  const uint32_t id = kErrorFlag | kController | kCounters | ((event.Data[3] & 4) ? kBusOff : 0);
  uint8_t data[8] = {};
  data[1] = uint8_t((rec >= 96 ? 0x04 : 0) | (tec >= 96 ? 0x08 : 0) | (rec >= 128 ? 0x10 : 0) |
                    (tec >= 128 ? 0x20 : 0));
  data[6] = tec;
  data[7] = rec;
  char text[96];
  int at = std::snprintf(text, sizeof text, log ? "%08X#" : "%08X   [8] ", id);
  for (uint8_t byte : data)
    at += std::snprintf(text + at, sizeof text - size_t(at), log ? "%02X" : " %02X", byte);
  if (!log) std::snprintf(text + at, sizeof text - size_t(at), "   ERRORFRAME");
  return text;
}

// What `can dump` shows, in candump's terms.
struct DumpOptions {
  bool log_format = false;  // -L: "(time) can0 123#DEADBEEF" lines
  bool log_file = false;    // -l: those lines into candump-DATE_TIME.log instead of stdout
  std::string time_kind;    // -t: a absolute, d delta, z from the first frame, A with the date
  int count = 0;            // -n
  int idle_ms = 0;          // -T: stop after this long without a frame
  int duration_ms = 0;      // --duration: stop after this long in all
  bool extra = false;       // -x: direction and CAN FD flags
  bool ascii = false;       // -a: the bytes as text
  std::string dbc;
  bool errors = false;  // -e
  std::string capture;  // -w: a pcapng capture instead of lines
};

std::atomic<bool> interrupted{false};

// candump's time stamp forms; empty when none was asked for.
std::string stamp(const std::string& kind, uint64_t now_us, uint64_t& first_us, uint64_t& last_us) {
  if (kind.empty()) return "";
  if (!first_us) first_us = last_us = now_us;
  char text[48];
  const uint64_t since = kind == "d" ? now_us - last_us : kind == "z" ? now_us - first_us : now_us;
  last_us = now_us;
  if (kind == "A") {
    const time_t seconds = time_t(now_us / 1000000);
    tm local{};
    localtime_r(&seconds, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text, sizeof text, "(%s.%06llu) ", date, (unsigned long long)(now_us % 1000000));
  } else if (kind == "a") {
    std::snprintf(text, sizeof text, "(%llu.%06llu) ", (unsigned long long)(since / 1000000),
                  (unsigned long long)(since % 1000000));
  } else {
    std::snprintf(text, sizeof text, "(%03llu.%06llu) ", (unsigned long long)(since / 1000000),
                  (unsigned long long)(since % 1000000));
  }
  return text;
}

// Where every frame the dump shows goes, one frame at a time: the screen or log line and the
// decoded signals, or with -w the capture alone.
struct DumpOutput {
  const DumpOptions& options;
  FILE* out = stdout;
  capture::CaptureFile* capture = nullptr;
  DBC_HANDLE db = 0;
  size_t name_width = 0;  // candump right-aligns the names to the longest
  uint64_t first_us = 0, last_us = 0;

  void write(const DumpChannel& c, const CANFD_MSG& f, uint64_t frame_us) {
    if (capture) {
      capture->write_can(c.capture_interface, f, frame_us);
      return;
    }
    const bool event = f.Id == VARNEL_CANFD_EVENT_ID;
    const std::string& name = c.open.interface;
    const std::string padded =
        std::string(name_width - std::min(name_width, name.size()), ' ') + name;
    const bool sent = f.Flags & 0x80;
    if (options.log_format || options.log_file) {
      const std::string line = varnel::can_text::candump_log_line(padded, f, frame_us);
      const std::string head = line.substr(0, line.find(')') + 2) + padded + " ";
      std::fprintf(
          out, "%s%s%s\n", head.c_str(),
          event ? error_frame_text(f, true).c_str() : varnel::can_text::cansend_text(f).c_str(),
          options.extra ? (sent ? " T" : " R") : "");
      return;
    }
    static constexpr const char* kFlags[] = {"- -", "B -", "- E", "B E"};  // switch, error state
    std::string extra;
    if (options.extra)
      extra = std::string(sent ? "  TX " : "  RX ") + kFlags[event ? 0 : f.Flags & 3];
    std::fprintf(out, " %s %s%s  %s\n",
                 stamp(options.time_kind, frame_us, first_us, last_us).c_str(), padded.c_str(),
                 extra.c_str(),
                 event ? error_frame_text(f, false).c_str()
                       : varnel::can_text::candump_frame_text(f, options.ascii).c_str());
    if (!event) print_decoded(out, db, f);
  }
};

// A frame fetched in one pass over the channels, to be shown in bus time order.
struct Fetched {
  uint64_t host_us;
  size_t channel;
  CANFD_MSG frame;
};

// One pass over the channels: what each fetched that the dump shows (its filters pass it,
// device events with -e), in time order. A failed fetch ends the dump.
CallResult fetch_pass(std::vector<DumpChannel>& channels, const DumpOptions& o,
                      std::vector<Fetched>& fetched) {
  fetched.clear();
  for (size_t i = 0; i < channels.size(); ++i) {
    DumpChannel& c = channels[i];
    const int n = c.fd ? CANFD_GetMsg(c.open.handle, c.open.channel, c.frames.data(),
                                      int32_t(c.frames.size()))
                       : CAN_GetMsg(c.open.handle, c.open.channel, c.classic.data());
    if (n < 0) return {n, {c.fd ? "CANFD_GetMsg" : "CAN_GetMsg", {}}};
    for (int k = 0; k < n; ++k) {
      const CANFD_MSG f = c.fd ? c.frames[size_t(k)] : from_classic(c.classic[size_t(k)]);
      const bool event = c.fd && f.Id == VARNEL_CANFD_EVENT_ID;
      if (event ? !o.errors : !passes_filters(c.filters, f.Id)) continue;
      fetched.push_back({c.clock.host_us(f.TimeStampHigh, f.TimeStamp), i, f});
    }
  }
  std::stable_sort(fetched.begin(), fetched.end(),
                   [](const Fetched& a, const Fetched& b) { return a.host_us < b.host_us; });
  return 0;
}

// Receives until a limit, Ctrl-C or a failure: -n frames, -T without a frame, --duration.
CallResult receive(std::vector<DumpChannel>& channels, const DumpOptions& o, DumpOutput& output) {
  const auto start = Clock::now();
  auto last_frame = start, next_check = start;
  int shown = 0;
  std::vector<Fetched> fetched;
  while (!interrupted && (o.count <= 0 || shown < o.count)) {
    const auto now = Clock::now();
    if (o.duration_ms > 0 && now - start >= std::chrono::milliseconds(o.duration_ms)) break;
    // Looked at by the clock, also while frames come: a read on an adapter that went away can
    // itself take seconds (the library's write retry), so counting idle reads would take hours.
    if (now >= next_check) {
      next_check = now + std::chrono::milliseconds(250);
      for (DumpChannel& c : channels) {
        warn_if_reconnected(c);
        if ((c.poller_reported = poller_stopped(c))) return CallResult::reported();
      }
    }
    if (CallResult r = fetch_pass(channels, o, fetched); r.code < 0) return r;
    if (fetched.empty()) {
      // silence counts from the last frame shown, judged after a fetch: frames waiting in the
      // queues when this process was held up are not silence
      if (o.idle_ms > 0 && Clock::now() - last_frame >= std::chrono::milliseconds(o.idle_ms)) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      continue;
    }
    last_frame = Clock::now();
    for (const Fetched& f : fetched) {
      if (o.count > 0 && shown >= o.count) break;
      ++shown;
      ++channels[f.channel].shown;
      output.write(channels[f.channel], f.frame, f.host_us);
    }
    std::fflush(output.out);
    if (output.capture) output.capture->flush();
  }
  return 0;
}

// The dump on open channels: the pollers started, frames received, then the summary.
CallResult dump_channels(std::vector<DumpChannel>& channels, const DumpOptions& o,
                         DumpOutput& output) {
  if (o.log_file) {
    const std::string name = candump_log::log_file_name();
    if (!(output.out = std::fopen(name.c_str(), "w"))) {
      std::fprintf(stderr, "can dump: cannot write %s\n", name.c_str());
      return CallResult::reported();
    }
    std::fprintf(stderr, "can dump: logging to %s\n", name.c_str());
  }
  for (DumpChannel& c : channels) {
    c.fd = is_fd_adapter(c.open.handle);
    if (c.fd)
      c.frames.resize(5000);
    else
      c.classic.resize(VARNEL_CAN_QUEUE_SIZE);
    c.fd ? CANFD_StartGetMsg(c.open.handle, c.open.channel)
         : CAN_StartGetMsg(c.open.handle, c.open.channel);
    c.clock = frame_clock(c.open, c.fd);
    c.reconnects_before = c.reconnects_seen = VARNEL_GetReconnectCount(c.open.handle);
  }
  // Ctrl-C ends the dump as candump's does: the summary, the adapters closed, exit 0.
  interrupted = false;
  auto previous = std::signal(SIGINT, [](int) { interrupted = true; });
  CallResult result = receive(channels, o, output);
  std::signal(SIGINT, previous);
  if (output.out != stdout) std::fclose(output.out);
  for (DumpChannel& c : channels) {
    warn_if_reconnected(c);
    // the count or time limit may come first: a poller that stopped meanwhile still fails it
    if (!c.poller_reported && !interrupted && poller_stopped(c) && result.code >= 0)
      result = CallResult::reported();
    print_receive_stats(c, channels.size() > 1);
    c.fd ? CANFD_StopGetMsg(c.open.handle, c.open.channel)
         : CAN_StopGetMsg(c.open.handle, c.open.channel);
  }
  return result;
}

// The channels of a dump's arguments, each once: a channel named twice takes both its filter
// lists (one without filters passes everything).
std::vector<DumpChannel> dump_channel_list(const std::vector<DumpTarget>& targets,
                                           const std::vector<std::vector<OpenCanChannel>>& found) {
  std::vector<DumpChannel> channels;
  for (size_t t = 0; t < targets.size(); ++t)
    for (const OpenCanChannel& open : found[t]) {
      auto same = std::find_if(channels.begin(), channels.end(), [&](const DumpChannel& c) {
        return c.open.handle == open.handle && c.open.channel == open.channel;
      });
      if (same == channels.end()) {
        channels.emplace_back();
        channels.back().open = open;
        channels.back().filters = targets[t].filters;
      } else if (same->filters.empty() || targets[t].filters.empty()) {
        same->filters.clear();
      } else {
        same->filters.insert(same->filters.end(), targets[t].filters.begin(),
                             targets[t].filters.end());
      }
    }
  return channels;
}

void run_dump(const std::vector<std::string>& texts, const CanRates& rates, const DumpOptions& o) {
  DBC_HANDLE db = 0;
  if (!o.dbc.empty() && !(db = VARNEL_DbcLoadFileEx(o.dbc.c_str(), VARNEL_DBC_STANDARD))) {
    std::fprintf(stderr, "can dump: cannot load the database %s\n", o.dbc.c_str());
    exit_code() = 1;
    return;
  }
  const auto scan = CanScan::make();
  if (!scan) return;
  std::vector<DumpTarget> targets;
  std::vector<std::vector<OpenCanChannel>> found;
  for (const std::string& text : texts) {
    targets.push_back(*parse_dump_target(text));  // the argument's check parsed it
    if (targets.back().every) {
      found.push_back(scan->every());
      continue;
    }
    const auto channel = scan->find(targets.back().name);
    if (!channel) return;
    found.push_back({*channel});
  }
  std::vector<DumpChannel> channels = dump_channel_list(targets, found);
  std::vector<OpenCanChannel> open;
  DumpOutput output{o};
  output.db = db;
  std::unique_ptr<capture::CaptureFile> capture;
  if (!o.capture.empty()) {
    if (!(capture = capture::CaptureFile::create(o.capture))) {
      exit_code() = 1;
      return;
    }
    for (DumpChannel& c : channels)
      c.capture_interface = capture->add_can_channel(
          c.open.interface, c.open.handle, c.open.channel, rates.bitrate, rates.data_bitrate);
    output.capture = capture.get();
  }
  for (const DumpChannel& c : channels) {
    open.push_back(c.open);
    output.name_width = std::max(output.name_width, c.open.interface.size());
  }
  run_can_session({}, open, rates, [&] { return dump_channels(channels, o, output); });
  if (capture && !capture->ok()) {
    std::fprintf(stderr, "can dump: writing %s failed\n", o.capture.c_str());
    exit_code() = 1;
  }
}

}  // namespace

void add_can_dump_command(CLI::App* can) {
  auto targets = std::make_shared<std::vector<std::string>>();
  auto rates = std::make_shared<CanRates>();
  auto d = std::make_shared<DumpOptions>();
  CLI::App* dump = can->add_subcommand("dump", "print received frames as candump does");
  dump->add_option("CHANNEL", *targets,
                   "canN, HANDLE:CH or any (every channel found), each with candump's filters "
                   "(can0,123:7FF)")
      ->required()
      ->check(dump_target_validator());
  add_can_rates(dump, *rates);
  dump->add_flag("-L,--log", d->log_format, "candump log format: (time) can0 123#DEADBEEF");
  dump->add_flag("-l,--log-file", d->log_file, "log into candump-DATE_TIME.log instead");
  dump->add_option("-t,--timestamp", d->time_kind,
                   "a absolute, d delta, z from the first frame, A absolute with the date")
      ->check(CLI::IsMember({"a", "d", "z", "A"}));
  dump->add_option("-n,--count", d->count, "stop after N frames");
  dump->add_option("-T,--idle-timeout", d->idle_ms, "stop after MS milliseconds without a frame")
      ->check(CLI::NonNegativeNumber);
  dump->add_option("--duration", d->duration_ms, "stop after MS milliseconds in all")
      ->check(CLI::NonNegativeNumber);
  dump->add_flag("-x,--extra", d->extra, "direction (RX/TX) and CAN FD flags (B switch, E error)");
  dump->add_flag("-a,--ascii", d->ascii, "the bytes as text behind frames of up to 8 bytes");
  dump->add_option("--dbc", d->dbc, "decode frames with this DBC database");
  dump->add_flag("-e,--errors", d->errors, "show device events as candump shows error frames");
  dump->add_option(
      "-w,--write", d->capture,
      "write the frames to a pcapng capture (Wireshark, tshark) instead; - for stdout");
  dump->callback([targets, rates, d] { run_dump(*targets, *rates, *d); });
}

}  // namespace varnel_cli
