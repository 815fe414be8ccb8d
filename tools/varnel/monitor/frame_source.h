// Where the monitor's frames come from: live CAN channels, or a recorded file played back. The
// monitor only fetches, asks the time and (where allowed) sends, so another source plugs in
// without touching the server.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "monitor/monitor_frame.h"

namespace varnel_cli::monitor {

class FrameSource {
 public:
  virtual ~FrameSource() = default;
  virtual const std::vector<ChannelInfo>& channels() const = 0;
  // Appends the frames that arrived since the last call. False once the source has ended (the
  // log played out) or failed (the message says why).
  virtual bool fetch(std::vector<MonitorFrame>& out, std::string& message) = 0;
  // The time the source stands at, in the frames' time (host time, or the log's time).
  virtual uint64_t now_us() const = 0;
  virtual ChannelHealth health(size_t /*channel*/) { return {}; }
  // Puts a frame on the bus: 0, or a result code of the library; -1 where the source cannot.
  virtual int send(size_t /*channel*/, const CANFD_MSG& /*frame*/) { return -1; }
  // Releases what the source opened (the monitor calls it on Ctrl-C).
  virtual void close() {}

  // A replay's slider; nullopt for live channels, which cannot be moved in time.
  virtual std::optional<ReplayState> replay_state() const { return std::nullopt; }
  virtual void set_paused(bool /*paused*/) {}
  // Moves a replay to `at_us` (held within the log's span). Nullopt where the source cannot;
  // true when it goes back to the log's start, so the model must be cleared first. Until
  // seeking() is false again, fetch() gives the frames up to that time without waiting.
  virtual std::optional<bool> seek(uint64_t /*at_us*/) { return std::nullopt; }
  virtual bool seeking() const { return false; }
};

// Live channels, by name (canN or HANDLE:CH) with the same rates for all. Prints why not and
// returns nullptr when a channel cannot be had.
std::unique_ptr<FrameSource> open_live_can(const std::vector<std::string>& names, uint32_t bitrate,
                                           uint32_t data_bitrate);

// A candump log or pcapng capture (capture/frame_file.h) played at its own timing, or as fast as
// the monitor takes it with `fast`. Its channels (log interfaces, capture interface names) become
// the source's channels in order of first appearance. Prints why not and returns nullptr when the
// file cannot be read, is bad, or holds no CAN frame.
std::unique_ptr<FrameSource> open_file_replay(const std::string& path, bool fast, uint32_t bitrate,
                                              uint32_t data_bitrate);

}  // namespace varnel_cli::monitor
