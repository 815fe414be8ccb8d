// What the monitor records: a candump log, or a pcapng capture when the file's name ends in
// .pcapng (the same capture `can dump -w` writes: one interface per channel, the adapter's error
// state events as SocketCAN error frames, which a log has no line for).
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "capture/capture_file.h"
#include "monitor/family_source.h"
#include "monitor/monitor_frame.h"

namespace varnel_cli::monitor {

bool names_pcapng(const std::string& path);

class Recording {
 public:
  // Creates (truncates) `path`; nullptr, having printed why on stderr, when it cannot.
  static std::unique_ptr<Recording> open(const std::string& path,
                                         const std::vector<ChannelInfo>& channels);
  ~Recording();

  // A batch of frames, flushed so that a reader of the file sees them.
  void write(const std::vector<MonitorFrame>& frames);

  // The LIN channels among the other families' channels become interfaces of a pcapng capture
  // (LINKTYPE_LIN) after the CAN ones; a candump log has no line for them, and neither format
  // for UART bytes or K-line frames: what is left out is said once on stderr.
  void add_family_channels(const std::vector<FamilyChannelInfo>& channels);
  void write(const FamilyBatch& batch);

 private:
  explicit Recording(std::vector<ChannelInfo> channels) : channels_(std::move(channels)) {}

  std::vector<ChannelInfo> channels_;
  std::FILE* log_ = nullptr;
  std::unique_ptr<capture::CaptureFile> capture_;  // its interfaces numbered as the channels
  std::vector<int> lin_interface_;                 // per family channel; -1: not recorded
};

}  // namespace varnel_cli::monitor
