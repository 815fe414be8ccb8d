// Live CAN channels for the monitor: opened as `varnel can dump` opens them, read through the
// library's receive poller, closed when the monitor ends.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <set>

#include "can/can_channel.h"
#include "core/adapter.h"
#include "core/can_names.h"
#include "core/can_time.h"
#include "monitor/frame_source.h"

namespace varnel_cli::monitor {
namespace {

uint64_t host_now_us() {
  return uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count());
}

struct LiveChannel {
  OpenCanChannel open;
  bool fd = false;
  int64_t start_ms = 0;
  int64_t reconnects_at_start = 0;
};

class LiveCanSource : public FrameSource {
 public:
  LiveCanSource(std::vector<LiveChannel> live, std::vector<ChannelInfo> info)
      : live_(std::move(live)), info_(std::move(info)) {
    classic_.resize(VARNEL_CAN_QUEUE_SIZE);
    fd_.resize(5000);
  }
  ~LiveCanSource() override { close(); }

  const std::vector<ChannelInfo>& channels() const override { return info_; }
  uint64_t now_us() const override { return host_now_us(); }

  bool fetch(std::vector<MonitorFrame>& out, std::string& message) override {
    for (size_t i = 0; i < live_.size(); ++i) {
      const LiveChannel& c = live_[i];
      const int n = c.fd ? CANFD_GetMsg(c.open.handle, c.open.channel, fd_.data(), int(fd_.size()))
                         : CAN_GetMsg(c.open.handle, c.open.channel, classic_.data());
      if (n < 0) {
        message =
            info_[i].name + ": " + (c.fd ? "CANFD_GetMsg: " : "CAN_GetMsg: ") + result_text(n);
        return false;
      }
      const unsigned tick = c.fd ? kFdTickUs : kClassicTickUs;
      for (int k = 0; k < n; ++k) {
        MonitorFrame f;
        f.channel = i;
        f.msg = c.fd ? fd_[size_t(k)] : from_classic(classic_[size_t(k)]);
        f.at_us = frame_host_us(c.start_ms, f.msg.TimeStampHigh, f.msg.TimeStamp, tick);
        out.push_back(f);
      }
    }
    return true;
  }

  ChannelHealth health(size_t channel) override {
    ChannelHealth h;
    const LiveChannel& c = live_.at(channel);
    VARNEL_RECEIVE_STATS s{};
    if (VARNEL_CAN_GetReceiveStats(c.open.handle, c.open.channel, &s) != 0) return h;
    h.known = true;
    h.application_dropped = s.ApplicationDropped;
    h.diagnostic_dropped = s.DiagnosticDropped;
    h.fetches_dropped = s.FetchesDropped;
    h.poller_running = s.PollerRunning;
    h.poller_stop_result = s.PollerStopResult;
    h.status_result = s.StatusResult;
    h.rx_errors = s.Status.RxErrorCounter;
    h.tx_errors = s.Status.TxErrorCounter;
    h.error_flags = s.Status.ErrorFlags & 7;
    h.reconnects = VARNEL_GetReconnectCount(c.open.handle) - c.reconnects_at_start;
    return h;
  }

  int send(size_t channel, const CANFD_MSG& frame) override {
    const LiveChannel& c = live_.at(channel);
    CANFD_MSG fd = frame;
    if (c.fd) {
      const int rc = CANFD_SendMsg(c.open.handle, c.open.channel, &fd, 1);
      return rc == 1 ? 0 : rc < 0 ? rc : -1;
    }
    if (frame.Flags & 0x04 || frame.DataLen > 8) return -7;  // no CAN FD controller here
    CAN_MSG msg{};
    msg.Id = frame.Id & 0x1FFFFFFFu;
    msg.Extended = (frame.Id >> 31) & 1;
    msg.Flags = (frame.Id >> 30) & 1;
    msg.DataLen = frame.DataLen;
    std::memcpy(msg.Data, frame.Data, 8);
    const int rc = CAN_SendMsg(c.open.handle, c.open.channel, &msg, 1);
    return rc == 1 ? 0 : rc < 0 ? rc : -1;
  }

  void close() override {
    std::set<uint32_t> handles;
    for (const LiveChannel& c : live_) {
      c.fd ? CANFD_StopGetMsg(c.open.handle, c.open.channel)
           : CAN_StopGetMsg(c.open.handle, c.open.channel);
      handles.insert(c.open.handle);
    }
    for (uint32_t handle : handles) close_adapter(handle);
    live_.clear();
  }

 private:
  static CANFD_MSG from_classic(const CAN_MSG& msg) {
    CANFD_MSG fd{};
    fd.Id = msg.Id | (msg.Extended & 1 ? 0x80000000u : 0) | (msg.Flags & 1 ? 0x40000000u : 0);
    fd.DataLen = msg.DataLen > 8 ? 8 : msg.DataLen;
    fd.TimeStamp = msg.TimeStamp;
    fd.TimeStampHigh = msg.TimeStampHigh;
    std::memcpy(fd.Data, msg.Data, 8);
    return fd;
  }

  std::vector<LiveChannel> live_;
  std::vector<ChannelInfo> info_;
  std::vector<CAN_MSG> classic_;
  std::vector<CANFD_MSG> fd_;
};

}  // namespace

std::unique_ptr<FrameSource> open_live_can(const std::vector<std::string>& names, uint32_t bitrate,
                                           uint32_t data_bitrate) {
  std::vector<LiveChannel> live;
  std::vector<ChannelInfo> info;
  auto give_up = [&] {
    for (const LiveChannel& c : live) close_adapter(c.open.handle);
    return nullptr;
  };
  for (const std::string& text : names) {
    const auto name = parse_can_channel_name(text);
    if (!name) {
      std::fprintf(stderr, "monitor: %s is not a CAN channel (canN or HANDLE:CH)\n", text.c_str());
      return give_up();
    }
    const auto open = open_can_channel(*name, bitrate, data_bitrate);
    if (!open) return give_up();
    LiveChannel c{*open, is_fd_adapter(open->handle)};
    c.fd ? CANFD_StartGetMsg(c.open.handle, c.open.channel)
         : CAN_StartGetMsg(c.open.handle, c.open.channel);
    c.start_ms = c.fd ? CANFD_GetStartTime(c.open.handle, c.open.channel)
                      : CAN_GetStartTime(c.open.handle, c.open.channel);
    // without a start time (an old adapter), frames count from their arrival
    if (c.start_ms <= 0) c.start_ms = int64_t(host_now_us() / 1000);
    c.reconnects_at_start = VARNEL_GetReconnectCount(c.open.handle);
    info.push_back({open->interface, bitrate, data_bitrate, open->handle, open->channel});
    live.push_back(c);
  }
  return std::make_unique<LiveCanSource>(std::move(live), std::move(info));
}

}  // namespace varnel_cli::monitor
