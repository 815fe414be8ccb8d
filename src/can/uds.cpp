// Diagnostic messages over a CAN or CAN FD channel with ISO 15765-2 segmentation: the host cuts a
// request into single, first and consecutive frames, follows the receiver's flow control, and
// puts a response together from the frames the receive poller leaves in the diagnostic queue.
#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "can/can_internal.h"
#include "can/isotp_reader.h"
#include "core/adapter_state.h"
#include "core/bytes.h"
#include "core/clock.h"

using namespace varnel;
using namespace varnel::can;

namespace {

constexpr int kSendCount = CAN_UDS_ERR_SEND_COUNT;
constexpr int kTimeout = CAN_UDS_ERR_TIMEOUT;
constexpr int kOverflow = CAN_UDS_ERR_OVERFLOW;
constexpr int kNoDevice = CAN_UDS_ERR_DEVICE;

constexpr uint8_t kFlagExtended = 0x01, kFlagFd = 0x02, kFlagBrs = 0x04, kFlagSmallest = 0x80;
constexpr uint8_t kFirst = 0x10, kConsecutive = 0x20;
constexpr uint8_t kFlowContinue = 0x30, kFlowWait = 0x31, kFlowOverflow = 0x32;
constexpr size_t kBatch = 128;
constexpr int kReconnectTries = 301;
constexpr uint32_t kDefaultFlowWaitMs = 1000;
constexpr std::array<uint8_t, 8> kFdLengths = {8, 12, 16, 20, 24, 32, 48, 64};
constexpr uint32_t kLongestIsoGapUs = 127000;  // what a reserved STmin code stands for
constexpr double kDrainMs = 20;

// The configuration of each channel, and whether it reads flow control by ISO 15765-2, kept
// per adapter.
struct UdsConfigs {
  std::mutex mutex;
  std::array<CAN_UDS_CONFIG, 2> configs{};
  std::array<bool, 2> iso_timings{};
};

CAN_UDS_CONFIG config_of(uint32_t handle, uint8_t channel) {
  const auto adapter = adapter_table<UdsConfigs>().find(handle);
  if (!adapter) return CAN_UDS_CONFIG{};
  std::lock_guard guard(adapter->mutex);
  return adapter->configs[channel & 1];
}

bool iso_timing_of(uint32_t handle, uint8_t channel) {
  const auto adapter = adapter_table<UdsConfigs>().find(handle);
  if (!adapter) return false;
  std::lock_guard guard(adapter->mutex);
  return adapter->iso_timings[channel & 1];
}

uint8_t smallest_fd_length(size_t bytes) {
  for (uint8_t length : kFdLengths)
    if (length >= bytes) return length;
  return 64;
}

// The separation time a receiver's STmin byte asks for, in microseconds. 0-127 are milliseconds.
// By default any other code counts as 0; with ISO timing F1-F9 are 100-900 us and the reserved
// codes the longest time, 127 ms, as ISO 15765-2 tells a sender to read them.
uint32_t stmin_gap_us(uint8_t code, bool iso_timing) {
  if (code <= 0x7F) return uint32_t(code) * 1000;
  if (!iso_timing) return 0;
  if (code >= 0xF1 && code <= 0xF9) return uint32_t(code - 0xF0) * 100;
  return kLongestIsoGapUs;
}

// A frame's protocol bytes and data, before it becomes a device record.
struct Frame {
  uint8_t len = 0;
  std::array<uint8_t, 64> data{};
};

// One exchange on one channel: how frames are built and sent, and where they are taken from.
class Link {
 public:
  Link(uint32_t handle, uint8_t channel, CanState adapter, CAN_UDS_ADDR& addr)
      : handle_(handle),
        channel_(channel),
        adapter_(std::move(adapter)),
        fd_adapter_(is_fd_adapter(handle)),
        addr_(addr),
        config_(config_of(handle, channel)),
        iso_timing_(iso_timing_of(handle, channel)) {
    // The controller sends only CAN FD lengths and pads any other up to the next one, which a
    // receiver takes for data: a length in between is rounded up here, and frames are packed full.
    if (addr_.FrameLen < 8 || addr_.FrameLen > 64)
      addr_.FrameLen = 8;
    else
      addr_.FrameLen = smallest_fd_length(addr_.FrameLen);
  }

  const CAN_UDS_CONFIG& config() const { return config_; }
  bool iso_timing() const { return iso_timing_; }
  size_t pci_offset() const { return addr_.ExtAddr ? 1 : 0; }
  // Bytes of one frame: 8 on classic adapters.
  size_t frame_length() const { return fd_adapter_ ? addr_.FrameLen : 8; }

  // With "smallest frame" on a CAN FD adapter the frame length follows the message.
  void fit_frame_length(size_t message_length) {
    if (!fd_adapter_ || !(addr_.Flags & kFlagSmallest)) return;
    const size_t single =
        message_length + pci_offset() + (message_length + pci_offset() <= 7 ? 1 : 2);
    addr_.FrameLen = message_length >= 63 ? 64 : smallest_fd_length(single);
    addr_.Flags |= kFlagFd;
  }

  // A frame that starts with the address byte (extended addressing) and is filled to its length.
  Frame start_frame() const {
    Frame frame;
    frame.data.fill(config_.FillByte);
    if (addr_.ExtAddr) frame.data[0] = addr_.AddrByte;
    frame.len = uint8_t(pci_offset());
    return frame;
  }

  // Sends the frames with the given gap; the adapter's count of frames accepted, or its error.
  int send(std::span<const Frame> frames, uint32_t gap_us) {
    const bool timed = gap_us != 0 && frames.size() > 1;
    if (fd_adapter_) {
      std::vector<CANFD_MSG> records(frames.size());
      for (size_t i = 0; i < frames.size(); ++i) records[i] = fd_record(frames[i], gap_us);
      const auto n = uint32_t(records.size());
      return timed ? CANFD_SendMsgWithTime(handle_, channel_, records.data(), n)
                   : CANFD_SendMsg(handle_, channel_, records.data(), n);
    }
    std::vector<CAN_MSG> records(frames.size());
    for (size_t i = 0; i < frames.size(); ++i) records[i] = classic_record(frames[i], gap_us);
    const auto n = uint32_t(records.size());
    return timed ? CAN_SendMsgWithTime(handle_, channel_, records.data(), n)
                 : CAN_SendMsg(handle_, channel_, records.data(), n);
  }

  // A batch of frames: the whole batch accepted is 0. A failed send waits for the adapter to come
  // back (reconnecting every 10 ms, for about 3 s) and is sent once more.
  int send_batch(std::span<const Frame> frames, uint32_t gap_us) {
    int sent = send(frames, gap_us);
    if (sent > 0) return size_t(sent) == frames.size() ? 0 : kSendCount;
    for (int i = 0; i < kReconnectTries; ++i) {
      sleep_for_ms(10);
      if (USB_RetryConnect(handle_)) break;
    }
    sent = send(frames, gap_us);
    if (sent > 0 && size_t(sent) == frames.size()) return 0;
    return sent == 0 ? kSendCount : sent;
  }

  // Empties the diagnostic queue before a request. Without a running poller the adapter may still
  // hold an earlier request's late answer, which would pass for this one's: the channel is fetched
  // and the frames of the response identifier dropped until a fetch brings none of them.
  void drain_responses() {
    if (!polled()) {
      const uint64_t start = monotonic_ns();
      bool dropped = true;
      while (dropped && elapsed_ms_since(start) < kDrainMs) {
        if (fetch_once() < 0) break;
        DataLock lock(handle_, channel_);
        dropped = false;
        while (fd_adapter_ ? take_fd() : take_classic()) dropped = true;
      }
    }
    clear_queue();
  }

  void clear_queue() {
    DataLock lock(handle_, channel_);
    if (fd_adapter_)
      adapter_->fd[channel_ & 1].diagnostic.clear();
    else
      adapter_->classic[channel_ & 1].diagnostic.clear();
  }

  // The next frame from the response identifier with at least `min_len` bytes after the address
  // byte; other frames are dropped. The channel is fetched first, polled or not: a channel nobody
  // polls works so, and on a polled one the poller's 10 ms would otherwise be added to every flow
  // control and every answer a transfer waits for (a fetch on demand queues what it brings for
  // the application too, as the poller's would).
  std::optional<Frame> take_response(size_t min_len) {
    fetch_once();
    DataLock lock(handle_, channel_);
    while (true) {
      std::optional<Frame> frame = fd_adapter_ ? take_fd() : take_classic();
      if (!frame) return std::nullopt;
      if (frame->len >= min_len + pci_offset()) return frame;
    }
  }

 private:
  bool polled() const {
    return fd_adapter_ ? fd_pollers().polled(handle_, channel_)
                       : classic_pollers().polled(handle_, channel_);
  }
  int fetch_once() {
    return fd_adapter_ ? fd_poller_step(handle_, channel_) : classic_poller_step(handle_, channel_);
  }
  bool response_extended() const { return (addr_.Flags & kFlagExtended) || addr_.ResID > 0x7FF; }

  std::optional<Frame> take_classic() {
    CAN_MSG msg;
    auto& queue = adapter_->classic[channel_ & 1].diagnostic;
    while (queue.take(&msg, 1) == 1) {
      if (msg.Id != (addr_.ResID & 0x1FFFFFFF) || bool(msg.Extended) != response_extended() ||
          (msg.Flags & 1))
        continue;
      Frame frame;
      frame.len = std::min<uint8_t>(msg.DataLen, 8);
      std::memcpy(frame.data.data(), msg.Data, frame.len);
      return frame;
    }
    return std::nullopt;
  }

  std::optional<Frame> take_fd() {
    CANFD_MSG msg;
    auto& queue = adapter_->fd[channel_ & 1].diagnostic;
    while (queue.take(&msg, 1) == 1) {
      const bool extended = (msg.Id & 0x80000000u) != 0, remote = (msg.Id & 0x40000000u) != 0;
      if ((msg.Id & 0x1FFFFFFF) != (addr_.ResID & 0x1FFFFFFF) || extended != response_extended() ||
          remote || msg.Id == VARNEL_CANFD_EVENT_ID)
        continue;
      Frame frame;
      frame.len = std::min<uint8_t>(msg.DataLen, 64);
      std::memcpy(frame.data.data(), msg.Data, frame.len);
      return frame;
    }
    return std::nullopt;
  }

  bool request_extended() const { return (addr_.Flags & kFlagExtended) || addr_.ReqID > 0x7FF; }

  CANFD_MSG fd_record(const Frame& frame, uint32_t gap_us) const {
    CANFD_MSG msg{};
    std::memcpy(msg.Data, frame.data.data(), 64);
    msg.DataLen = (addr_.Flags & kFlagSmallest) ? smallest_fd_length(frame.len) : addr_.FrameLen;
    if (msg.DataLen == 0) msg.DataLen = 8;
    if ((addr_.Flags & kFlagFd) || msg.DataLen > 8) msg.Flags |= 0x04;
    if ((addr_.Flags & (kFlagFd | kFlagBrs)) == (kFlagFd | kFlagBrs)) msg.Flags |= 0x01;
    msg.Id = addr_.ReqID | (request_extended() ? 0x80000000u : 0);
    msg.TimeStamp = gap_us;
    return msg;
  }

  CAN_MSG classic_record(const Frame& frame, uint32_t gap_us) const {
    CAN_MSG msg{};
    std::memcpy(msg.Data, frame.data.data(), 8);
    msg.DataLen = 8;
    msg.Id = addr_.ReqID;
    msg.Extended = request_extended() ? 1 : 0;
    msg.TimeStamp = gap_us;
    return msg;
  }

  const uint32_t handle_;
  const uint8_t channel_;
  const CanState adapter_;
  const bool fd_adapter_;
  CAN_UDS_ADDR& addr_;
  const CAN_UDS_CONFIG config_;
  const bool iso_timing_;
};

// What the receiver's flow control allows.
struct Flow {
  uint8_t block_size = 0;
  uint32_t gap_us = 0;
};

// Waits for "continue to send"; "wait" keeps waiting, "overflow" ends the request. By default
// the wait is counted from its start; with ISO timing each "wait" frame starts it again.
int wait_for_flow(Link& link, Flow* flow) {
  const uint32_t wait_ms = link.config().FlowWaitMs ? link.config().FlowWaitMs : kDefaultFlowWaitMs;
  uint64_t start = monotonic_ns();
  const size_t at = link.pci_offset();
  while (elapsed_ms_since(start) < double(wait_ms)) {
    std::optional<Frame> frame = link.take_response(3);
    if (!frame) {
      sleep_for_ms(1);
      continue;
    }
    const uint8_t pci = frame->data[at];
    if (pci == kFlowOverflow) return kOverflow;
    if (pci == kFlowWait && link.iso_timing()) start = monotonic_ns();
    if (pci != kFlowContinue) continue;  // "wait", or not a flow control frame
    const uint8_t stmin = frame->data[at + 2];
    flow->gap_us = link.config().STmin ? uint32_t(link.config().STmin) * 1000
                                       : stmin_gap_us(stmin, link.iso_timing());
    flow->block_size = link.config().BlockSize ? link.config().BlockSize : frame->data[at + 1];
    return 0;
  }
  return kTimeout;
}

int send_single(Link& link, const uint8_t* data, size_t length) {
  Frame frame = link.start_frame();
  if (link.frame_length() > 8) frame.data[frame.len++] = 0x00;
  frame.data[frame.len++] = uint8_t(length);
  std::memcpy(&frame.data[frame.len], data, length);
  frame.len = uint8_t(frame.len + length);
  return link.send({&frame, 1}, 0) == 1 ? 0 : kSendCount;
}

// The first frame; the number of message bytes it carries.
size_t build_first(const Link& link, const uint8_t* data, size_t length, Frame* frame) {
  *frame = link.start_frame();
  if (length <= 0xFFF) {
    frame->data[frame->len++] = uint8_t(kFirst | (length >> 8));
    frame->data[frame->len++] = uint8_t(length);
  } else {
    frame->data[frame->len++] = kFirst;
    frame->data[frame->len++] = 0;
    put_be32(&frame->data[frame->len], uint32_t(length));
    frame->len += 4;
  }
  const size_t carried = std::min(length, link.frame_length() - frame->len);
  std::memcpy(&frame->data[frame->len], data, carried);
  frame->len = uint8_t(frame->len + carried);
  return carried;
}

int send_segmented(Link& link, const uint8_t* data, size_t length) {
  Frame first;
  size_t done = build_first(link, data, length, &first);
  if (int r = link.send_batch({&first, 1}, 0); r != 0) return r;
  Flow flow;
  if (int r = wait_for_flow(link, &flow); r != 0) return r;
  const size_t per_frame = link.frame_length() - 1 - link.pci_offset();
  std::vector<Frame> batch;
  batch.reserve(kBatch);
  uint8_t sequence = 1;
  size_t in_block = 0;
  while (done < length) {
    Frame frame = link.start_frame();
    frame.data[frame.len++] = uint8_t(kConsecutive | (sequence++ & 0x0F));
    const size_t n = std::min(per_frame, length - done);
    std::memcpy(&frame.data[frame.len], data + done, n);
    frame.len = uint8_t(frame.len + n);
    done += n;
    batch.push_back(frame);
    ++in_block;
    const bool block_full = flow.block_size != 0 && in_block == flow.block_size;
    if (batch.size() == kBatch || block_full || done == length) {
      if (int r = link.send_batch(batch, flow.gap_us); r != 0) return r;
      batch.clear();
    }
    if (block_full && done < length) {
      in_block = 0;
      if (int r = wait_for_flow(link, &flow); r != 0) return r;
    }
  }
  return 0;
}

// "Continue to send, no block limit, no gap" after a first frame.
int send_flow_continue(Link& link) {
  Frame frame = link.start_frame();
  frame.data[frame.len++] = kFlowContinue;
  frame.data[frame.len++] = 0;
  frame.data[frame.len++] = 0;
  return link.send({&frame, 1}, 0);
}

int respond(uint32_t handle, uint8_t channel, CAN_UDS_ADDR* addr, uint8_t* out, uint64_t size,
            int32_t timeout_ms) {
  if (!addr || !out) return result::kBadArgument;
  CanState adapter = can_adapter(handle, channel & 1);
  if (!adapter) return kNoDevice;
  Link link(handle, channel, std::move(adapter), *addr);
  IsoTpReader reader(out, size, link.pci_offset());
  const uint64_t start = monotonic_ns();
  while (true) {
    std::optional<Frame> frame = link.take_response(2);
    if (!frame) {
      if (elapsed_ms_since(start) >= double(timeout_ms)) return kTimeout;
      sleep_for_ms(1);
      continue;
    }
    bool flow_control_due = false;
    const int r = reader.take(frame->data.data(), frame->len, &flow_control_due);
    if (flow_control_due)
      if (const int sent = send_flow_continue(link); sent < 0) return sent;
    if (r != 0) return r;
  }
}

}  // namespace

VARNEL_API int CAN_UDS_Config(DevHandle handle, uint8_t channel, CAN_UDS_CONFIG* config) {
  return guarded(result::kFailed, [&] {
    if (!config) return result::kBadArgument;
    const auto adapter = adapter_table<UdsConfigs>().find_or_create(handle);
    if (!adapter || !can_adapter(handle, channel & 1)) return kNoDevice;
    std::lock_guard guard(adapter->mutex);
    adapter->configs[channel & 1] = *config;
    return 0;
  });
}

VARNEL_API int CAN_UDS_Request(DevHandle handle, uint8_t channel, CAN_UDS_ADDR* addr, uint8_t* data,
                               int32_t length) {
  return guarded(result::kFailed, [&] {
    if (!addr || !data || length <= 0) return result::kBadArgument;
    CanState adapter = can_adapter(handle, channel & 1);
    if (!adapter) return kNoDevice;
    Link link(handle, channel, std::move(adapter), *addr);
    link.drain_responses();
    link.fit_frame_length(size_t(length));
    const size_t single_room =
        link.frame_length() - link.pci_offset() - (link.frame_length() > 8 ? 2 : 1);
    if (size_t(length) <= single_room) return send_single(link, data, size_t(length));
    return send_segmented(link, data, size_t(length));
  });
}

VARNEL_API int CAN_UDS_Response(DevHandle handle, uint8_t channel, CAN_UDS_ADDR* addr, uint8_t* out,
                                int32_t timeout_ms) {
  return guarded(result::kFailed,
                 [&] { return respond(handle, channel, addr, out, UINT64_MAX, timeout_ms); });
}

VARNEL_API int VARNEL_CAN_UDS_ResponseN(DevHandle handle, uint8_t channel, CAN_UDS_ADDR* addr,
                                        uint8_t* out, uint32_t size, int32_t timeout_ms) {
  return guarded(result::kFailed,
                 [&] { return respond(handle, channel, addr, out, size, timeout_ms); });
}

VARNEL_API int VARNEL_CAN_UDS_SetIsoTiming(DevHandle handle, uint8_t channel, int on) {
  return guarded(result::kFailed, [&] {
    const auto adapter = adapter_table<UdsConfigs>().find_or_create(handle);
    if (!adapter || !can_adapter(handle, channel & 1)) return kNoDevice;
    std::lock_guard guard(adapter->mutex);
    adapter->iso_timings[channel & 1] = on != 0;
    return 0;
  });
}
