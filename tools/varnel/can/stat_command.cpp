// varnel can stat CHANNEL[@BITRATE]... [-r] [-e|-i] [-t] [-b BITRATE]
// canbusload's view: once a second, per channel, the frames, the bits on the wire (stuff bits
// worst case by default, -e exact, -i none), the data bits and the bus load, in its columns:
//    can0@500000   805   84470  13110  16%
// -r redraws the screen each second instead of scrolling, -t prints a time stamp line.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "can/bus_statistics.h"
#include "can/can_channel.h"
#include "core/command_group.h"
#include "monitor/frame_source.h"

namespace varnel_cli {
namespace {

struct StatOptions {
  std::vector<std::string> channels;  // canN or HANDLE:CH, each with an optional @BITRATE
  uint32_t bitrate = 500000, data_bitrate = 2000000;
  bool redraw = false, exact = false, ignore_stuffing = false, time_stamp = false;
  int reports = 0;  // 0: until Ctrl-C
};

std::atomic<bool> stat_interrupted{false};

const char* stuffing_text(Stuffing s) {
  return s == Stuffing::kExact  ? "exact bitstuffing"
         : s == Stuffing::kNone ? "ignore bitstuffing"
                                : "worst case bitstuffing";
}

void print_report(const std::vector<monitor::ChannelInfo>& channels, std::vector<BusLoad>& loads,
                  uint64_t now_us, const StatOptions& o, Stuffing stuffing) {
  if (o.redraw) std::printf("\033[H\033[2J");  // home and clear, as canbusload -r does
  if (o.time_stamp || o.redraw) {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    std::printf("%scanbusload %s (%s)\n", o.redraw ? "" : "\n", date, stuffing_text(stuffing));
  }
  size_t name_width = 0, rate_width = 0;
  for (const auto& c : channels) {
    name_width = std::max(name_width, c.name.size());
    rate_width = std::max(rate_width, std::to_string(c.bitrate).size());
  }
  for (size_t i = 0; i < channels.size(); ++i) {
    const auto f = loads[i].figures(now_us);
    // canbusload truncates: bits * 100 / bit rate
    const int percent = int(std::floor(f.load_percent + 1e-9));
    std::printf(" %*s@%-*u %5u %7llu %6llu %3d%%\n", int(name_width), channels[i].name.c_str(),
                int(rate_width), channels[i].bitrate, f.frames, (unsigned long long)f.bits,
                (unsigned long long)f.payload_bits, percent);
  }
  std::fflush(stdout);
}

void run_stat(const StatOptions& o) {
  std::vector<std::string> names;
  std::vector<uint32_t> rates;
  for (const std::string& text : o.channels) {
    const size_t at = text.find('@');
    names.push_back(text.substr(0, at));
    rates.push_back(at == std::string::npos ? o.bitrate
                                            : uint32_t(std::stoul(text.substr(at + 1))));
  }
  // The channels are opened one rate at a time: each may run at its own.
  std::vector<std::unique_ptr<monitor::FrameSource>> sources;
  std::vector<monitor::ChannelInfo> channels;
  for (size_t i = 0; i < names.size(); ++i) {
    auto source = monitor::open_live_can({names[i]}, rates[i], o.data_bitrate);
    if (!source) return;
    channels.push_back(source->channels().front());
    sources.push_back(std::move(source));
  }
  const Stuffing stuffing = o.exact             ? Stuffing::kExact
                            : o.ignore_stuffing ? Stuffing::kNone
                                                : Stuffing::kWorstCase;
  std::vector<BusLoad> loads;
  for (const auto& c : channels) loads.emplace_back(c.bitrate, c.data_bitrate, 1000000, stuffing);
  stat_interrupted = false;
  auto previous = std::signal(SIGINT, [](int) { stat_interrupted = true; });
  auto next_report = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  std::vector<monitor::MonitorFrame> frames;
  for (int reports = 0; !stat_interrupted && (o.reports <= 0 || reports < o.reports);) {
    for (size_t i = 0; i < sources.size(); ++i) {
      frames.clear();
      std::string message;
      if (!sources[i]->fetch(frames, message)) {
        std::fprintf(stderr, "can stat: %s\n", message.c_str());
        exit_code() = 1;
        stat_interrupted = true;
        break;
      }
      for (const auto& f : frames)
        if (!monitor::is_device_event(f.msg)) loads[i].add(monitor::bus_frame_of(f.msg), f.at_us);
    }
    if (std::chrono::steady_clock::now() >= next_report) {
      next_report += std::chrono::seconds(1);
      print_report(channels, loads, sources.front()->now_us(), o, stuffing);
      ++reports;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::signal(SIGINT, previous);
  for (auto& source : sources) source->close();
}

}  // namespace

void add_can_stat_command(CLI::App* can) {
  auto o = std::make_shared<StatOptions>();
  CLI::App* stat = can->add_subcommand("stat", "bus load per channel, as canbusload shows it");
  stat->add_option("CHANNEL", o->channels, "canN or HANDLE:CH, optionally @BITRATE")->required();
  stat->add_option("-b,--bitrate", o->bitrate, "bit rate of channels without @ (default 500000)");
  stat->add_option("--data-bitrate", o->data_bitrate, "CAN FD data bit rate (default 2000000)");
  stat->add_flag("-r,--redraw", o->redraw, "redraw the screen each second");
  auto* exact = stat->add_flag("-e,--exact", o->exact, "count the frames' real stuff bits");
  stat->add_flag("-i,--ignore-stuffing", o->ignore_stuffing, "count no stuff bits")
      ->excludes(exact);
  stat->add_flag("-t,--time", o->time_stamp, "a time stamp line before each report");
  stat->add_option("--reports", o->reports, "stop after N reports (default: at Ctrl-C)");
  stat->callback([o] { run_stat(*o); });
}

}  // namespace varnel_cli
