// What the page shows, gathered from the frames as they come: per channel the bus load and the
// per-identifier table (with the DBC's decoded signals), the newest frames for the trace, and per
// signal one decimated plot point per publishing interval. The server turns it into JSON at a
// bounded rate, so the page never sees every frame of a busy bus. Not thread-safe: the server
// holds its lock around every call.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "can/bus_statistics.h"
#include "monitor/monitor_frame.h"
#include "varnel.h"

namespace varnel_cli::monitor {

// The values one signal took during a publishing interval, as one plot point: the extremes
// keep a spike visible however many frames the interval held.
class SignalDecimator {
 public:
  struct Point {
    uint64_t at_us = 0;  // the first value's time
    double min = 0, max = 0, last = 0;
    uint32_t count = 0;
  };
  void add(uint64_t at_us, double value);
  // The interval's point, if a value came, and a fresh interval.
  std::optional<Point> take();

 private:
  Point pending_;
};

struct MonitorLimits {
  size_t trace_rows_per_update = 100;  // the newest frames of an interval; the rest are counted
  uint64_t load_window_us = 1000000;
  Stuffing stuffing = Stuffing::kExact;
};

// A replay's position as the page's slider reads it (times in µs of the log).
std::string replay_json(const ReplayState& replay);

class MonitorModel {
 public:
  // `db` may be 0 (no decoding).
  MonitorModel(std::vector<ChannelInfo> channels, DBC_HANDLE db, MonitorLimits limits = {});

  void add(const MonitorFrame& frame) { add_frame(frame, true, true); }
  // A frame a replay's seek goes over on its way to `to_us`: counted in the table, in the load
  // only when within its window before `to_us` (the bit counting is most of a frame's cost),
  // and without a plot point (the page does not plot the span a seek jumps).
  void add_jumped(const MonitorFrame& frame, uint64_t to_us) {
    add_frame(frame, false, frame.at_us + limits_.load_window_us >= to_us);
  }
  void set_health(size_t channel, const ChannelHealth& health);
  // A text for the page's message line: a sticky one (a DBC that would not load) goes into every
  // full update, the others (a failed send) into the next update only.
  void note(std::string text, bool sticky = false);
  // Forgets the table, counts and statistics (the page's Clear).
  void clear();
  // After a replay's seek fed the frames up to the new time: the trace lists the frames just
  // before it rather than counting the jumped-over ones as not listed.
  void settle_after_seek();
  // A replay's position, for the page's slider: in every update from now on.
  void set_replay(const ReplayState& replay) { replay_ = replay; }

  // The update of the interval that ends at `now_us`: with `full`, every table row (for a page
  // that just connected or lost updates), else the rows that changed. Call end_interval() after
  // the interval's updates are built.
  std::string update_json(uint64_t now_us, bool full);
  void end_interval();

  const std::vector<ChannelInfo>& channels() const { return channels_; }

 private:
  struct SignalMeta {
    std::string name, unit;
  };
  struct MessageMeta {
    bool known = false;
    std::string name;
    std::vector<SignalMeta> signals;
  };
  struct ChannelState {
    explicit ChannelState(const ChannelInfo& info, const MonitorLimits& limits);
    BusLoad load;
    IdStatistics ids;
    uint64_t frames = 0, device_events = 0;
    ChannelHealth health;
  };
  using RowKey = std::pair<size_t, IdStatistics::Key>;

  void add_frame(const MonitorFrame& frame, bool plot, bool load);
  const MessageMeta& message_of(uint32_t msg_id);
  void decode_into_plots(const MonitorFrame& frame, const MessageMeta& meta);
  void append_channels(std::string& out, uint64_t now_us);
  void append_row(std::string& out, const RowKey& key, const IdStatistics::Entry& entry);
  void append_trace(std::string& out);
  void append_points(std::string& out);

  std::vector<ChannelInfo> channels_;
  DBC_HANDLE db_;
  MonitorLimits limits_;
  std::vector<ChannelState> state_;
  std::map<uint32_t, MessageMeta> messages_;  // by identifier with bit 31 for extended
  std::set<RowKey> changed_rows_;
  std::vector<MonitorFrame> trace_;  // a ring of the interval's newest frames
  size_t trace_next_ = 0;
  uint64_t trace_seen_ = 0;
  std::map<std::string, SignalDecimator> plots_;                        // "can0/Message.Signal"
  std::vector<std::pair<std::string, SignalDecimator::Point>> points_;  // taken this interval
  bool points_taken_ = false;
  std::vector<std::string> notes_, sticky_notes_;
  std::vector<double> values_;
  std::vector<uint8_t> selected_;
  std::optional<ReplayState> replay_;
};

}  // namespace varnel_cli::monitor
