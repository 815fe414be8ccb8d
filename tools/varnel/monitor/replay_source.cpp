// A candump log played into the monitor, at the log's own pace or as fast as it is taken.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <optional>

#include "monitor/frame_source.h"
#include "src/can/can_text.h"

namespace varnel_cli::monitor {
namespace {

// One "(1700000000.123456) can0 123#DEADBEEF" line: its time, interface and frame; nullopt for
// anything else (comments, blank lines).
struct LogLine {
  uint64_t at_us = 0;
  std::string interface;
  CANFD_MSG msg{};
};

std::optional<LogLine> parse_log_line(const std::string& line) {
  unsigned long long seconds = 0, micros = 0;
  char interface[64] = {}, frame[256] = {};
  if (std::sscanf(line.c_str(), " (%llu.%6llu) %63s %255s", &seconds, &micros, interface, frame) !=
      4)
    return std::nullopt;
  auto msg = varnel::can_text::parse_frame(frame);
  if (!msg) return std::nullopt;
  return LogLine{seconds * 1000000 + micros, interface, *msg};
}

class CandumpReplay : public FrameSource {
 public:
  CandumpReplay(std::ifstream file, std::vector<LogLine> first, std::vector<ChannelInfo> info,
                bool fast)
      : file_(std::move(file)), info_(std::move(info)), fast_(fast) {
    for (size_t i = 0; i < info_.size(); ++i) channel_of_[info_[i].name] = i;
    pending_ = std::move(first);
    started_ = std::chrono::steady_clock::now();
    log_start_us_ = pending_.empty() ? 0 : pending_.front().at_us;
  }

  const std::vector<ChannelInfo>& channels() const override { return info_; }

  uint64_t now_us() const override {
    if (fast_) return last_us_;
    return log_start_us_ + uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                                        std::chrono::steady_clock::now() - started_)
                                        .count());
  }

  bool fetch(std::vector<MonitorFrame>& out, std::string& message) override {
    const uint64_t until = now_us();
    for (size_t taken = 0; !fast_ || taken < kFastBatch; ++taken) {
      if (next_ >= pending_.size() && !refill()) {
        message = "replay: the log has ended";
        return false;
      }
      const LogLine& line = pending_[next_];
      if (!fast_ && line.at_us > until) break;
      const auto channel = channel_of_.find(line.interface);
      if (channel != channel_of_.end()) {
        out.push_back({channel->second, line.at_us, line.msg});
        last_us_ = line.at_us;
      }
      ++next_;
    }
    return true;
  }

 private:
  static constexpr size_t kFastBatch = 2000;

  // Reads the next lines of the log, a bounded number at a time.
  bool refill() {
    pending_.clear();
    next_ = 0;
    std::string text;
    while (pending_.size() < kFastBatch && std::getline(file_, text))
      if (auto line = parse_log_line(text)) pending_.push_back(std::move(*line));
    return !pending_.empty();
  }

  std::ifstream file_;
  std::vector<ChannelInfo> info_;
  std::map<std::string, size_t> channel_of_;
  std::vector<LogLine> pending_;
  size_t next_ = 0;
  bool fast_;
  std::chrono::steady_clock::time_point started_;
  uint64_t log_start_us_ = 0, last_us_ = 0;
};

}  // namespace

std::unique_ptr<FrameSource> open_candump_replay(const std::string& path, bool fast,
                                                 uint32_t bitrate, uint32_t data_bitrate) {
  std::ifstream file(path);
  if (!file) {
    std::fprintf(stderr, "monitor: cannot read %s\n", path.c_str());
    return nullptr;
  }
  // The channels are the interfaces of the log, found in one pass; the lines are then read again
  // as the replay goes, so a long log is never held whole.
  std::vector<ChannelInfo> info;
  std::string text;
  while (std::getline(file, text)) {
    auto line = parse_log_line(text);
    if (!line) continue;
    bool known = false;
    for (const auto& c : info) known = known || c.name == line->interface;
    if (!known) info.push_back({line->interface, bitrate, data_bitrate});
  }
  if (info.empty()) {
    std::fprintf(stderr, "monitor: %s holds no candump log line\n", path.c_str());
    return nullptr;
  }
  file.clear();
  file.seekg(0);
  std::vector<LogLine> first;
  while (first.empty() && std::getline(file, text))
    if (auto line = parse_log_line(text)) first.push_back(std::move(*line));
  return std::make_unique<CandumpReplay>(std::move(file), std::move(first), std::move(info), fast);
}

}  // namespace varnel_cli::monitor
