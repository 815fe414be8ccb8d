// Reprogramming a LIN control unit: session control, security access, erase and memory check by
// routine control, download and transfer, ECU reset, over a compact transport of its own on the
// master exchange (frames of 8 bytes on 3C and 3D, classic checksums, 14 ms apart).
#include <algorithm>
#include <chrono>
#include <climits>
#include <cstring>
#include <mutex>
#include <optional>
#include <vector>

#include "core/adapter_state.h"
#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/delay.h"
#include "core/result_codes.h"
#include "lin/lin_reassembly.h"
#include "varnel.h"

using namespace varnel;
using namespace varnel::lin;

namespace {

constexpr int kEchoWrong = -8;
constexpr int kNoFrame = -9;
constexpr int kWrongAnswer = -10;
constexpr int kSessionTimeOut = -11;
constexpr int kTooLong = -12;
constexpr int kBadDownload = -13;
constexpr int kCounterNotEchoed = -14;
constexpr size_t kMaxMessage = 4095;
constexpr uint32_t kFrameGapMs = 14;
constexpr uint8_t kRequestId = 0x3C, kResponseId = 0x3D, kFill = 0xFF;
constexpr int kSessionPollMs = 10;

LIN_EX_MSG boot_record(uint8_t type, uint8_t id) {
  LIN_EX_MSG m{};
  m.TimeStamp = kFrameGapMs;
  m.MsgType = type;
  m.CheckType = LIN_EX_CHECK_STD;
  m.DataLen = 8;
  m.PID = id;
  m.BreakBits = 13;
  std::memset(m.Data, kFill, 8);
  return m;
}

std::vector<LIN_EX_MSG> frames_of(uint8_t nad, const std::vector<uint8_t>& message) {
  const auto frame = [&](uint8_t pci, const uint8_t* bytes, size_t n) {
    LIN_EX_MSG m = boot_record(LIN_EX_MSG_TYPE_MW, kRequestId);
    m.Data[0] = nad;
    m.Data[1] = pci;
    if (n) std::memcpy(m.Data + 2, bytes, n);
    return m;
  };
  const size_t length = message.size();
  if (length < 7) return {frame(uint8_t(length), message.data(), length)};
  const uint8_t head[6] = {uint8_t(length), message[0], message[1],
                           message[2],      message[3], message[4]};
  std::vector<LIN_EX_MSG> frames{frame(uint8_t(0x10 | (length >> 8 & 0x0F)), head, 6)};
  uint8_t sequence = 1;
  for (size_t at = 5; at < length; at += 6, ++sequence)
    frames.push_back(
        frame(uint8_t(0x20 | (sequence & 0x0F)), &message[at], std::min<size_t>(6, length - at)));
  return frames;
}

// Every frame in one exchange; each must come back as sent. 0, the number that came back when
// fewer did, a negative code, or -8.
int send_message(uint32_t handle, uint8_t ch, uint8_t nad, const std::vector<uint8_t>& message) {
  if (message.size() > kMaxMessage) return kTooLong;
  std::vector<LIN_EX_MSG> frames = frames_of(nad, message), echoes(frames.size());
  const int r =
      LIN_EX_MasterSync(handle, ch, frames.data(), echoes.data(), uint32_t(frames.size()));
  if (r < 0 || size_t(r) < frames.size()) return r;
  for (size_t i = 0; i < frames.size(); ++i) {
    const LIN_EX_MSG& e = echoes[i];
    if (e.MsgType < LIN_EX_MSG_TYPE_SR || e.CheckType > LIN_EX_CHECK_EXT || e.DataLen < 8 ||
        (e.PID & 0x3F) != kRequestId || std::memcmp(e.Data, frames[i].Data, 8) != 0)
      return kEchoWrong;
  }
  return 0;
}

using Clock = std::chrono::steady_clock;
// The next frame of an answer comes within this, as the LIN transport's N_Cr allows.
constexpr Clock::duration kNextFramePatience = std::chrono::milliseconds(1000);

// One whole message from the node: frames read until it is complete; -9 for a frame that could
// not be read (nobody answered), or when no frame of the answer came within `patience` of the
// last (a node answering filler or frames of another kind, or with bad checksums, for ever).
int receive_message(uint32_t handle, uint8_t ch, std::vector<uint8_t>& out,
                    Clock::duration patience) {
  BootReassembly message;
  auto deadline = Clock::now() + patience;
  while (true) {
    LIN_EX_MSG ask = boot_record(LIN_EX_MSG_TYPE_MR, kResponseId), frame{};
    if (LIN_EX_MasterSync(handle, ch, &ask, &frame, 1) != 1 || frame.DataLen < 2) return kNoFrame;
    // a frame with a bad checksum is no answer
    const auto step = frame.CheckType <= LIN_EX_CHECK_EXT ? message.take(frame.Data)
                                                          : BootReassembly::Step::kPassedOver;
    if (step == BootReassembly::Step::kComplete) {
      out = message.message();
      return 0;
    }
    if (step == BootReassembly::Step::kMore) deadline = Clock::now() + patience;
    if (Clock::now() >= deadline) return kNoFrame;
  }
}

// A request and its answer; the answer, or the code of what went wrong.
struct Exchange {
  int result = 0;
  std::vector<uint8_t> answer;
  bool positive(uint8_t service, size_t min_length) const {
    return result == 0 && answer.size() >= min_length && answer[0] == service;
  }
};

// Any NAD goes out as given: 7F reaches a node whose own address is not known, and a bench with
// one node on the bus is where that is done.
Exchange exchange(uint32_t handle, uint8_t ch, uint8_t nad, const std::vector<uint8_t>& request,
                  Clock::duration patience = kNextFramePatience) {
  Exchange e;
  e.result = send_message(handle, ch, nad, request);
  if (e.result == 0) e.result = receive_message(handle, ch, e.answer, patience);
  return e;
}

// The target's key routine, per adapter and channel; the default where none is set.
struct KeyRoutines {
  std::mutex mutex;
  std::array<VARNEL_LIN_BOOT_KEY_ROUTINE, VARNEL_LIN_MAX_CHANNELS> by_channel{};
};

// Our targets' routine: the seed rotated left by 5 bits, XOR the key constant.
uint16_t default_key(uint16_t seed, uint16_t constant) {
  return uint16_t((seed << 5 | seed >> 11) ^ constant);
}

uint16_t key_for(uint32_t handle, uint8_t ch, uint16_t seed, uint16_t constant) {
  VARNEL_LIN_BOOT_KEY_ROUTINE routine = nullptr;
  if (const auto routines = adapter_table<KeyRoutines>().find(handle)) {
    std::lock_guard guard(routines->mutex);
    routine = routines->by_channel[ch % VARNEL_LIN_MAX_CHANNELS];
  }
  return (routine ? routine : default_key)(seed, constant);  // outside the lock: the caller's code
}

int unlock(uint32_t handle, uint8_t ch, uint8_t nad, uint16_t constant) {
  const Exchange seed = exchange(handle, ch, nad, {0x27, 0x01});
  if (!seed.positive(0x67, 4)) return seed.result < 0 ? seed.result : kWrongAnswer;
  const uint16_t key =
      key_for(handle, ch, uint16_t(seed.answer[2] << 8 | seed.answer[3]), constant);
  const Exchange sent = exchange(handle, ch, nad, {0x27, 0x02, uint8_t(key >> 8), uint8_t(key)});
  return sent.positive(0x67, 1) ? 0 : sent.result < 0 ? sent.result : kWrongAnswer;
}

// The node may restart into its boot loader before it answers the programming session: reads
// are tried every 10 ms until one succeeds, whatever it holds, or the time-out has passed (on
// the clock: a read of a silent adapter takes far longer than the step).
int enter_programming(uint32_t handle, uint8_t ch, uint8_t nad, uint32_t timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  const auto time_left = [&] { return std::max(deadline - Clock::now(), Clock::duration(0)); };
  const auto step = std::chrono::milliseconds(kSessionPollMs);
  Exchange e = exchange(handle, ch, nad, {0x10, 0x02}, std::min(kNextFramePatience, time_left()));
  while (!e.positive(0x50, 1)) {
    if (Clock::now() + step > deadline) return kSessionTimeOut;
    wait_for_us(kSessionPollMs * 1000);
    e.result = receive_message(handle, ch, e.answer, time_left());
    if (e.result == 0) break;
  }
  return 0;
}

std::vector<uint8_t> with_be32(std::vector<uint8_t> bytes, std::initializer_list<uint32_t> values) {
  for (uint32_t v : values)
    bytes.insert(bytes.end(), {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
  return bytes;
}

// Routine control: start, wait what the node asks (bytes 4..5, ms), then the results.
int run_routine(uint32_t handle, uint8_t ch, uint8_t nad, std::vector<uint8_t> start,
                size_t start_length_exact, uint8_t routine_low, uint8_t* status = nullptr) {
  const Exchange started = exchange(handle, ch, nad, start);
  const bool ok = started.positive(0x71, 6) && started.answer[2] == 0xDF &&
                  started.answer[3] == routine_low &&
                  (start_length_exact == 0 || started.answer.size() == start_length_exact);
  if (!ok) return started.result < 0 ? started.result : kWrongAnswer;
  wait_for_us(uint64_t(started.answer[4] << 8 | started.answer[5]) * 1000);
  const Exchange results = exchange(handle, ch, nad, {0x31, 0x03, 0xDF, routine_low});
  const bool done = results.positive(0x71, 4) && results.answer[1] == 0x03 &&
                    results.answer[2] == 0xDF && results.answer[3] == routine_low;
  if (done && status) *status = results.answer.size() > 4 ? results.answer[4] : 0;
  return done ? 0 : results.result < 0 ? results.result : kWrongAnswer;
}

}  // namespace

VARNEL_API int USDLINBoot_Init(DevHandle handle, uint8_t ch, uint32_t baud) {
  return guarded(result::kFailed, [&] {
    if (int r = LIN_EX_Init(handle, ch, baud, 1); r != 0) return r;
    LIN_EX_MSG wake = boot_record(LIN_EX_MSG_TYPE_BK, kResponseId), back{};
    return LIN_EX_MasterSync(handle, ch, &wake, &back, 1) == 1 ? 0 : kEchoWrong;
  });
}

VARNEL_API int USDLINBoot_Start(DevHandle handle, uint8_t ch, uint8_t nad, uint16_t key_constant,
                                uint32_t timeout_ms) {
  return guarded(result::kFailed, [&] {
    const Exchange extended = exchange(handle, ch, nad, {0x10, 0x03});
    if (!extended.positive(0x50, 1)) return extended.result < 0 ? extended.result : kWrongAnswer;
    if (int r = unlock(handle, ch, nad, key_constant); r != 0) return r;
    if (int r = enter_programming(handle, ch, nad, timeout_ms); r != 0) return r;
    return unlock(handle, ch, nad, key_constant);
  });
}

VARNEL_API int USDLINBoot_Erase(DevHandle handle, uint8_t ch, uint8_t nad, uint32_t address,
                                uint32_t size) {
  return guarded(result::kFailed, [&] {
    return run_routine(handle, ch, nad, with_be32({0x31, 0x01, 0xDF, 0xFF, 0x44}, {address, size}),
                       0, 0xFF);
  });
}

VARNEL_API int USDLINBoot_WriteData(DevHandle handle, uint8_t ch, uint8_t nad, uint32_t address,
                                    uint8_t* data, uint32_t size) {
  return guarded(result::kFailed, [&] {
    if (!data && size > 0) return result::kBadArgument;
    const Exchange download =
        exchange(handle, ch, nad, with_be32({0x34, 0x00, 0x44}, {address, size}));
    if (!download.positive(0x74, 4)) return download.result < 0 ? download.result : kWrongAnswer;
    const uint16_t block_length = uint16_t(download.answer[2] << 8 | download.answer[3]);
    if (download.answer[1] != 0x20 || block_length < 3) return kBadDownload;
    const uint32_t per_block = block_length - 2u;  // less the service and the counter
    uint8_t counter = 1;
    for (uint32_t at = 0; at < size; at += per_block, ++counter) {
      std::vector<uint8_t> transfer{0x36, counter};
      transfer.insert(transfer.end(), data + at, data + at + std::min(per_block, size - at));
      const Exchange sent = exchange(handle, ch, nad, transfer);
      if (!sent.positive(0x76, 2)) return sent.result < 0 ? sent.result : kWrongAnswer;
      if (sent.answer[1] != counter) return kCounterNotEchoed;
    }
    const Exchange exit = exchange(handle, ch, nad, {0x37});
    return exit.positive(0x77, 1) ? 0 : exit.result < 0 ? exit.result : kWrongAnswer;
  });
}

VARNEL_API int USDLINBoot_MemCheck(DevHandle handle, uint8_t ch, uint8_t nad, uint32_t value) {
  return guarded(result::kFailed, [&] {
    return run_routine(handle, ch, nad, with_be32({0x31, 0x01, 0xDF, 0xFE}, {value}), 6, 0xFE);
  });
}

VARNEL_API int USDLINBoot_ResetECU(DevHandle handle, uint8_t ch, uint8_t nad) {
  return guarded(result::kFailed, [&] {
    const Exchange reset = exchange(handle, ch, nad, {0x11, 0x01});
    return reset.positive(0x51, 2) && reset.answer[1] == 0x01 ? 0
           : reset.result < 0                                 ? reset.result
                                                              : kWrongAnswer;
  });
}

VARNEL_API int VARNEL_USDLINBoot_MemCheckResult(DevHandle handle, uint8_t ch, uint8_t nad,
                                                uint32_t value, uint8_t* status) {
  return guarded(result::kFailed, [&] {
    if (!status) return result::kBadArgument;
    *status = 0xFF;
    return run_routine(handle, ch, nad, with_be32({0x31, 0x01, 0xDF, 0xFE}, {value}), 6, 0xFE,
                       status);
  });
}

VARNEL_API int VARNEL_USDLINBoot_SetKeyRoutine(DevHandle handle, uint8_t ch,
                                               VARNEL_LIN_BOOT_KEY_ROUTINE routine) {
  return guarded(result::kFailed, [&] {
    if (ch >= VARNEL_LIN_MAX_CHANNELS) return result::kBadArgument;
    const auto routines = adapter_table<KeyRoutines>().find_or_create(handle);
    if (!routines) return result::kUnknownHandle;
    std::lock_guard guard(routines->mutex);
    routines->by_channel[ch] = routine;
    return 0;
  });
}
