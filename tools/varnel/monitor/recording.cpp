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

void Recording::add_family_channels(const std::vector<FamilyChannelInfo>& channels) {
  bool left_out = false;
  for (const FamilyChannelInfo& c : channels) {
    const bool recorded = capture_ && c.family == Family::kLin;
    lin_interface_.push_back(
        recorded ? int(capture_->add_lin_channel(c.name, c.handle, c.channel, c.baud)) : -1);
    left_out |= !recorded;
  }
  if (capture_) capture_->flush();
  if (left_out)
    std::fprintf(stderr, "monitor: the recording holds %s: %s not recorded\n",
                 capture_ ? "CAN and LIN frames" : "CAN frames only",
                 capture_ ? "UART bytes and K-line frames are" : "LIN, UART and K-line are");
}

void Recording::write(const FamilyBatch& batch) {
  if (!capture_ || batch.lin.empty()) return;
  for (const auto& f : batch.lin)
    if (f.channel < lin_interface_.size() && lin_interface_[f.channel] >= 0)
      capture_->write_lin(uint32_t(lin_interface_[f.channel]), f.msg, f.at_us);
  capture_->flush();
}

}  // namespace varnel_cli::monitor
