// varnel can send CHANNEL FRAME...   frames in can-utils syntax (123#DEADBEEF, 123##1..., 123#R)
// varnel can dump CHANNEL [-L] [-n N] [-t S]   candump-like lines with host time stamps
// varnel can gen  CHANNEL [-n N] [-g MS] [-I ID] [--len N] [--fd]   cangen-like traffic
// CHANNEL is canN or HANDLE:CH (can_names.h); output lines name the channel canN.
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
#include "capture/capture_file.h"
#include "core/adapter.h"
#include "core/can_names.h"
#include "core/can_time.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "src/can/can_text.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

// candump's receive filters: "ID:MASK" passes a frame whose identifier matches ID in the bits of
// MASK, "ID~MASK" one that does not; a frame passes when any filter passes it (no filter: all).
struct Filter {
  uint32_t id = 0, mask = 0;
  bool inverse = false;
  bool passes(uint32_t frame_id) const { return ((frame_id & mask) == (id & mask)) != inverse; }
};

struct CanTarget {
  std::string text;  // canN or HANDLE:CH, then ,FILTER...
  CanChannelName name;
  uint32_t handle = 0;  // the channel the name resolved to when it was opened
  uint8_t channel = 0;
  std::string interface;  // its name in output lines
  std::vector<Filter> filters;
  uint32_t bitrate = 500000;
  uint32_t data_bitrate = 2000000;
};

std::optional<uint32_t> parse_hex_word(const std::string& text) {
  if (text.empty() || text.size() > 8) return std::nullopt;
  uint32_t value = 0;
  for (char c : text) {
    const int digit = varnel::can_text::hex_digit(c);
    if (digit < 0) return std::nullopt;
    value = value << 4 | uint32_t(digit);
  }
  return value;
}

bool parse_filter(const std::string& text, Filter& filter) {
  const size_t at = text.find_first_of(":~");
  if (at == std::string::npos) return false;
  const auto id = parse_hex_word(text.substr(0, at)), mask = parse_hex_word(text.substr(at + 1));
  if (!id || !mask) return false;
  filter = {*id & 0x1FFFFFFF, *mask & 0x1FFFFFFF, text[at] == '~'};
  return true;
}

bool parse_target(CanTarget& target) {
  const size_t comma = target.text.find(',');
  const std::string head = target.text.substr(0, comma);
  target.filters.clear();
  for (size_t at = comma; at != std::string::npos;) {
    const size_t next = target.text.find(',', at + 1);
    Filter filter;
    if (!parse_filter(target.text.substr(at + 1, next - at - 1), filter)) return false;
    target.filters.push_back(filter);
    at = next;
  }
  const auto name = parse_can_channel_name(head);
  if (name) target.name = *name;
  return name.has_value();
}

bool passes_filters(const CanTarget& t, uint32_t frame_id) {
  if (t.filters.empty()) return true;
  return std::any_of(t.filters.begin(), t.filters.end(),
                     [&](const Filter& f) { return f.passes(frame_id & 0x1FFFFFFF); });
}

CLI::Validator target_validator() {
  return CLI::Validator(
      [](std::string& text) {
        CanTarget t;
        t.text = text;
        return parse_target(t)
                   ? std::string()
                   : "expected canN or HANDLE:CH (CH 0 or 1), then ,ID:MASK|ID~MASK..., got " +
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

FrameClock frame_clock(const CanTarget& t, bool fd) {
  FrameClock clock;
  clock.start_ms =
      fd ? CANFD_GetStartTime(t.handle, t.channel) : CAN_GetStartTime(t.handle, t.channel);
  clock.tick_us = fd ? kFdTickUs : kClassicTickUs;
  // without a start time (an old adapter), fall back to the time of arrival at the host
  if (clock.start_ms <= 0) clock.start_ms = int64_t(host_us() / 1000);
  return clock;
}

bool fail(const char* call, int rc) {
  std::fprintf(stderr, "%s: %s\n", call, result_text(rc));
  exit_code() = 1;
  return false;
}

bool open_channel(CanTarget& t) {
  if (!parse_target(t)) {
    exit_code() = 1;
    return false;
  }
  const auto open = open_can_channel(t.name, t.bitrate, t.data_bitrate);
  if (!open) return false;
  t.handle = open->handle;
  t.channel = open->channel;
  t.interface = open->interface;
  return true;
}

CAN_MSG to_classic(const CANFD_MSG& fd) {
  CAN_MSG msg{};
  msg.Id = fd.Id & 0x1FFFFFFFu;
  msg.Extended = (fd.Id >> 31) & 1;
  msg.Flags = (fd.Id >> 30) & 1;
  msg.DataLen = fd.DataLen > 8 ? 8 : fd.DataLen;
  std::memcpy(msg.Data, fd.Data, 8);
  return msg;
}

CANFD_MSG from_classic(const CAN_MSG& msg) {
  CANFD_MSG fd{};
  fd.Id = msg.Id | (msg.Extended & 1 ? 0x80000000u : 0) | (msg.Flags & 1 ? 0x40000000u : 0);
  fd.DataLen = msg.DataLen;
  fd.TimeStamp = msg.TimeStamp;  // still in the classic unit
  fd.TimeStampHigh = msg.TimeStampHigh;
  std::memcpy(fd.Data, msg.Data, 8);
  return fd;
}

bool send_frames(const CanTarget& t, std::vector<CANFD_MSG>& frames) {
  if (is_fd_adapter(t.handle)) {
    const int rc = CANFD_SendMsg(t.handle, t.channel, frames.data(), uint32_t(frames.size()));
    if (rc >= 0 && rc < int(frames.size())) {
      std::fprintf(stderr, "CANFD_SendMsg: %d of %zu frames went out (no node acknowledged?)\n", rc,
                   frames.size());
      exit_code() = 1;
      return false;
    }
    return rc == int(frames.size()) || fail("CANFD_SendMsg", rc);
  }
  std::vector<CAN_MSG> msgs;
  for (auto& f : frames) {
    if (f.Flags & 0x04) {
      std::fprintf(stderr, "this adapter has no CAN FD controller\n");
      exit_code() = 1;
      return false;
    }
    msgs.push_back(to_classic(f));
  }
  const int rc = CAN_SendMsg(t.handle, t.channel, msgs.data(), uint32_t(msgs.size()));
  return rc == int(msgs.size()) || fail("CAN_SendMsg", rc < 0 ? rc : -4);
}

void run_send(CanTarget t, const std::vector<std::string>& texts) {
  std::vector<CANFD_MSG> frames;
  for (auto& text : texts) {
    auto frame = varnel::can_text::parse_frame(text);
    if (!frame) {
      std::fprintf(stderr, "not a frame: %s (use 123#DEADBEEF, 123#R, 123##1...)\n", text.c_str());
      exit_code() = 2;
      return;
    }
    frames.push_back(*frame);
  }
  if (!open_channel(t)) return;
  if (send_frames(t, frames))
    for (auto& f : frames)
      std::printf("%s\n", varnel::can_text::candump_line(t.interface, f).c_str());
  close_adapter(t.handle);
}

// The decoded signals of a frame, when a database knows its identifier.
void print_decoded(DBC_HANDLE db, const CANFD_MSG& f) {
  if (!db) return;
  char text[VARNEL_DBC_TEXT_MAX];
  const int n =
      VARNEL_DbcFormatFrame(db, f.Id & ~0x40000000u, f.Data, f.DataLen, text, sizeof text);
  if (n >= 0) std::printf("  %s\n", text);
  if (n == -6) std::printf("  (frame shorter than its message in the database)\n");
}

// One line on stderr when the dump ends: what the host queues lost, the poller's state and how
// often the adapter was connected again during the dump.
void print_receive_stats(const CanTarget& t, int shown, int64_t reconnects) {
  VARNEL_RECEIVE_STATS s{};
  if (VARNEL_CAN_GetReceiveStats(t.handle, t.channel, &s) != 0) return;
  std::fprintf(stderr,
               "can dump: %d frames shown; dropped: application %llu, diagnostic %llu, "
               "garbage fetches %llu; poller %s (result %d); errors rx %u tx %u flags %u; "
               "reconnects %lld\n",
               shown, (unsigned long long)s.ApplicationDropped,
               (unsigned long long)s.DiagnosticDropped, (unsigned long long)s.FetchesDropped,
               s.PollerRunning ? "running" : "stopped", int(s.PollerStopResult),
               unsigned(s.Status.RxErrorCounter), unsigned(s.Status.TxErrorCounter),
               unsigned(s.Status.ErrorFlags), (long long)reconnects);
}

// An adapter that was unplugged or lost power comes back through the library's reconnection
// with its channels stopped, and CAN_GetMsg returns 0 from then on without an error: the
// reconnection count is the one trace of it. Warns once per change; `seen` follows the count.
void warn_if_reconnected(const CanTarget& t, int64_t& seen) {
  const int64_t now = VARNEL_GetReconnectCount(t.handle);
  if (now == seen) return;
  std::fprintf(
      stderr,
      "can dump: warning: adapter 0x%08X was connected again (unplugged or power-cycled?): "
      "frames it received meanwhile are lost, and after a power cycle it receives "
      "nothing until the channel is initialised again\n",
      t.handle);
  seen = now;
}

// True (after a warning) when the receive poller stopped on a failed fetch.
bool poller_stopped(const CanTarget& t) {
  VARNEL_RECEIVE_STATS s{};
  if (VARNEL_CAN_GetReceiveStats(t.handle, t.channel, &s) != 0 || s.PollerRunning) return false;
  std::fprintf(stderr, "can dump: the receive poller stopped: %s\n",
               result_text(s.PollerStopResult));
  return true;
}

// A CAN FD adapter's device event (data: 1, transmit errors, receive errors, state flags 1
// warning, 2 passive, 4 bus off) as the error frame SocketCAN delivers for the same change: a
// controller problem with the warning/passive bits per direction, the counters in bytes 6 and 7,
// and bus-off when it is. candump prints these with the error flag in the identifier.
std::string error_frame_text(const CANFD_MSG& event, const std::string& interface, bool log) {
  constexpr uint32_t kErrorFlag = 0x20000000, kController = 0x04, kBusOff = 0x40, kCounters = 0x200;
  const uint8_t tec = event.Data[1], rec = event.Data[2];
  const uint32_t id = kErrorFlag | kController | kCounters | ((event.Data[3] & 4) ? kBusOff : 0);
  uint8_t data[8] = {};
  data[1] = uint8_t((rec >= 96 ? 0x04 : 0) | (tec >= 96 ? 0x08 : 0) | (rec >= 128 ? 0x10 : 0) |
                    (tec >= 128 ? 0x20 : 0));
  data[6] = tec;
  data[7] = rec;
  char text[96];
  int at = log ? std::snprintf(text, sizeof text, "%s %08X#", interface.c_str(), id)
               : std::snprintf(text, sizeof text, "  %s  %08X   [8] ", interface.c_str(), id);
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
  int time_limit_ms = 0;    // -T
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

// candump's log file name, in local time.
std::string log_file_name() {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char name[64];
  std::strftime(name, sizeof name, "candump-%Y-%m-%d_%H%M%S.log", &local);
  return name;
}

void run_dump(CanTarget t, const DumpOptions& o) {
  DBC_HANDLE db = 0;
  if (!o.dbc.empty() && !(db = VARNEL_DbcLoadFileEx(o.dbc.c_str(), VARNEL_DBC_STANDARD))) {
    std::fprintf(stderr, "can dump: cannot load the database %s\n", o.dbc.c_str());
    varnel_cli::exit_code() = 1;
    return;
  }
  if (!open_channel(t)) return;
  auto capture = o.capture.empty() ? nullptr : capture::CaptureFile::create(o.capture);
  if (!o.capture.empty() && !capture) {
    varnel_cli::exit_code() = 1;
    close_adapter(t.handle);
    return;
  }
  const uint32_t capture_interface =
      capture
          ? capture->add_can_channel(t.interface, t.handle, t.channel, t.bitrate, t.data_bitrate)
          : 0;
  FILE* out = stdout;
  if (o.log_file) {
    const std::string name = log_file_name();
    if (!(out = std::fopen(name.c_str(), "w"))) {
      std::fprintf(stderr, "can dump: cannot write %s\n", name.c_str());
      varnel_cli::exit_code() = 1;
      close_adapter(t.handle);
      return;
    }
    std::fprintf(stderr, "can dump: logging to %s\n", name.c_str());
  }
  const bool log_format = o.log_format || o.log_file;
  // Ctrl-C ends the dump as candump's does: the summary, the adapter closed, exit 0.
  interrupted = false;
  auto previous = std::signal(SIGINT, [](int) { interrupted = true; });
  const bool fd = is_fd_adapter(t.handle);
  std::vector<CAN_MSG> classic(fd ? 0 : VARNEL_CAN_QUEUE_SIZE);
  std::vector<CANFD_MSG> frames(fd ? 5000 : 0);
  fd ? CANFD_StartGetMsg(t.handle, t.channel) : CAN_StartGetMsg(t.handle, t.channel);
  const FrameClock clock = frame_clock(t, fd);
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(o.time_limit_ms);
  int shown = 0;
  uint64_t first_us = 0, last_us = 0;
  const int64_t reconnects_before = VARNEL_GetReconnectCount(t.handle);
  int64_t reconnects_seen = reconnects_before;
  auto next_check = std::chrono::steady_clock::now();
  bool poller_reported = false;
  while (!interrupted && (o.count <= 0 || shown < o.count) &&
         (o.time_limit_ms <= 0 || std::chrono::steady_clock::now() < end)) {
    // Looked at by the clock, also while frames come: a read on an adapter that went away can
    // itself take seconds (the library's write retry), so counting idle reads would take hours.
    if (std::chrono::steady_clock::now() >= next_check) {
      next_check = std::chrono::steady_clock::now() + std::chrono::milliseconds(250);
      warn_if_reconnected(t, reconnects_seen);
      if ((poller_reported = poller_stopped(t))) {
        varnel_cli::exit_code() = 1;
        break;
      }
    }
    int n = fd ? CANFD_GetMsg(t.handle, t.channel, frames.data(), int32_t(frames.size()))
               : CAN_GetMsg(t.handle, t.channel, classic.data());
    if (n < 0) {
      fail(fd ? "CANFD_GetMsg" : "CAN_GetMsg", n);
      break;
    }
    if (n == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      continue;
    }
    for (int i = 0; i < n && (o.count <= 0 || shown < o.count); ++i) {
      const CANFD_MSG f = fd ? frames[size_t(i)] : from_classic(classic[size_t(i)]);
      const uint64_t now = clock.host_us(f.TimeStampHigh, f.TimeStamp);
      const bool event = fd && f.Id == VARNEL_CANFD_EVENT_ID;
      if (event && !o.errors) continue;  // not a frame: out of the output unless asked for
      if (!event && !passes_filters(t, f.Id)) continue;
      ++shown;
      if (capture && capture->write_can(capture_interface, f, now)) continue;
      const std::string& name = t.interface;
      if (log_format) {
        const std::string line = varnel::can_text::candump_log_line(name, f, now);
        std::fprintf(
            out, "%s\n",
            event ? (line.substr(0, line.find(')') + 2) + error_frame_text(f, name, true)).c_str()
                  : line.c_str());
        continue;
      }
      std::fprintf(out, "%s%s\n", stamp(o.time_kind, now, first_us, last_us).c_str(),
                   event ? error_frame_text(f, name, false).c_str()
                         : varnel::can_text::candump_line(name, f).c_str());
      if (!event) print_decoded(db, f);
    }
    std::fflush(out);
    if (capture) capture->flush();
  }
  std::signal(SIGINT, previous);
  if (capture && !capture->ok()) {
    std::fprintf(stderr, "can dump: writing %s failed\n", o.capture.c_str());
    varnel_cli::exit_code() = 1;
  }
  if (out != stdout) std::fclose(out);
  warn_if_reconnected(t, reconnects_seen);
  // the count or time limit may come first: a poller that stopped meanwhile still fails the dump
  if (!poller_reported && !interrupted && poller_stopped(t)) varnel_cli::exit_code() = 1;
  print_receive_stats(t, shown, reconnects_seen - reconnects_before);
  fd ? CANFD_StopGetMsg(t.handle, t.channel) : CAN_StopGetMsg(t.handle, t.channel);
  close_adapter(t.handle);
}

// What `can gen` makes, in cangen's terms: each of identifier (-I), length (-L) and data (-D) is
// random ("r", the default), incrementing ("i") or fixed (hex identifier, decimal length, hex
// data); -f makes CAN FD frames, -b CAN FD frames with the bit-rate switch, -e extended
// identifiers, -R remote frames.
struct GenOptions {
  int count = 10;
  int gap_ms = 200;
  std::string id = "r", len = "r", data = "r";
  bool fd = false, brs = false, extended = false, remote = false;
};

struct GenPlan {
  enum class Mode { kRandom, kIncrement, kFixed };
  Mode id = Mode::kRandom, len = Mode::kRandom, data = Mode::kRandom;
  uint32_t fixed_id = 0;
  int fixed_len = 0;
  std::vector<uint8_t> fixed_data;
};

constexpr int kFdLengths[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};

bool is_frame_length(int len, bool fd) {
  if (len >= 0 && len <= 8) return true;
  return fd && std::find(std::begin(kFdLengths), std::end(kFdLengths), len) != std::end(kFdLengths);
}

GenPlan::Mode mode_of(const std::string& text) {
  if (text == "r") return GenPlan::Mode::kRandom;
  if (text == "i") return GenPlan::Mode::kIncrement;
  return GenPlan::Mode::kFixed;
}

// cangen's limits, checked before anything is opened: a classic frame carries 0 to 8 bytes, a
// CAN FD frame one of the lengths a length code names; an identifier is hex within 11 bits, or
// 29 with -e (a fixed one above 0x7FF implies -e).
GenPlan checked_gen_plan(const GenOptions& o) {
  GenPlan plan;
  const bool fd = o.fd || o.brs;
  if (fd && o.remote) throw CLI::ValidationError("-R", "CAN FD has no remote frames");
  plan.id = mode_of(o.id);
  plan.len = mode_of(o.len);
  plan.data = mode_of(o.data);
  if (plan.id == GenPlan::Mode::kFixed) {
    for (char c : o.id) {
      const int digit = varnel::can_text::hex_digit(c);
      if (digit < 0 || o.id.size() > 8) throw CLI::ValidationError("-I", "not r, i or a hex id");
      plan.fixed_id = plan.fixed_id << 4 | uint32_t(digit);
    }
    if (plan.fixed_id > 0x1FFFFFFF) throw CLI::ValidationError("-I", "identifier beyond 29 bits");
  }
  if (plan.len == GenPlan::Mode::kFixed) {
    char* end = nullptr;
    const long len = std::strtol(o.len.c_str(), &end, 10);
    if (o.len.empty() || *end != '\0' || !is_frame_length(int(len), fd))
      throw CLI::ValidationError(
          "-L", o.len + " is not a " + (fd ? "CAN FD" : "classic CAN") + " frame length");
    plan.fixed_len = int(len);
  }
  if (plan.data == GenPlan::Mode::kFixed) {
    auto bytes = varnel::can_text::parse_frame("0#" + o.data);
    if (!bytes) throw CLI::ValidationError("-D", "not r, i or hex data of at most 8 bytes");
    plan.fixed_data.assign(bytes->Data, bytes->Data + bytes->DataLen);
  }
  return plan;
}

void run_gen(CanTarget t, const GenOptions& o) {
  const GenPlan plan = checked_gen_plan(o);
  if (!open_channel(t)) return;
  const bool fd = o.fd || o.brs;
  const bool extended = o.extended || plan.fixed_id > 0x7FF;
  const uint32_t id_mask = extended ? 0x1FFFFFFF : 0x7FF;
  uint32_t seed = 12345;
  auto next = [&] { return seed = seed * 1103515245u + 12345u; };
  for (int i = 0; o.count <= 0 || i < o.count; ++i) {
    CANFD_MSG f{};
    using Mode = GenPlan::Mode;
    f.Id = plan.id == Mode::kFixed       ? plan.fixed_id
           : plan.id == Mode::kIncrement ? uint32_t(i) & id_mask
                                         : (next() >> 8) & id_mask;
    if (extended) f.Id |= 0x80000000u;
    if (o.remote) f.Id |= 0x40000000u;
    const size_t lengths = fd ? std::size(kFdLengths) : 9;
    f.DataLen = uint8_t(plan.len == Mode::kFixed       ? plan.fixed_len
                        : plan.len == Mode::kIncrement ? kFdLengths[size_t(i) % lengths]
                                                       : kFdLengths[(next() >> 16) % lengths]);
    if (fd) f.Flags = o.brs ? 0x05 : 0x04;
    if (plan.data == Mode::kFixed) {
      for (int b = 0; b < f.DataLen; ++b)
        f.Data[b] = plan.fixed_data[size_t(b) % plan.fixed_data.size()];
    } else {
      for (int b = 0; b < f.DataLen; ++b)
        f.Data[b] = plan.data == Mode::kIncrement ? uint8_t(i) : uint8_t(next() >> 16);
    }
    std::vector<CANFD_MSG> one{f};
    if (!send_frames(t, one)) break;
    std::printf("%s\n", varnel::can_text::candump_line(t.interface, f).c_str());
    if (o.gap_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(o.gap_ms));
  }
  close_adapter(t.handle);
}

void add_can_commands(CLI::App& app) {
  CLI::App* can = app.add_subcommand("can", "CAN and CAN FD: send, dump and generate frames");
  can->require_subcommand(1);
  auto add_target = [](CLI::App* command, std::shared_ptr<CanTarget> t, bool short_bitrate = true) {
    command->add_option("TARGET", t->text, "CAN channel: canN (see scan order) or HANDLE:CH")
        ->required()
        ->check(target_validator());
    command->add_option(short_bitrate ? "-b,--bitrate" : "--bitrate", t->bitrate,
                        "nominal bit rate (default 500000)");
    command->add_option("--data-bitrate", t->data_bitrate,
                        "CAN FD data bit rate (default 2000000)");
  };

  auto send_target = std::make_shared<CanTarget>();
  auto frames = std::make_shared<std::vector<std::string>>();
  CLI::App* send = can->add_subcommand("send", "send frames: 123#DEADBEEF, 1ABCDEF0#R, 123##1...");
  add_target(send, send_target);
  send->add_option("FRAME", *frames, "frames in can-utils syntax")->required();
  send->callback([send_target, frames] { run_send(*send_target, *frames); });

  auto dump_target = std::make_shared<CanTarget>();
  auto d = std::make_shared<DumpOptions>();
  CLI::App* dump = can->add_subcommand("dump", "print received frames as candump does");
  add_target(dump, dump_target);
  dump->add_flag("-L,--log", d->log_format, "candump log format: (time) can0 123#DEADBEEF");
  dump->add_flag("-l,--log-file", d->log_file, "log into candump-DATE_TIME.log instead");
  dump->add_option("-t,--timestamp", d->time_kind,
                   "a absolute, d delta, z from the first frame, A absolute with the date")
      ->check(CLI::IsMember({"a", "d", "z", "A"}));
  dump->add_option("-n,--count", d->count, "stop after N frames");
  dump->add_option("-T,--timeout", d->time_limit_ms, "stop after MS milliseconds");
  dump->add_option("--dbc", d->dbc, "decode frames with this DBC database");
  dump->add_flag("-e,--errors", d->errors, "show device events as candump shows error frames");
  dump->add_option(
      "-w,--write", d->capture,
      "write the frames to a pcapng capture (Wireshark, tshark) instead; - for stdout");
  dump->callback([=] { run_dump(*dump_target, *d); });

  auto gen_target = std::make_shared<CanTarget>();
  add_can_service_commands(can);
  add_can_stat_command(can);

  auto gen = can->add_subcommand("gen", "generate frames as cangen does");
  auto o = std::make_shared<GenOptions>();
  // cangen's letters: -b is its bit-rate switch, so the bit rate is --bitrate only here
  add_target(gen, gen_target, false);
  gen->add_option("-n,--count", o->count, "frames to send (0: until interrupted)");
  gen->add_option("-g,--gap", o->gap_ms, "milliseconds between frames (default 200)");
  gen->add_option("-I,--id", o->id, "identifier: r random, i increment, or hex");
  gen->add_option("-L,--len", o->len, "data length: r random, i increment, or bytes");
  gen->add_option("-D,--data", o->data, "data: r random, i increment, or hex bytes");
  gen->add_flag("-f,--fd", o->fd, "CAN FD frames");
  gen->add_flag("-b,--brs", o->brs, "CAN FD frames with the bit-rate switch");
  gen->add_flag("-e,--extended", o->extended, "29-bit identifiers");
  gen->add_flag("-R,--remote", o->remote, "remote frames");
  gen->callback([=] { run_gen(*gen_target, *o); });
}

}  // namespace

VARNEL_COMMAND_GROUP(add_can_commands)

}  // namespace varnel_cli
