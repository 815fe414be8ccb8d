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
#include "core/adapter_state.h"
#include "core/bytes.h"
#include "core/clock.h"

using namespace varnel;
using namespace varnel::can;

namespace {

constexpr int kSendCount = CAN_UDS_ERR_SEND_COUNT;
constexpr int kTimeout = CAN_UDS_ERR_TIMEOUT;
constexpr int kSequence = CAN_UDS_ERR_SEQUENCE;
constexpr int kBadFrame = CAN_UDS_ERR_FRAME;
constexpr int kOverflow = CAN_UDS_ERR_OVERFLOW;
constexpr int kNoDevice = CAN_UDS_ERR_DEVICE;
constexpr int kTooLong = VARNEL_CAN_UDS_ERR_SIZE;

constexpr uint8_t kFlagExtended = 0x01, kFlagFd = 0x02, kFlagBrs = 0x04, kFlagSmallest = 0x80;
constexpr uint8_t kSingle = 0x00, kFirst = 0x10, kConsecutive = 0x20, kFlow = 0x30;
constexpr uint8_t kFlowContinue = 0x30, kFlowWait = 0x31, kFlowOverflow = 0x32;
constexpr size_t kBatch = 128;
constexpr int kReconnectTries = 301;
constexpr uint32_t kDefaultFlowWaitMs = 1000;
constexpr std::array<uint8_t, 8> kFdLengths = {8, 12, 16, 20, 24, 32, 48, 64};

// The configuration of each channel, kept per adapter.
struct UdsConfigs {
  std::mutex mutex;
  std::array<CAN_UDS_CONFIG, 2> configs{};
};
AdapterTable<UdsConfigs>& uds_configs() {
  static auto* table = new AdapterTable<UdsConfigs>;
  return *table;
}

CAN_UDS_CONFIG config_of(uint32_t handle, uint8_t channel) {
  const auto adapter = uds_configs().find(handle);
  if (!adapter) return CAN_UDS_CONFIG{};
  std::lock_guard guard(adapter->mutex);
  return adapter->configs[channel & 1];
}

int resolve_device(uint32_t handle) {
  const int device = device_index(handle);
  return device < 0 || device > kMaxDeviceIndex ? -1 : device;
}

uint8_t smallest_fd_length(size_t bytes) {
  for (uint8_t length : kFdLengths)
    if (length >= bytes) return length;
  return 64;
}

// A frame's protocol bytes and data, before it becomes a device record.
struct Frame {
  uint8_t len = 0;
  std::array<uint8_t, 64> data{};
};

// One exchange on one channel: how frames are built and sent, and where they are taken from.
class Link {
 public:
  Link(uint32_t handle, uint8_t channel, int device, CAN_UDS_ADDR& addr)
      : handle_(handle),
        channel_(channel),
        device_(device),
        fd_adapter_(is_fd_adapter(handle)),
        addr_(addr),
        config_(config_of(handle, channel)) {
    if (addr_.FrameLen < 8 || addr_.FrameLen > 64) addr_.FrameLen = 8;
  }

  const CAN_UDS_CONFIG& config() const { return config_; }
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
  int send(std::span<const Frame> frames, uint8_t gap_ms) {
    const bool timed = gap_ms != 0 && frames.size() > 1;
    if (fd_adapter_) {
      std::vector<CANFD_MSG> records(frames.size());
      for (size_t i = 0; i < frames.size(); ++i) records[i] = fd_record(frames[i], gap_ms);
      const auto n = uint32_t(records.size());
      return timed ? CANFD_SendMsgWithTime(handle_, channel_, records.data(), n)
                   : CANFD_SendMsg(handle_, channel_, records.data(), n);
    }
    std::vector<CAN_MSG> records(frames.size());
    for (size_t i = 0; i < frames.size(); ++i) records[i] = classic_record(frames[i], gap_ms);
    const auto n = uint32_t(records.size());
    return timed ? CAN_SendMsgWithTime(handle_, channel_, records.data(), n)
                 : CAN_SendMsg(handle_, channel_, records.data(), n);
  }

  // A batch of frames: the whole batch accepted is 0. A failed send waits for the adapter to come
  // back (reconnecting every 10 ms, for about 3 s) and is sent once more.
  int send_batch(std::span<const Frame> frames, uint8_t gap_ms) {
    int sent = send(frames, gap_ms);
    if (sent > 0) return size_t(sent) == frames.size() ? 0 : kSendCount;
    for (int i = 0; i < kReconnectTries; ++i) {
      sleep_for_ms(10);
      if (USB_RetryConnect(handle_)) break;
    }
    sent = send(frames, gap_ms);
    if (sent > 0 && size_t(sent) == frames.size()) return 0;
    return sent == 0 ? kSendCount : sent;
  }

  void clear_queue() {
    DataLock lock(handle_, channel_);
    if (fd_adapter_)
      fd_channel(device_, channel_ & 1).diagnostic.clear();
    else
      classic_channel(device_, channel_ & 1).diagnostic.clear();
  }

  // The next frame from the response identifier with at least `min_len` bytes after the address
  // byte; other frames are dropped. Without a running poller the channel is fetched first, as
  // CAN_GetMsg does, so the calls also work on a channel nobody polls.
  std::optional<Frame> take_response(size_t min_len) {
    if (!polled()) fetch_once();
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
  void fetch_once() {
    if (fd_adapter_)
      fd_poller_step(handle_, channel_);
    else
      classic_poller_step(handle_, channel_);
  }
  bool response_extended() const { return (addr_.Flags & kFlagExtended) || addr_.ResID > 0x7FF; }

  std::optional<Frame> take_classic() {
    CAN_MSG msg;
    auto& queue = classic_channel(device_, channel_ & 1).diagnostic;
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
    auto& queue = fd_channel(device_, channel_ & 1).diagnostic;
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

  CANFD_MSG fd_record(const Frame& frame, uint8_t gap_ms) const {
    CANFD_MSG msg{};
    std::memcpy(msg.Data, frame.data.data(), 64);
    msg.DataLen = (addr_.Flags & kFlagSmallest) ? smallest_fd_length(frame.len) : addr_.FrameLen;
    if (msg.DataLen == 0) msg.DataLen = 8;
    if ((addr_.Flags & kFlagFd) || msg.DataLen > 8) msg.Flags |= 0x04;
    if ((addr_.Flags & (kFlagFd | kFlagBrs)) == (kFlagFd | kFlagBrs)) msg.Flags |= 0x01;
    msg.Id = addr_.ReqID | (request_extended() ? 0x80000000u : 0);
    msg.TimeStamp = uint32_t(gap_ms) * 1000;
    return msg;
  }

  CAN_MSG classic_record(const Frame& frame, uint8_t gap_ms) const {
    CAN_MSG msg{};
    std::memcpy(msg.Data, frame.data.data(), 8);
    msg.DataLen = 8;
    msg.Id = addr_.ReqID;
    msg.Extended = request_extended() ? 1 : 0;
    msg.TimeStamp = uint32_t(gap_ms) * 1000;
    return msg;
  }

  const uint32_t handle_;
  const uint8_t channel_;
  const int device_;
  const bool fd_adapter_;
  CAN_UDS_ADDR& addr_;
  const CAN_UDS_CONFIG config_;
};

// What the receiver's flow control allows.
struct Flow {
  uint8_t block_size = 0;
  uint8_t gap_ms = 0;
};

// Waits for "continue to send"; "wait" keeps waiting, "overflow" ends the request.
int wait_for_flow(Link& link, Flow* flow) {
  const uint32_t wait_ms = link.config().FlowWaitMs ? link.config().FlowWaitMs : kDefaultFlowWaitMs;
  const uint64_t start = monotonic_ns();
  const size_t at = link.pci_offset();
  while (elapsed_ms_since(start) < double(wait_ms)) {
    std::optional<Frame> frame = link.take_response(3);
    if (!frame) {
      sleep_for_ms(1);
      continue;
    }
    const uint8_t pci = frame->data[at];
    if (pci == kFlowOverflow) return kOverflow;
    if (pci != kFlowContinue) continue;  // "wait", or not a flow control frame
    const uint8_t stmin = frame->data[at + 2];
    flow->gap_ms = link.config().STmin ? link.config().STmin : stmin > 127 ? 0 : stmin;
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
      if (int r = link.send_batch(batch, flow.gap_ms); r != 0) return r;
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

// A message being put together from its frames.
class Assembly {
 public:
  Assembly(uint8_t* out, uint64_t size) : out_(out), size_(size) {}

  // A frame's protocol byte and data: the message length when it is whole, 0 while it is not,
  // or an error.
  int take(Link& link, const Frame& frame) {
    const size_t at = link.pci_offset();
    const uint8_t pci = frame.data[at];
    const uint8_t* body = &frame.data[at];
    const size_t body_len = frame.len - at;
    switch (pci & 0xF0) {
      case kSingle:
        return single(pci, body, body_len, frame.len > 8);
      case kFirst:
        return first(link, pci, body, body_len);
      case kConsecutive:
        return consecutive(pci, body, body_len);
      case kFlow:
        return 0;
      default:
        return kBadFrame;
    }
  }

 private:
  int single(uint8_t pci, const uint8_t* body, size_t body_len, bool long_frame) {
    size_t length = pci & 0x0F, offset = 1;
    if (long_frame || length == 0) {
      length = body_len > 1 ? body[1] : 0;
      offset = 2;
    }
    if (length > body_len - std::min(offset, body_len)) return kBadFrame;
    if (length > size_) return kTooLong;
    std::memcpy(out_, body + offset, length);
    return int(length);
  }

  int first(Link& link, uint8_t pci, const uint8_t* body, size_t body_len) {
    uint64_t length = uint64_t(pci & 0x0F) << 8 | body[1];
    size_t offset = 2;
    if (length == 0) {
      if (body_len < 6) return kBadFrame;
      length = get_be32(body + 2);
      offset = 6;
    }
    if (length > size_) return kTooLong;
    if (length > uint64_t(INT32_MAX)) return kBadFrame;
    announced_ = length;
    received_ = std::min<uint64_t>(length, body_len - std::min(offset, body_len));
    std::memcpy(out_, body + offset, size_t(received_));
    expected_ = 1;
    started_ = true;
    const int sent = send_flow_continue(link);
    if (sent < 0) return sent;
    return received_ == announced_ ? int(announced_) : 0;
  }

  int consecutive(uint8_t pci, const uint8_t* body, size_t body_len) {
    if (!started_ || (pci & 0x0F) != (expected_ & 0x0F)) return kSequence;
    ++expected_;
    const uint64_t n = std::min<uint64_t>({body_len - 1, 63, announced_ - received_});
    std::memcpy(out_ + received_, body + 1, size_t(n));
    received_ += n;
    return received_ == announced_ ? int(announced_) : 0;
  }

  uint8_t* out_;
  uint64_t size_;
  bool started_ = false;
  uint8_t expected_ = 1;
  uint64_t announced_ = 0, received_ = 0;
};

int respond(uint32_t handle, uint8_t channel, CAN_UDS_ADDR* addr, uint8_t* out, uint64_t size,
            int32_t timeout_ms) {
  if (!addr || !out) return result::kBadArgument;
  const int device = resolve_device(handle);
  if (device < 0) return kNoDevice;
  Link link(handle, channel, device, *addr);
  Assembly assembly(out, size);
  const uint64_t start = monotonic_ns();
  while (true) {
    std::optional<Frame> frame = link.take_response(2);
    if (!frame) {
      if (elapsed_ms_since(start) >= double(timeout_ms)) return kTimeout;
      sleep_for_ms(1);
      continue;
    }
    const int r = assembly.take(link, *frame);
    if (r != 0) return r;
  }
}

}  // namespace

VARNEL_API int CAN_UDS_Config(DevHandle handle, uint8_t channel, CAN_UDS_CONFIG* config) {
  return guarded(result::kFailed, [&] {
    if (!config) return result::kBadArgument;
    const auto adapter = uds_configs().find_or_create(handle);
    if (!adapter || resolve_device(handle) < 0) return kNoDevice;
    std::lock_guard guard(adapter->mutex);
    adapter->configs[channel & 1] = *config;
    return 0;
  });
}

VARNEL_API int CAN_UDS_Request(DevHandle handle, uint8_t channel, CAN_UDS_ADDR* addr, uint8_t* data,
                               int32_t length) {
  return guarded(result::kFailed, [&] {
    if (!addr || !data || length <= 0) return result::kBadArgument;
    const int device = resolve_device(handle);
    if (device < 0) return kNoDevice;
    Link link(handle, channel, device, *addr);
    link.clear_queue();
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
