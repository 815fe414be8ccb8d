// Pieces the CAN files share: the exported calls' exception guard, the receive steps and their
// pollers.
#pragma once

#include <chrono>
#include <cstdint>

#include "can/can_state.h"
#include "core/c_boundary.h"
#include "core/locks.h"
#include "core/pollers.h"
#include "core/result_codes.h"
#include "core/transaction.h"

namespace varnel::can {

// One fetch of the channel's frames into its two queues, for the adapter's current device
// index; 0, -1 the handle is gone, -2 not sent, -4 not read.
int classic_poller_step(uint32_t handle, uint8_t channel);
int fd_poller_step(uint32_t handle, uint8_t channel);
Pollers& classic_pollers();
Pollers& fd_pollers();

// A send transaction: under the channel's CAN send lock (can_lock), and also under the device
// lock, because the poller's fetches share the adapter's one command pipe: a fetch written between
// a send and its reply takes the send's reply and the stream falls out of step.
inline TransactionResult send_transaction(uint32_t handle, uint32_t command,
                                          std::span<const uint8_t> request,
                                          std::span<uint8_t> reply, TransactionOptions options) {
  DeviceLockGuard device(handle);
  options.lock = {TransactionLock::Kind::kCanChannel, options.lock.channel};
  return transact(handle, command, request, reply, options);
}

// Channel bit rates derived from the last CAN FD init record (0 when none).
struct FdRates {
  uint32_t nominal = 0;
  uint32_t data = 0;
};
FdRates fd_rates(uint32_t handle, FdChannel& state);

// Command codes.
enum : uint32_t {
  kDeviceTime = 0x0015,
  kCanInit = 0x0C00,
  kCanFilter = 0x0C01,
  kCanSend = 0x0C02,
  kCanFetch = 0x0C03,
  kCanStatus = 0x0C04,
  kCanScheduleStart = 0x0C05,
  kCanScheduleStop = 0x0C06,
  kCanRelay = 0x0C07,
  kCanSchedule = 0x0C08,
  kCanStop = 0x0C09,
  kCanSendSynch = 0x0C0A,
  kCanSynchPoll = 0x0C0B,
  kCanSendTimed = 0x0C0C,
  kCanScheduleUpdate = 0x0C0D,
  kFdInit = 0x4000,
  kFdFilter = 0x4001,  // our firmware's filter command
  kFdSend = 0x4002,
  kFdFetch = 0x4003,
  kFdStatus = 0x4005,
  kFdScheduleStart = 0x4006,
  kFdScheduleStop = 0x4007,
  kFdRelay = 0x4008,
  kFdSendAbort = 0x4009,
  kFdSendPoll = 0x400A,
  kFdSendTimed = 0x400B,  // our firmware's timed send, the CAN FD twin of 0x0C0C
  kFdStop = 0x400C,
  kFdSchedule = 0x400D,  // our firmware's schedule command, 76-byte records
  kFdScheduleUpdate = 0x400E,
};

constexpr size_t kClassicChunk = 500;
constexpr size_t kSynchChunk = 250;
constexpr size_t kFdChunk = 128;
constexpr size_t kClassicFetchBytes = 100000;
constexpr size_t kClassicFetchLimit = 5000;  // a larger fetch is garbage and dropped whole
constexpr size_t kFdFetchBytes = 380000;
constexpr size_t kFdFetchLimit = 5000;
constexpr size_t kFdClassicRead = 2000;
// Between two fetches of a wait for a frame: short against the frames' time on the bus (a
// classic frame at 500 kbit/s lasts about 0.2 ms), long enough to leave the adapter's pipe to
// others.
constexpr auto kFetchGap =
    std::chrono::microseconds(200);  // classic reads on CAN FD adapters take at most this

}  // namespace varnel::can
