// A frame as the monitor handles it: the channel it came from (an index into the source's
// channel list), its host time and the library's CAN FD record (classic frames included).
#pragma once

#include <cstdint>
#include <string>

#include "can/bus_statistics.h"
#include "varnel.h"

namespace varnel_cli::monitor {

struct MonitorFrame {
  size_t channel = 0;
  uint64_t at_us = 0;  // host time (log time when replayed)
  CANFD_MSG msg{};
};

// What a channel is, as the page and the statistics need it.
struct ChannelInfo {
  std::string name;  // canN or HANDLE:CH, as `varnel can dump` names it
  uint32_t bitrate = 500000;
  uint32_t data_bitrate = 2000000;
  uint32_t handle = 0;  // the adapter and channel of a live channel; 0 for a replayed file
  uint8_t channel = 0;
};

// The receive path's state of a live channel (VARNEL_CAN_GetReceiveStats): losses in the host
// queues, the poller, and the controller's error state.
struct ChannelHealth {
  bool known = false;  // false for a replayed log
  uint64_t application_dropped = 0, diagnostic_dropped = 0, fetches_dropped = 0;
  bool poller_running = false;
  int poller_stop_result = 0;
  int status_result = 0;
  uint8_t rx_errors = 0, tx_errors = 0, error_flags = 0;  // flags: 1 warning, 2 passive, 4 bus off
  int64_t reconnects = 0;
};

// Where a replayed log stands, for the page's time slider (log time, µs).
struct ReplayState {
  uint64_t first_us = 0, last_us = 0;  // the log's first and last time stamps
  uint64_t at_us = 0;                  // the position: the frames up to it are in the model
  uint64_t seeks = 0, seek_us = 0;     // how often it was moved, and where to the last time
  bool paused = false, fast = false, ended = false;
};

inline bool is_device_event(const CANFD_MSG& msg) {
  return msg.Id == VARNEL_CANFD_EVENT_ID;
}

// The record's frame in the statistics' terms; `data` points into `msg`.
inline BusFrame bus_frame_of(const CANFD_MSG& msg) {
  BusFrame f;
  f.id = msg.Id & 0x1FFFFFFFu;
  f.extended = msg.Id & 0x80000000u;
  f.remote = msg.Id & 0x40000000u;
  f.fd = msg.Flags & 0x04;
  f.brs = f.fd && (msg.Flags & 0x01);
  f.length = msg.DataLen > 64 ? 64 : msg.DataLen;
  if (!f.remote) f.data = {msg.Data, f.length};
  return f;
}

}  // namespace varnel_cli::monitor
