// Diagnostic messages over a LIN channel in master mode: requests cut into master request frames
// (a single frame, or a first frame and consecutive frames played by the adapter as schedules of
// at most 64 frames), responses read one slave response frame at a time and put back together.
#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <thread>
#include <vector>

#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/delay.h"
#include "core/result_codes.h"
#include "lin/lin_calls.h"
#include "lin/lin_reassembly.h"
#include "lin/lin_records.h"
#include "lin/lin_state.h"

using namespace varnel;
using namespace varnel::lin;

namespace {

constexpr int kSendFailed = -98;
constexpr int kNotAsSent = -99;
constexpr int kNoResponse = -101;
constexpr int32_t kMaxMessage = 4095;
constexpr size_t kBatch = 64;
constexpr uint8_t kFill = 0xFF;
constexpr uint8_t kBreakBits = 13;

LIN_EX_MSG diagnostic_record(const LIN_UDS_ADDR& a, uint8_t type, uint8_t id) {
  LIN_EX_MSG m{};
  m.TimeStamp = a.FrameSpacing;
  m.MsgType = type;
  m.CheckType = a.CheckType;
  m.DataLen = 8;
  m.PID = id;
  m.BreakBits = kBreakBits;
  m.Tag = 1;
  std::memset(m.Data, kFill, 8);
  return m;
}

LIN_EX_MSG request_frame(const LIN_UDS_ADDR& a, uint8_t pci, const uint8_t* bytes, size_t n) {
  LIN_EX_MSG m = diagnostic_record(a, LIN_EX_MSG_TYPE_MW, a.ReqID);
  m.Data[0] = a.NAD;
  m.Data[1] = pci;
  if (n) std::memcpy(m.Data + 2, bytes, n);
  return m;
}

// The first frame (12-bit length and 5 bytes) and the consecutive frames (6 bytes each, numbered
// from 1, modulo 16).
std::vector<LIN_EX_MSG> segment(const LIN_UDS_ADDR& a, const uint8_t* data, size_t length) {
  uint8_t head[6] = {uint8_t(length)};
  std::memcpy(head + 1, data, 5);
  std::vector<LIN_EX_MSG> frames{request_frame(a, uint8_t(0x10 | (length >> 8 & 0x0F)), head, 6)};
  uint8_t sequence = 1;
  for (size_t at = 5; at < length; at += 6, ++sequence)
    frames.push_back(request_frame(a, uint8_t(0x20 | (sequence & 0x0F)), data + at,
                                   std::min<size_t>(6, length - at)));
  return frames;
}

// A single frame's echo must be the frame as sent, its checksum good.
int send_single(uint32_t handle, uint8_t ch, const LIN_UDS_ADDR& a, const uint8_t* data,
                int32_t length) {
  LIN_EX_MSG frame = request_frame(a, uint8_t(length & 0x0F), data, size_t(length)), echo{};
  const LIN_EX_MSG sent = frame;
  const int r = LIN_EX_MasterSync(handle, ch, &frame, &echo, 1);
  if (r < 0) return kSendFailed;
  if (r != 1) return kNotAsSent;
  const bool as_sent = echo.MsgType >= LIN_EX_MSG_TYPE_SR && echo.CheckType <= LIN_EX_CHECK_EXT &&
                       echo.DataLen >= 8 && (echo.PID & 0x3F) == (a.ReqID & 0x3F) &&
                       std::memcmp(echo.Data, sent.Data, 8) == 0;
  return as_sent ? 0 : kNotAsSent;
}

// What the channel saw before this request (a long answer read frame by frame leaves hundreds)
// must not count as its echo. The adapter hands out a full fetch while more are waiting; the
// bound keeps a bus that never falls quiet from holding the caller.
int drain_earlier_frames(uint32_t handle, uint8_t ch, std::vector<LIN_EX_MSG>& scratch) {
  constexpr int kMaxFetches = 64;
  int n = 0;
  for (int i = 0; i < kMaxFetches; ++i) {
    n = LIN_EX_SlaveGetData(handle, ch, scratch.data());
    if (n < int(VARNEL_LIN_FETCH_SIZE)) break;
  }
  return std::min(n, 0);
}

// One schedule of up to 64 frames: started, waited for `wait_ms`, then its frames collected
// from the channel (each into the diagnostic buffer) for up to a second more.
int play_batch(uint32_t handle, uint8_t ch, std::vector<LIN_EX_MSG>& batch, uint32_t wait_ms,
               bool first) {
  std::vector<LIN_EX_MSG> got(VARNEL_LIN_FETCH_SIZE);
  if (first) {
    if (int r = LIN_EX_MasterSetSchRunTimes(handle, ch, 1); r != 0) return r;
    if (int r = drain_earlier_frames(handle, ch, got); r < 0) return r;
  }
  if (int r = LIN_EX_MasterStartSch(handle, ch, batch.data(), uint32_t(batch.size())); r != 0)
    return r;
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + std::chrono::milliseconds(wait_ms + 1000);
  std::this_thread::sleep_for(std::chrono::milliseconds(wait_ms));
  size_t received = 0;
  while (received < batch.size() && std::chrono::steady_clock::now() < deadline) {
    const int n = LIN_EX_SlaveGetData(handle, ch, got.data());
    for (int i = 0; i < n; ++i) {
      got[size_t(i)].Tag = uint8_t(0x10 | (ch & 0x0F));
      record_diagnostic(handle, ch, got[size_t(i)]);
    }
    received += size_t(std::max(n, 0));
    // Nothing yet: the rest of the batch is at least a frame time away, so the poll need not spin.
    if (n <= 0) std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return received == batch.size() ? 0 : kNotAsSent;
}

int send_segmented(uint32_t handle, uint8_t ch, const LIN_UDS_ADDR& a, const uint8_t* data,
                   int32_t length, uint32_t baud) {
  const uint32_t frame_ms = ((8 * 10 + 33 + kBreakBits) * 1000 + baud - 1) / baud;
  const uint32_t slot_ms = std::max<uint32_t>(frame_ms, a.FrameSpacing);
  std::vector<LIN_EX_MSG> frames = segment(a, data, size_t(length)), batch;
  uint32_t wait_ms = 0;
  bool first = true;
  for (size_t i = 0; i < frames.size(); ++i) {
    batch.push_back(frames[i]);
    // the adapter takes each slot; the first 10 ms of the wait are the polling's own
    wait_ms = i == 0 ? slot_ms : wait_ms + slot_ms;
    if (i > 0 && wait_ms >= 11) wait_ms -= 10;
    if (batch.size() < kBatch && i + 1 < frames.size()) continue;
    if (int r = play_batch(handle, ch, batch, wait_ms, first); r != 0) return r;
    batch.clear();
    wait_ms = 0;
    first = false;
  }
  return 0;
}

// Reads response frames until a whole message came (its length), an error, or the time-out.
int receive(uint32_t handle, uint8_t ch, const LIN_UDS_ADDR& a, uint8_t* out, uint64_t size,
            int32_t timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  DiagnosticReassembly message(out, size);
  while (std::chrono::steady_clock::now() < deadline) {
    LIN_EX_MSG ask = diagnostic_record(a, LIN_EX_MSG_TYPE_MR, a.ResID), frame{};
    if (LIN_EX_MasterSync(handle, ch, &ask, &frame, 1) != 1 || frame.CheckType > LIN_EX_CHECK_EXT ||
        frame.DataLen < 2)
      continue;  // tried again at once
    if (const int r = message.take(frame.Data); r != DiagnosticReassembly::kMore) return r;
  }
  return kNoResponse;
}

ChannelRef usable(uint32_t handle, uint8_t ch, const LIN_UDS_ADDR* a, int* refusal) {
  const ChannelRef channel = channel_of(handle, ch);
  *refusal = !channel || !a          ? result::kBadArgument
             : !channel->initialised ? result::kNotInitialised
                                     : 0;
  return *refusal ? nullptr : channel;
}

}  // namespace

VARNEL_API int LIN_UDS_Request(DevHandle handle, uint8_t ch, LIN_UDS_ADDR* a, uint8_t* data,
                               int32_t length) {
  return guarded(result::kFailed, [&] {
    int refusal;
    const ChannelRef channel = usable(handle, ch, a, &refusal);
    if (!channel) return refusal;
    // NAD 0 is the sleep command's, and a message has at least its service byte
    if (a->NAD == 0 || length <= 0 || !data) return result::kBadArgument;
    length = std::min(length, kMaxMessage);
    clear_diagnostics(handle, ch);
    const uint32_t baud = channel->baud;
    const int r = length < 7 ? send_single(handle, ch, *a, data, length)
                             : send_segmented(handle, ch, *a, data, length, baud);
    if (r != 0 || length < 7) return r;
    const int64_t wait_ms = int64_t(a->FrameSpacing) - int64_t((137000 + baud - 1) / baud);
    if (wait_ms >= 1) wait_for_us(uint64_t(wait_ms) * 1000);
    return 0;
  });
}

VARNEL_API int VARNEL_LIN_UDS_ResponseN(DevHandle handle, uint8_t ch, LIN_UDS_ADDR* a, uint8_t* out,
                                        uint32_t size, int32_t timeout_ms) {
  return guarded(result::kFailed, [&] {
    int refusal;
    if (!usable(handle, ch, a, &refusal)) return refusal;
    if (!out && size > 0) return result::kBadArgument;
    return receive(handle, ch, *a, out, size, timeout_ms);
  });
}

VARNEL_API int LIN_UDS_Response(DevHandle handle, uint8_t ch, LIN_UDS_ADDR* a, uint8_t* out,
                                int32_t timeout_ms) {
  return guarded(result::kFailed, [&] {
    int refusal;
    if (!usable(handle, ch, a, &refusal)) return refusal;
    if (!out) return result::kBadArgument;
    return receive(handle, ch, *a, out, UINT64_MAX, timeout_ms);
  });
}

VARNEL_API int LIN_UDS_GetMsgFromUDSBuffer(DevHandle handle, uint8_t ch, LIN_EX_MSG* out,
                                           int32_t max) {
  return guarded(result::kFailed, [&] {
    if (!out || max < 0 || !channel_of(handle, ch)) return result::kBadArgument;
    const auto records = take_diagnostics(handle, ch, size_t(max));
    std::copy(records.begin(), records.end(), out);
    return int(records.size());
  });
}
