#include "socketcand/socketcand_channel.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "can/can_channel.h"
#include "core/adapter.h"
#include "core/can_time.h"
#include "core/result_text.h"

namespace varnel_cli::socketcand {
namespace {

// Records taken from the library's queue per call; the queue holds more, so receive() loops.
constexpr int32_t kBatch = 1024;

}  // namespace

CanChannel::CanChannel(ChannelId id) : id_(id), fd_(is_fd_adapter(id.handle)) {}

CanChannel::~CanChannel() {
  if (!receiving_) return;
  fd_ ? CANFD_StopGetMsg(id_.handle, id_.channel) : CAN_StopGetMsg(id_.handle, id_.channel);
}

int CanChannel::open(uint32_t bitrate, uint32_t data_bitrate, std::string& why) {
  // Only the rates of the adapter kind's table are accepted; say so rather than the bare -4.
  CAN_INIT_CONFIG classic{};
  CANFD_INIT_CONFIG fd{};
  if ((fd_ ? CANFD_GetCANSpeedArg(id_.handle, &fd, bitrate, data_bitrate)
           : CAN_GetCANSpeedArg(id_.handle, &classic, bitrate)) != 0) {
    why = fd_ ? "bit rates " + std::to_string(bitrate) + "/" + std::to_string(data_bitrate)
              : "bit rate " + std::to_string(bitrate);
    why += " not in the adapter's table";
    return -4;
  }
  int rc = fd_ ? CANFD_Init2(id_.handle, id_.channel, bitrate, data_bitrate, 1, 1)
               : CAN_Init2(id_.handle, id_.channel, bitrate);
  if (rc != 0) {
    why = std::string(fd_ ? "CANFD_Init2: " : "CAN_Init2: ") +
          describe_result(rc, can_init_context(id_.handle, fd_, bitrate, data_bitrate));
    return rc;
  }
  rc = fd_ ? CANFD_StartGetMsg(id_.handle, id_.channel) : CAN_StartGetMsg(id_.handle, id_.channel);
  if (rc != 0) {
    why = std::string(fd_ ? "CANFD_StartGetMsg: " : "CAN_StartGetMsg: ") + describe_result(rc);
    return rc;
  }
  receiving_ = true;
  return 0;
}

int CanChannel::send(const Frame& frame) {
  if (fd_) {
    CANFD_MSG msg{};
    msg.Id = frame.id | (frame.extended ? 0x80000000u : 0);
    msg.DataLen = frame.len;
    msg.Flags = frame.fd ? 0x05 : 0;  // CAN FD format with bit-rate switch
    std::memcpy(msg.Data, frame.data.data(), frame.len);
    return CANFD_SendMsg(id_.handle, id_.channel, &msg, 1);
  }
  if (frame.fd || frame.len > 8) return -4;
  CAN_MSG msg{};
  msg.Id = frame.id;
  msg.Extended = frame.extended ? 1 : 0;
  msg.DataLen = frame.len;
  std::memcpy(msg.Data, frame.data.data(), frame.len);
  return CAN_SendMsg(id_.handle, id_.channel, &msg, 1);
}

int CanChannel::receive(std::vector<TimedFrame>& out) {
  return fd_ ? receive_fd(out) : receive_classic(out);
}

int CanChannel::receive_classic(std::vector<TimedFrame>& out) {
  classic_buffer_.resize(kBatch);
  const int64_t start_ms = CAN_GetStartTime(id_.handle, id_.channel);
  int n = 0;
  do {
    n = CAN_GetMsgWithSize(id_.handle, id_.channel, classic_buffer_.data(), kBatch);
    if (n < 0) return n;
    for (int i = 0; i < n; ++i) {
      const CAN_MSG& msg = classic_buffer_[size_t(i)];
      if (msg.Flags & 0x81) continue;  // remote frame, or one this host sent
      TimedFrame timed;
      timed.frame.id = msg.Id & 0x1FFFFFFFu;
      timed.frame.extended = msg.Extended & 1;
      timed.frame.len = std::min<uint8_t>(msg.DataLen, 8);
      std::memcpy(timed.frame.data.data(), msg.Data, timed.frame.len);
      timed.time_us = frame_host_us(start_ms, msg.TimeStampHigh, msg.TimeStamp, kClassicTickUs);
      out.push_back(timed);
    }
  } while (n == kBatch);
  return 0;
}

int CanChannel::receive_fd(std::vector<TimedFrame>& out) {
  fd_buffer_.resize(kBatch);
  const int64_t start_ms = CANFD_GetStartTime(id_.handle, id_.channel);
  int n = 0;
  do {
    n = CANFD_GetMsg(id_.handle, id_.channel, fd_buffer_.data(), kBatch);
    if (n < 0) return n;
    for (int i = 0; i < n; ++i) {
      const CANFD_MSG& msg = fd_buffer_[size_t(i)];
      if (msg.Id == VARNEL_CANFD_EVENT_ID) continue;
      if ((msg.Id & 0x40000000u) || (msg.Flags & 0x80)) continue;  // remote, or our echo
      TimedFrame timed;
      timed.frame.id = msg.Id & 0x1FFFFFFFu;
      timed.frame.extended = (msg.Id >> 31) & 1;
      timed.frame.fd = (msg.Flags >> 2) & 1;
      timed.frame.len = std::min<uint8_t>(msg.DataLen, 64);
      std::memcpy(timed.frame.data.data(), msg.Data, timed.frame.len);
      // CAN FD time stamps count 1 µs.
      timed.time_us = frame_host_us(start_ms, msg.TimeStampHigh, msg.TimeStamp, kFdTickUs);
      out.push_back(timed);
    }
  } while (n == kBatch);
  return 0;
}

AdapterSet::~AdapterSet() {
  for (uint32_t handle : open_) close_adapter(handle);
}

bool AdapterSet::open(uint32_t handle) {
  if (open_.count(handle)) return true;
  if (!open_adapter(handle)) return false;  // it said why on stderr
  open_.insert(handle);
  return true;
}

}  // namespace varnel_cli::socketcand
