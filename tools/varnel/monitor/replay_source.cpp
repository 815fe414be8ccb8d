// A recorded file (candump log or pcapng capture) played into the monitor, at its own pace or as
// fast as it is taken.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>

#include "capture/frame_file.h"
#include "monitor/frame_source.h"

namespace varnel_cli::monitor {
namespace {

class FileReplay : public FrameSource {
 public:
  FileReplay(capture::FrameFile file, std::vector<ChannelInfo> info, bool fast)
      : file_(std::move(file)), info_(std::move(info)), fast_(fast) {
    anchor_ = std::chrono::steady_clock::now();
    first_us_ = position_us_ = file_.frames.front().time_us;
    // the latest stamp, not the last line's: merged logs are not always in time order
    for (const auto& f : file_.frames) last_us_ = std::max(last_us_, f.time_us);
  }

  const std::vector<ChannelInfo>& channels() const override { return info_; }

  uint64_t now_us() const override {
    std::lock_guard lock(mutex_);
    return position();
  }

  bool fetch(std::vector<MonitorFrame>& out, std::string& /*message*/) override {
    std::lock_guard lock(mutex_);
    const bool by_clock = !fast_ || paused_ || seeking_;
    const uint64_t until = position();
    size_t taken = 0;
    for (; taken < kBatch && next_ < file_.frames.size(); ++taken, ++next_) {
      const capture::TimedFrame& f = file_.frames[next_];
      if (by_clock && f.time_us > until) break;
      out.push_back({f.channel, f.time_us, f.frame});
      if (!by_clock) position_us_ = f.time_us;
    }
    if (seeking_ && taken < kBatch) {  // caught up: the clock runs on from the seek's time
      seeking_ = false;
      anchor_ = std::chrono::steady_clock::now();
    }
    // the end is shown on the slider; the page stays up, and a seek can move back from it
    return true;
  }

  std::optional<ReplayState> replay_state() const override {
    std::lock_guard lock(mutex_);
    ReplayState state;
    state.first_us = first_us_;
    state.last_us = last_us_;
    state.at_us = position();
    state.seeks = seeks_;
    state.seek_us = seek_us_;
    state.paused = paused_;
    state.fast = fast_;
    state.ended = next_ >= file_.frames.size() && state.at_us >= last_us_;
    return state;
  }

  void set_paused(bool paused) override {
    std::lock_guard lock(mutex_);
    if (paused == paused_) return;
    position_us_ = position();
    anchor_ = std::chrono::steady_clock::now();
    paused_ = paused;
  }

  // The frames are all in memory already (the file is read whole before the replay starts), so
  // a seek keeps no snapshots: forwards it feeds on from where the model stands, backwards it
  // feeds again from the first frame. Either way only the frames up to the new time, without
  // their plot points.
  std::optional<bool> seek(uint64_t at_us) override {
    std::lock_guard lock(mutex_);
    at_us = std::clamp(at_us, first_us_, last_us_);
    const bool from_start = next_ > 0 && file_.frames[next_ - 1].time_us > at_us;
    if (from_start) next_ = 0;
    position_us_ = seek_us_ = at_us;
    seeking_ = true;
    ++seeks_;
    return from_start;
  }

  bool seeking() const override {
    std::lock_guard lock(mutex_);
    return seeking_;
  }

 private:
  // Fed at most this many frames a call, so that a seek or `--fast` never holds a long log's
  // worth of copies at once.
  static constexpr size_t kBatch = 2000;

  // The log time the replay stands at, held at the last frame: it runs with the clock from the
  // last start, seek or resume when played at the log's own pace; fast, it is the last frame
  // fed; paused or seeking, it stands still.
  uint64_t position() const {
    if (paused_ || seeking_ || fast_) return position_us_;
    const auto ran = std::chrono::steady_clock::now() - anchor_;
    return std::min(
        last_us_, position_us_ +
                      uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(ran).count()));
  }

  capture::FrameFile file_;
  std::vector<ChannelInfo> info_;
  const bool fast_;
  mutable std::mutex mutex_;  // fetched by the capture, moved by the page's requests
  size_t next_ = 0;
  std::chrono::steady_clock::time_point anchor_;
  uint64_t first_us_ = 0, last_us_ = 0, position_us_ = 0, seek_us_ = 0, seeks_ = 0;
  bool paused_ = false, seeking_ = false;
};

}  // namespace

std::unique_ptr<FrameSource> open_file_replay(const std::string& path, bool fast, uint32_t bitrate,
                                              uint32_t data_bitrate) {
  std::string error;
  auto file = capture::read_frame_file(path, error);
  if (!file) {
    std::fprintf(stderr, "monitor: %s\n", error.c_str());
    return nullptr;
  }
  if (file->frames.empty()) {
    std::fprintf(stderr, "monitor: %s holds no CAN frame\n", path.c_str());
    return nullptr;
  }
  // the file's channels, in order of first appearance
  std::vector<ChannelInfo> info;
  for (const auto& channel : file->channels) info.push_back({channel.name, bitrate, data_bitrate});
  return std::make_unique<FileReplay>(std::move(*file), std::move(info), fast);
}

}  // namespace varnel_cli::monitor
