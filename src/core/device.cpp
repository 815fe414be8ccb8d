// DEV_ calls: device and hardware information, the user-data flash, power level, the device time
// base and the IP settings. Each is one transaction (two for the device information with its
// function string).
#include "core/device.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "core/adapter_state.h"
#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/locks.h"
#include "core/transaction.h"
#include "varnel.h"

namespace varnel {
namespace {

// Command codes of the housekeeping calls.
enum : uint32_t {
  kSetPowerLevel = 0x0010,
  kGetTimestamp = 0x0011,
  kResetTimestamp = 0x0012,
  kCorrectTimestamp = 0x0014,
  kGetTimestampMs = 0x0015,
  kSetIpAddress = 0x0016,
  kGetIpAddress = 0x0017,
  kDeviceInfo = kDeviceInfoCommand,
  kFunctionString = kFunctionStringCommand,
  kWriteUserData = 0x0107,
  kReadUserData = 0x0108,
  kEraseUserData = 0x0109,
  kHardwareInfo = 0x010D,
  kEraseUserDataSector = 0x010E,
};

constexpr int32_t kUserDataLimit = VARNEL_DEV_USER_DATA_SIZE;
constexpr int32_t kFunctionStringMax = VARNEL_DEV_FUNCTION_STRING_SIZE - 1;

// Written under the device's lock; the mutex keeps a concurrent reader well defined.
struct Corrections {
  std::mutex mutex;
  CorrectionTimes times;
};

// Replies the caller does not look at still have to land somewhere: over TCP a reply with a
// payload but no buffer counts as failed.
std::span<uint8_t> scratch_reply(std::array<uint8_t, 64>& buffer) {
  return {buffer.data(), buffer.size()};
}

TransactionOptions read_timeout(int read_timeout_ms) {
  TransactionOptions options;
  options.read_timeout_ms = read_timeout_ms;
  return options;
}

// Calls whose reply is ignored: done when the write and the read were.
bool transaction_done(uint32_t handle, uint32_t command, std::span<const uint8_t> request) {
  return transact_ack(handle, command, request).ok();
}

// Calls that succeed on an empty reply only.
bool acknowledged(uint32_t handle, uint32_t command, std::span<const uint8_t> request,
                  int read_timeout_ms) {
  return transact_ack(handle, command, request, read_timeout(read_timeout_ms)).expect_length(0) ==
         0;
}

// The user-data read both calls share: the bytes that arrived (stored at pReadData, at most
// DataLen), -7 for an offset that is not a multiple of 4 or no buffer, -2 when the request could
// not be written, -4 when no reply of this command could be read. The reply goes straight into
// the caller's buffer whatever its length: a shorter one (the area ended, or the USB carrier cut
// a reply above 512 KiB) is still a read, and only the count tells.
int read_user_data(uint32_t handle, uint32_t offset, uint8_t* out, uint32_t count) {
  if (offset % 4 != 0 || (count > 0 && !out)) return result::kBadArgument;
  PayloadWriter request;
  request.u32(offset).u32(count);
  const size_t capacity = std::min<uint32_t>(count, uint32_t(INT32_MAX));
  std::array<uint8_t, 64> empty{};
  std::span<uint8_t> reply = capacity ? std::span<uint8_t>(out, capacity) : scratch_reply(empty);
  const auto r = transact(handle, kReadUserData, request.bytes(), reply);
  if (r.send_result != 0) return result::kWriteFailed;
  if (r.read_result != 0) return result::kReplyFailed;
  return int(std::clamp<int64_t>(r.reply_length, 0, int64_t(capacity)));
}

int month_number(const char* name) {
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (int i = 0; i < 12; ++i)
    if (std::strcmp(name, kMonths[i]) == 0) return i + 1;
  return 0;
}

}  // namespace

CorrectionTimes correction_times(uint32_t handle) {
  const auto adapter = adapter_table<Corrections>().find(handle);
  if (!adapter) return {};
  std::lock_guard guard(adapter->mutex);
  return adapter->times;
}

}  // namespace varnel

using namespace varnel;

VARNEL_API bool DEV_GetDeviceInfo(DevHandle handle, DEVICE_INFO* pDevInfo, char* pFunctionString) {
  return varnel::guarded(false, [&] {
    if (!pDevInfo) return false;
    // The record is the first 88 bytes of a reply that may be longer; a shorter one leaves the
    // rest of the record zero.
    std::vector<uint8_t> reply(1024, 0);
    auto info = transact(handle, kDeviceInfo, {}, reply);
    if (!info.ok() || info.reply_length < 1 || info.reply_command != kDeviceInfo) return false;
    std::memcpy(pDevInfo, reply.data(), sizeof(DEVICE_INFO));
    if (!pFunctionString) return true;

    auto* out = reinterpret_cast<uint8_t*>(pFunctionString);
    auto functions = transact(handle, kFunctionString, {}, {out, size_t(kFunctionStringMax)});
    if (!functions.ok() || functions.reply_command != kFunctionString ||
        functions.reply_length > kFunctionStringMax)
      return false;
    pFunctionString[functions.reply_length > 0 ? functions.reply_length : 0] = '\0';
    return true;
  });
}

VARNEL_API bool DEV_GetHardwareInfo(DevHandle handle, uint8_t* pHardwareInfo) {
  return varnel::guarded(false, [&] {
    if (!pHardwareInfo) return false;
    TransactionOptions options;
    options.read_timeout_ms = 100;
    options.write_timeout_ms = 100;
    auto result = transact(handle, kHardwareInfo, {},
                           {pHardwareInfo, VARNEL_DEV_HARDWARE_INFO_SIZE}, options);
    return result.expect_length(VARNEL_DEV_HARDWARE_INFO_SIZE) == 0 && pHardwareInfo[0] != 0 &&
           pHardwareInfo[0] != 0xFF;
  });
}

VARNEL_API bool DEV_EraseUserData(DevHandle handle) {
  return varnel::guarded(false, [&] { return acknowledged(handle, kEraseUserData, {}, 15000); });
}

VARNEL_API bool DEV_EraseUserDataSector(DevHandle handle, uint32_t Sector) {
  return varnel::guarded(false, [&] {
    uint8_t request[4];
    put_be32(request, Sector);
    return acknowledged(handle, kEraseUserDataSector, request, 5000);
  });
}

VARNEL_API bool DEV_WriteUserData(DevHandle handle, int32_t OffsetAddr, const uint8_t* pWriteData,
                                  int32_t DataLen) {
  return varnel::guarded(false, [&] {
    if (OffsetAddr % 4 != 0 || DataLen > kUserDataLimit || DataLen < 0) return false;
    if (DataLen > 0 && !pWriteData) return false;
    PayloadWriter request;
    request.u32(uint32_t(OffsetAddr)).raw(pWriteData, size_t(DataLen));
    return acknowledged(handle, kWriteUserData, request.bytes(), 5000);
  });
}

VARNEL_API bool DEV_ReadUserData(DevHandle handle, uint32_t OffsetAddr, uint8_t* pReadData,
                                 uint32_t DataLen) {
  return varnel::guarded(
      false, [&] { return read_user_data(handle, OffsetAddr, pReadData, DataLen) >= 0; });
}

VARNEL_API int VARNEL_DEV_ReadUserDataN(DevHandle handle, uint32_t OffsetAddr, uint8_t* pReadData,
                                        uint32_t DataLen) {
  return varnel::guarded(result::kFailed,
                         [&] { return read_user_data(handle, OffsetAddr, pReadData, DataLen); });
}

VARNEL_API bool DEV_SetPowerLevel(DevHandle handle, uint8_t PowerLevel) {
  return varnel::guarded(false, [&] {
    return transaction_done(handle, kSetPowerLevel, {&PowerLevel, 1});
  });
}

VARNEL_API bool DEV_GetTimestamp(DevHandle handle, uint8_t TimerIndex, uint8_t* pTimestamp) {
  return varnel::guarded(false, [&] {
    if (!pTimestamp) return false;
    auto result =
        transact(handle, kGetTimestamp, {&TimerIndex, 1}, {pTimestamp, VARNEL_DEV_TIMESTAMP_SIZE});
    return result.expect_length(VARNEL_DEV_TIMESTAMP_SIZE) == 0;
  });
}

VARNEL_API int64_t DEV_GetTimestampMs(DevHandle handle) {
  return varnel::guarded(-1, [&]() -> int64_t {
    uint8_t reply[8] = {};
    auto result = transact(handle, kGetTimestampMs, {}, reply);
    if (result.send_result != 0) return 0;
    if (result.read_result != 0 || result.reply_length != 8) return -1;
    // The firmware sends its time as it lies in memory: the host's byte order, unlike the
    // big-endian integers of other payloads.
    int64_t value = 0;
    std::memcpy(&value, reply, sizeof value);
    return value;
  });
}

VARNEL_API bool DEV_ResetTimestamp(DevHandle handle) {
  return varnel::guarded(false, [&] { return transaction_done(handle, kResetTimestamp, {}); });
}

VARNEL_API bool DEV_CorrectionTimestamp(DevHandle handle) {
  return varnel::guarded(false, [&] {
    const int index = device_index(handle);
    if (index < 0 || index >= kMaxDevices) return false;
    DeviceLockGuard guard(handle);
    uint64_t now = wall_clock_ms();
    if (const auto adapter = adapter_table<Corrections>().find_or_create(handle)) {
      std::lock_guard times_guard(adapter->mutex);
      adapter->times.last_ms = now;
      if (adapter->times.first_ms == 0) adapter->times.first_ms = now;
    }
    // Sent as it lies in host memory: the firmware takes the host's byte order here.
    uint8_t request[8];
    std::memcpy(request, &now, sizeof request);
    return transaction_done(handle, kCorrectTimestamp, request);
  });
}

VARNEL_API bool DEV_SetIPAddr(DevHandle handle, const char* pIPAddr) {
  return varnel::guarded(false, [&] {
    if (!pIPAddr) return false;
    return transaction_done(handle, kSetIpAddress,
                            {reinterpret_cast<const uint8_t*>(pIPAddr), VARNEL_DEV_IP_ADDR_SIZE});
  });
}

VARNEL_API bool DEV_GetIPAddr(DevHandle handle, char* pIPAddr) {
  return varnel::guarded(false, [&] {
    if (!pIPAddr) return false;
    return transact(handle, kGetIpAddress, {},
                    {reinterpret_cast<uint8_t*>(pIPAddr), VARNEL_DEV_IP_ADDR_SIZE})
        .ok();
  });
}

VARNEL_API bool DEV_GetDllBuildTime(char* pBuildTime) {
  if (!pBuildTime) return true;
  char month[4] = {};
  int day = 0, year = 0;
  std::sscanf(__DATE__, "%3s %d %d", month, &day, &year);
  std::snprintf(pBuildTime, VARNEL_DEV_BUILD_TIME_SIZE, "%04d-%02d-%02d %s", year,
                month_number(month), day, __TIME__);
  return true;
}

namespace varnel {

uint64_t read_start_time(uint32_t handle) {
  DEV_CorrectionTimestamp(handle);
  const uint64_t host_ms = wall_clock_ms();
  const int64_t device_ms = DEV_GetTimestampMs(handle);
  return host_ms - uint64_t(device_ms);
}

}  // namespace varnel
