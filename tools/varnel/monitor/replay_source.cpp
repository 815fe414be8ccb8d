// A recorded file (candump log or pcapng capture) played into the monitor, at its own pace or as
// fast as it is taken.
#include <chrono>
#include <cstdio>

#include "capture/frame_file.h"
#include "monitor/frame_source.h"

namespace varnel_cli::monitor {
namespace {

class FileReplay : public FrameSource {
 public:
  FileReplay(capture::FrameFile file, std::vector<ChannelInfo> info, bool fast)
      : file_(std::move(file)), info_(std::move(info)), fast_(fast) {
    started_ = std::chrono::steady_clock::now();
    file_start_us_ = file_.frames.empty() ? 0 : file_.frames.front().time_us;
  }

  const std::vector<ChannelInfo>& channels() const override { return info_; }

  uint64_t now_us() const override {
    if (fast_) return last_us_;
    return file_start_us_ + uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                                         std::chrono::steady_clock::now() - started_)
                                         .count());
  }

  bool fetch(std::vector<MonitorFrame>& out, std::string& message) override {
    const uint64_t until = now_us();
    for (size_t taken = 0; !fast_ || taken < kFastBatch; ++taken, ++next_) {
      if (next_ >= file_.frames.size()) {
        message = "replay: the log has ended";
        return false;
      }
      const capture::TimedFrame& f = file_.frames[next_];
      if (!fast_ && f.time_us > until) break;
      out.push_back({f.channel, f.time_us, f.frame});
      last_us_ = f.time_us;
    }
    return true;
  }

 private:
  static constexpr size_t kFastBatch = 2000;

  capture::FrameFile file_;
  std::vector<ChannelInfo> info_;
  size_t next_ = 0;
  bool fast_;
  std::chrono::steady_clock::time_point started_;
  uint64_t file_start_us_ = 0, last_us_ = 0;
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
