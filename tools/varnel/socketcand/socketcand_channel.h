// The adapter side of the socketcand bridge: one CAN channel opened through libvarnel, frames in
// and out in the protocol's form. Its bus names are the tool's channel names (can_names.h).
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "core/can_names.h"
#include "socketcand/socketcand_protocol.h"
#include "varnel.h"

namespace varnel_cli::socketcand {

using ChannelId = CanChannelId;

struct TimedFrame {
  Frame frame;
  uint64_t time_us = 0;  // host wall-clock microseconds
};

class CanChannel {
 public:
  explicit CanChannel(ChannelId id);
  ~CanChannel();
  CanChannel(const CanChannel&) = delete;
  CanChannel& operator=(const CanChannel&) = delete;

  // Initialises the channel (CAN FD adapters at both rates) and starts the library's receive
  // poller. 0, or the library's code with what failed in `why`.
  int open(uint32_t bitrate, uint32_t data_bitrate, std::string& why);

  // 1 when the frame went out; 0 when the device sent nothing (no node acknowledged); negative:
  // the library's code. A CAN FD frame on a classic channel is -4 without a transaction.
  int send(const Frame& frame);

  // Appends what arrived since the last call, oldest first. Remote frames (the protocol has no
  // form for them), device events and the echoes of our own frames are left out. Negative: the
  // library's code.
  int receive(std::vector<TimedFrame>& out);

  bool fd() const { return fd_; }
  ChannelId id() const { return id_; }

 private:
  int receive_classic(std::vector<TimedFrame>& out);
  int receive_fd(std::vector<TimedFrame>& out);

  ChannelId id_;
  bool fd_;
  bool receiving_ = false;
  std::vector<CAN_MSG> classic_buffer_;
  std::vector<CANFD_MSG> fd_buffer_;
};

// Opens each adapter once for the server's life and closes them all at the end.
class AdapterSet {
 public:
  ~AdapterSet();
  // False, having said why on stderr, when the adapter is not found or cannot be opened.
  bool open(uint32_t handle);

 private:
  std::set<uint32_t> open_;
};

}  // namespace varnel_cli::socketcand
