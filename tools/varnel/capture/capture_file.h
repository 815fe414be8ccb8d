// What a dump writes with -w: a pcapng capture with one interface per channel, each frame as it
// was received. The dump commands and the extcap program hold one of these and call write_can /
// write_lin for every frame they show.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "capture/pcapng_writer.h"
#include "varnel.h"

namespace varnel_cli::capture {

class CaptureFile {
 public:
  // Creates (truncates) `path`; "-" writes to standard output. Nullptr, having printed why on
  // stderr, when it cannot be created.
  static std::unique_ptr<CaptureFile> create(const std::string& path);
  // Writes to an open stream (Wireshark's FIFO), flushing after every batch of frames.
  static std::unique_ptr<CaptureFile> on_stream(std::FILE* out, bool owned);
  ~CaptureFile();

  // The interfaces, in the order their frames will name them. `name` is the channel's name
  // (can0, lin0); the description says the adapter, channel and rates.
  uint32_t add_can_channel(const std::string& name, uint32_t handle, uint8_t channel,
                           uint32_t bitrate, uint32_t data_bitrate);
  // A CAN channel that is no adapter's (a replayed file's), described in words.
  uint32_t add_can_interface(const std::string& name, const std::string& description);
  uint32_t add_lin_channel(const std::string& name, uint32_t handle, uint8_t channel,
                           uint32_t baud);

  // A received CAN/CAN FD record; a device event record becomes a SocketCAN error frame.
  bool write_can(uint32_t interface, const CANFD_MSG& frame, uint64_t host_us);
  // A LIN frame; a break alone is skipped (it is no frame).
  bool write_lin(uint32_t interface, const LIN_EX_MSG& frame, uint64_t host_us);

  bool flush() { return writer_.flush(); }
  bool ok() const { return writer_.ok(); }
  uint64_t frames() const { return writer_.packets(); }

 private:
  CaptureFile(std::FILE* out, bool owned);

  std::FILE* out_;
  bool owned_;
  PcapngWriter writer_;
};

}  // namespace varnel_cli::capture

namespace varnel_cli::capture {

// Host time of a LIN frame: the channel's start time (host ms at device time 0) plus the frame's
// device time stamp, which counts milliseconds.
inline uint64_t lin_host_us(int64_t start_ms, uint32_t stamp_ms) {
  return (uint64_t(start_ms < 0 ? 0 : start_ms) + stamp_ms) * 1000;
}

}  // namespace varnel_cli::capture
