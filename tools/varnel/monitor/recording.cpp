#include "monitor/recording.h"

#include <cerrno>
#include <cstring>

#include "src/can/can_text.h"

namespace varnel_cli::monitor {

bool names_pcapng(const std::string& path) {
  const std::string suffix = ".pcapng";
  return path.size() >= suffix.size() &&
         path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::unique_ptr<Recording> Recording::open(const std::string& path,
                                           const std::vector<ChannelInfo>& channels) {
  std::unique_ptr<Recording> recording(new Recording(channels));
  if (!names_pcapng(path)) {
    recording->log_ = std::fopen(path.c_str(), "w");
    if (!recording->log_) {
      std::fprintf(stderr, "cannot write %s: %s\n", path.c_str(), std::strerror(errno));
      return nullptr;
    }
    return recording;
  }
  recording->capture_ = capture::CaptureFile::create(path);
  if (!recording->capture_) return nullptr;
  for (const ChannelInfo& c : channels) {
    if (c.handle)
      recording->capture_->add_can_channel(c.name, c.handle, c.channel, c.bitrate, c.data_bitrate);
    else
      recording->capture_->add_can_interface(c.name, "VARNEL monitor replay");
  }
  recording->capture_->flush();
  return recording;
}

Recording::~Recording() {
  if (log_) std::fclose(log_);
}

void Recording::write(const std::vector<MonitorFrame>& frames) {
  for (const MonitorFrame& f : frames) {
    if (capture_) {
      capture_->write_can(uint32_t(f.channel), f.msg, f.at_us);
    } else if (!is_device_event(f.msg)) {
      const std::string line =
          varnel::can_text::candump_log_line(channels_[f.channel].name, f.msg, f.at_us);
      std::fprintf(log_, "%s\n", line.c_str());
    }
  }
  capture_ ? (void)capture_->flush() : (void)std::fflush(log_);
}

}  // namespace varnel_cli::monitor
