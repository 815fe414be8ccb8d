// `varnel lin`: one LIN channel as master or monitor.
//   varnel lin write TARGET ID#DATA            a master write (ID and bytes in hex: 3C#0102)
//   varnel lin read TARGET ID                  a master read: the frame line of the answer
//   varnel lin schedule TARGET FRAME@MS... [-n RUNS] | --stop
//                                              ID@MS a read header, ID#DATA@MS a write, played
//                                              by the adapter every MS (-n times, default forever)
//   varnel lin slave TARGET ID#DATA | --stop ID   the adapter's answer to a header
//   varnel lin dump TARGET [-n N] [-T MS]      every frame the channel sees, until Ctrl-C
//   varnel lin uds TARGET NAD REQUEST... [-t MS]  diagnostic requests to node NAD (hex), one
//                                              response line each, as `varnel uds` prints them
//   varnel lin flash TARGET NAD FILE           reprograms a control unit (lin_flash_command.cpp)
// TARGET is HANDLE:CHANNEL (0..7). Frame lines, one per frame:
//   (1732490000.123) 0x12345678:0 21#11223344 pid=61 check=8F enhanced
// host time in s, target, ID#DATA, protected ID, checksum byte and its verdict (classic, enhanced,
// unchecked, none, error). Checksums are enhanced except for the diagnostic IDs 3C and 3D
// (classic), as LIN 2 has them, unless --classic or --enhanced says otherwise.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "capture/capture_file.h"
#include "core/adapter.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "diag/uds_text.h"
#include "lin/lin_flash_command.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

struct LinOptions {
  std::string target, frame, id;
  std::vector<std::string> frames, requests;
  std::string nad;
  int timeout_ms = 1000;
  uint32_t baud = 19200;
  bool classic = false, enhanced = false, stop = false;
  int count = 0, time_limit_ms = 0;
  std::string capture;  // dump -w: a pcapng capture instead of lines
  uint32_t runs = 0;
};

using Target = ChannelTarget;

bool parse_target(const std::string& text, Target& t) {
  return parse_channel_target(text, VARNEL_LIN_MAX_CHANNELS, false, t);
}

int hex_value(const std::string& text, size_t max_digits) {
  if (text.empty() || text.size() > max_digits) return -1;
  int value = 0;
  for (char c : text) {
    const int digit = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
                      : std::isxdigit(static_cast<unsigned char>(c))
                          ? std::tolower(static_cast<unsigned char>(c)) - 'a' + 10
                          : -1;
    if (digit < 0) return -1;
    value = value * 16 + digit;
  }
  return value;
}

// "21", "0x21", "3C#0102", "3C#0102@20" (with_period): an ID of 0..3F (0x before it or not), up
// to 8 bytes, a period in ms.
struct Frame {
  uint8_t id = 0;
  std::vector<uint8_t> data;
  bool write = false;
  uint32_t period_ms = 0;
};

bool parse_frame(std::string text, Frame& f, bool with_period) {
  if (with_period) {
    const size_t at = text.find('@');
    if (at == std::string::npos) return false;
    const std::string ms = text.substr(at + 1);
    if (ms.empty() || ms.size() > 6 || ms.find_first_not_of("0123456789") != std::string::npos)
      return false;
    f.period_ms = uint32_t(std::stoul(ms));
    text = text.substr(0, at);
  }
  const size_t hash = text.find('#');
  std::string id_text = text.substr(0, hash);
  // 0x21 as well as 21, as every other command takes a hex number
  if (id_text.size() > 2 && id_text[0] == '0' && (id_text[1] == 'x' || id_text[1] == 'X'))
    id_text.erase(0, 2);
  const int id = hex_value(id_text, 2);
  if (id < 0 || id > 0x3F) return false;
  f.id = uint8_t(id);
  if (hash == std::string::npos) return true;
  f.write = true;
  const std::string data = text.substr(hash + 1);
  if (data.size() % 2 || data.size() > 16) return false;
  for (size_t i = 0; i < data.size(); i += 2) {
    const int byte = hex_value(data.substr(i, 2), 2);
    if (byte < 0) return false;
    f.data.push_back(uint8_t(byte));
  }
  return true;
}

uint8_t check_type(const LinOptions& o, uint8_t id) {
  if (o.classic) return LIN_EX_CHECK_STD;
  if (o.enhanced) return LIN_EX_CHECK_EXT;
  return id == 0x3C || id == 0x3D ? LIN_EX_CHECK_STD : LIN_EX_CHECK_EXT;
}

const char* verdict_name(uint8_t verdict) {
  static const char* names[] = {"classic", "enhanced", "unchecked", "none", "error"};
  return verdict < 5 ? names[verdict] : "?";
}

void print_frame(const Target& t, const LIN_EX_MSG& msg) {
  const int64_t start = LIN_EX_GetStartTime(t.handle, t.channel);
  const uint64_t ms = uint64_t(start < 0 ? 0 : start) + msg.TimeStamp;
  std::string data;
  char byte[4];
  for (int i = 0; i < msg.DataLen && i < 8; ++i) {
    std::snprintf(byte, sizeof byte, "%02X", msg.Data[i]);
    data += byte;
  }
  std::printf("(%llu.%03llu) %s:%u %02X#%s pid=%02X check=%02X %s\n",
              static_cast<unsigned long long>(ms / 1000),
              static_cast<unsigned long long>(ms % 1000), handle_text(t.handle).c_str(), t.channel,
              msg.PID & 0x3F, data.c_str(), msg.PID, msg.Check, verdict_name(msg.CheckType));
}

bool failed(const char* call, int rc) {
  return call_failed(call, rc);
}

// A session on the channel, initialised as master (1) or slave (0) at the chosen baud rate.
void with_channel(const LinOptions& o, uint8_t master, const SessionStep& work) {
  Target target;
  parse_target(o.target, target);
  run_channel_session(
      {}, target,
      [&](const Target& t) {
        return CallResult(LIN_EX_Init(t.handle, t.channel, o.baud, master),
                          {"LIN_EX_Init", {{"baud rate", std::to_string(o.baud)}}});
      },
      work);
}

void run_write(const LinOptions& o) {
  Frame f;
  parse_frame(o.frame, f, false);
  with_channel(o, 1, [&](const Target& t) {
    failed("LIN_EX_MasterWrite", LIN_EX_MasterWrite(t.handle, t.channel, f.id, f.data.data(),
                                                    uint8_t(f.data.size()), check_type(o, f.id)));
    return 0;
  });
}

void run_read(const LinOptions& o) {
  Frame f;
  parse_frame(o.id, f, false);
  with_channel(o, 1, [&](const Target& t) {
    LIN_EX_MSG request{}, reply{};
    request.TimeStamp = 1;
    request.MsgType = LIN_EX_MSG_TYPE_MR;
    request.PID = f.id;
    request.CheckType = check_type(o, f.id);
    request.BreakBits = 13;
    const int n = LIN_EX_MasterSync(t.handle, t.channel, &request, &reply, 1);
    if (!failed("LIN_EX_MasterSync", n) && n == 1) {
      print_frame(t, reply);
      if (reply.DataLen == 0 || reply.CheckType == LIN_EX_CHECK_ERROR) exit_code() = 1;
    }
    return 0;
  });
}

void run_schedule(const LinOptions& o) {
  std::vector<LIN_EX_MSG> records;
  for (const auto& text : o.frames) {
    Frame f;
    parse_frame(text, f, true);
    LIN_EX_MSG msg{};
    msg.TimeStamp = f.period_ms;
    msg.MsgType = f.write ? LIN_EX_MSG_TYPE_MW : LIN_EX_MSG_TYPE_MR;
    msg.PID = f.id;
    msg.DataLen = uint8_t(f.data.size());
    std::copy(f.data.begin(), f.data.end(), msg.Data);
    msg.CheckType = f.write ? check_type(o, f.id) : LIN_EX_CHECK_STD;
    msg.BreakBits = 13;
    msg.Tag = 1;
    records.push_back(msg);
  }
  with_channel(o, 1, [&](const Target& t) {
    if (o.stop) {
      failed("LIN_EX_MasterStopSch", LIN_EX_MasterStopSch(t.handle, t.channel));
    } else if (!failed("LIN_EX_MasterSetSchRunTimes",
                       LIN_EX_MasterSetSchRunTimes(t.handle, t.channel, o.runs))) {
      failed("LIN_EX_MasterStartSch",
             LIN_EX_MasterStartSch(t.handle, t.channel, records.data(), uint32_t(records.size())));
    }
    return 0;
  });
}

void run_slave(const LinOptions& o) {
  Frame f;
  parse_frame(o.stop ? o.id : o.frame, f, false);
  with_channel(o, 0, [&](const Target& t) {
    if (o.stop) {
      failed("LIN_EX_StopSlaveResp", LIN_EX_StopSlaveResp(t.handle, t.channel, f.id));
    } else {
      LIN_EX_MSG entry{};
      entry.MsgType = LIN_EX_MSG_TYPE_SW;
      entry.PID = f.id;
      entry.DataLen = uint8_t(f.data.size());
      std::copy(f.data.begin(), f.data.end(), entry.Data);
      entry.CheckType = check_type(o, f.id);
      failed("LIN_EX_SlaveSetIDMode", LIN_EX_SlaveSetIDMode(t.handle, t.channel, &entry, 1));
    }
    return 0;
  });
}

std::atomic<bool> interrupted{false};

void run_dump(const LinOptions& o) {
  with_channel(o, 0, [&](const Target& t) {
    auto capture = o.capture.empty() ? nullptr : capture::CaptureFile::create(o.capture);
    if (!o.capture.empty() && !capture) return CallResult::reported();
    if (capture) capture->add_lin_channel(o.target, t.handle, t.channel, o.baud);
    interrupted = false;
    auto previous = std::signal(SIGINT, [](int) { interrupted = true; });
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(o.time_limit_ms);
    std::vector<LIN_EX_MSG> frames(256);
    int shown = 0;
    while (!interrupted && (o.count <= 0 || shown < o.count) &&
           (o.time_limit_ms <= 0 || std::chrono::steady_clock::now() < end)) {
      const int n = LIN_EX_GetMsg(t.handle, t.channel, frames.data(), int32_t(frames.size()));
      if (failed("LIN_EX_GetMsg", n)) break;
      const int64_t start_ms = LIN_EX_GetStartTime(t.handle, t.channel);
      for (int i = 0; i < n && (o.count <= 0 || shown < o.count); ++i, ++shown) {
        const LIN_EX_MSG& f = frames[size_t(i)];
        if (capture)
          capture->write_lin(0, f, capture::lin_host_us(start_ms, f.TimeStamp));
        else
          print_frame(t, f);
      }
      std::fflush(stdout);
      if (capture && !capture->flush()) break;
      if (n == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::signal(SIGINT, previous);
    if (capture && !capture->ok()) {
      std::fprintf(stderr, "lin dump: writing %s failed\n", o.capture.c_str());
      return CallResult::reported();
    }
    return CallResult(0);
  });
}

constexpr ResultMeaning kLinUdsResults[] = {
    {-98, "the request frame could not be sent"},
    {-99, "the frames did not come back from the bus as sent"},
    {-101, "no whole response in time"},
    {-103, "a consecutive frame came out of sequence"},
    {-105, "a frame that is not of the LIN diagnostic transport"},
    {-109, "the response is longer than 1 MiB"},
};

void run_uds(const LinOptions& o) {
  const auto requests = parse_requests(o.requests);
  if (!requests) {
    exit_code() = 2;
    return;
  }
  with_channel(o, 1, [&](const Target& t) {
    LIN_UDS_ADDR addr{0x3C, 0x3D, uint8_t(hex_value(o.nad, 2)), check_type(o, 0x3C), 0};
    for (auto request : *requests) {
      const int sent =
          LIN_UDS_Request(t.handle, t.channel, &addr, request.data(), int32_t(request.size()));
      if (sent != 0) {
        std::fprintf(stderr, "LIN_UDS_Request: %s\n",
                     describe_result(sent, kLinUdsResults).c_str());
        exit_code() = 1;
        break;
      }
      const bool ok = print_final_response(
          [&](uint8_t* out, uint32_t size, int wait_ms) {
            return VARNEL_LIN_UDS_ResponseN(t.handle, t.channel, &addr, out, size, wait_ms);
          },
          o.timeout_ms, kLinUdsResults);
      if (!ok) exit_code() = 1;
    }
    return 0;
  });
}

CLI::Validator checked(bool (*parse)(std::string, Frame&, bool), bool with_period,
                       const char* shape) {
  return CLI::Validator(
      [=](std::string& text) {
        Frame f;
        return parse(text, f, with_period) ? std::string() : std::string("expected ") + shape;
      },
      shape);
}

void add_lin_commands(CLI::App& app) {
  CLI::App* lin = app.add_subcommand("lin", "LIN: master write/read, schedules, slave, dump");
  lin->require_subcommand(1);
  auto o = std::make_shared<LinOptions>();
  const auto target = CLI::Validator(
      [](std::string& text) {
        Target t;
        return parse_target(text, t) ? std::string()
                                     : "expected HANDLE:CHANNEL (0..7), got " + text;
      },
      "HANDLE:CH");
  const auto frame = checked(parse_frame, false, "ID#DATA (hex, ID 0..3F, up to 8 bytes)");
  const auto id = checked(parse_frame, false, "an ID of 0..3F in hex");

  const auto add = [&](const char* name, const char* what) {
    CLI::App* command = lin->add_subcommand(name, what);
    command->add_option("TARGET", o->target, "HANDLE:CHANNEL")->required()->check(target);
    command->add_option("-b,--baud", o->baud, "baud rate (default 19200)")
        ->check(CLI::Range(1000u, 20000u));
    return command;
  };
  CLI::App* write = add("write", "a master write");
  write->add_option("FRAME", o->frame, "ID#DATA")->required()->check(frame);
  write->callback([o] { run_write(*o); });
  CLI::App* read = add("read", "a master read: the answer's frame line");
  read->add_option("ID", o->id, "ID in hex")->required()->check(id);
  read->callback([o] { run_read(*o); });
  CLI::App* schedule = add("schedule", "a schedule the adapter plays");
  schedule->add_option("FRAMES", o->frames, "ID@MS or ID#DATA@MS")
      ->check(checked(parse_frame, true, "ID@MS or ID#DATA@MS"));
  schedule->add_option("-n,--runs", o->runs, "times through the schedule (default: forever)");
  schedule->add_flag("--stop", o->stop, "stop the channel's schedule");
  schedule->callback([o] {
    if (o->stop == !o->frames.empty()) {
      std::fprintf(stderr, "give frames, or --stop\n");
      exit_code() = 2;
      return;
    }
    run_schedule(*o);
  });
  CLI::App* slave = add("slave", "the adapter's answer to a header (channel as slave)");
  slave->add_option("FRAME", o->frame, "ID#DATA")->check(frame);
  slave->add_option("--stop", o->id, "stop answering this ID")->check(id);
  slave->callback([o] {
    o->stop = !o->id.empty();
    if (o->stop == !o->frame.empty()) {
      std::fprintf(stderr, "give ID#DATA, or --stop ID\n");
      exit_code() = 2;
      return;
    }
    run_slave(*o);
  });
  CLI::App* dump = add("dump", "every frame the channel sees, one line each");
  dump->add_option("-n,--count", o->count, "frames to show (default: until Ctrl-C)");
  dump->add_option("-T,--timeout", o->time_limit_ms, "stop after this many ms");
  dump->add_option(
      "-w,--write", o->capture,
      "write the frames to a pcapng capture (Wireshark, tshark) instead; - for stdout");
  dump->callback([o] { run_dump(*o); });
  CLI::App* uds = add("uds", "diagnostic requests to a node (LIN diagnostic transport)");
  uds->add_option("NAD", o->nad, "node address in hex (1..7F)")
      ->required()
      ->check(CLI::Validator(
          [](std::string& text) {
            const int nad = hex_value(text, 2);
            return nad >= 1 && nad <= 0x7F ? std::string() : "expected a NAD of 1..7F, got " + text;
          },
          "NAD"));
  uds->add_option("REQUESTS", o->requests, "requests in hex: 22F190")->required();
  uds->add_option("-t,--timeout", o->timeout_ms, "ms to wait for each response (default 1000)");
  uds->callback([o] { run_uds(*o); });
  add_lin_flash_command(lin);
  for (CLI::App* command : {write, read, schedule, slave, uds}) {
    command->add_flag("--classic", o->classic, "classic checksums");
    command->add_flag("--enhanced", o->enhanced, "enhanced checksums");
  }
}

}  // namespace

VARNEL_COMMAND_GROUP(add_lin_commands)

}  // namespace varnel_cli
