// The older LIN calls. LIN_Init learns the adapter's firmware generation; old firmware takes its
// own commands (0xF00-0xF05, 11-byte records), newer firmware the LIN_EX_ calls, to which the
// records are translated here.
#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include "core/adapter_state.h"
#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/device.h"
#include "core/result_codes.h"
#include "core/transaction.h"
#include "core/transport.h"
#include "lin/lin_calls.h"
#include "lin/lin_records.h"

using namespace varnel;
using namespace varnel::lin;

namespace {

constexpr uint32_t kFirstExtendedFirmware = 0x0105001E;
constexpr int kOldChannels = 2;
constexpr size_t kFirmwareVersionAt = 68;
constexpr int32_t kMaxFunctionString = 200;

struct LegacyDevice {
  std::atomic<bool> old_firmware{false};
  std::array<std::atomic<uint32_t>, kOldChannels> baud{};
};

// The adapter's generation and old-firmware baud rates, held for the caller; null when unknown.
std::shared_ptr<LegacyDevice> device_of(uint32_t handle) {
  static auto* devices = new AdapterTable<LegacyDevice>;  // lives until the process ends
  return devices->find_or_create(handle);
}

// Which path a call takes: 1 the old commands, 0 the LIN_EX_ calls, -7 a channel that old
// firmware does not have.
int old_path(uint32_t handle, uint8_t ch) {
  const auto device = device_of(handle);
  if (!device || !device->old_firmware) return 0;
  return ch < kOldChannels ? 1 : result::kBadArgument;
}

// The firmware version from the device information, after the function string answered too:
// 0 and the version, or -2/-4.
int read_firmware_version(uint32_t handle, uint32_t& version) {
  uint8_t info[sizeof(DEVICE_INFO)];
  auto r = transact(handle, kDeviceInfoCommand, {}, info);
  if (r.send_result != 0) return result::kWriteFailed;
  if (!r.ok() || r.reply_command != kDeviceInfoCommand ||
      r.reply_length < int32_t(kFirmwareVersionAt + 4))
    return result::kReplyFailed;
  std::memcpy(&version, info + kFirmwareVersionAt, 4);  // the record goes raw: host order
  uint8_t text[kMaxFunctionString];
  r = transact(handle, kFunctionStringCommand, {}, text);
  if (r.send_result != 0) return result::kWriteFailed;
  if (!r.ok() || r.reply_command != kFunctionStringCommand || r.reply_length > kMaxFunctionString)
    return result::kReplyFailed;
  return 0;
}

// Old firmware takes 110,000 / baud ms a request and 3 s more.
int old_timeout_ms(uint32_t handle, uint8_t ch) {
  const auto device = device_of(handle);
  const uint32_t baud = device && ch < kOldChannels ? device->baud[ch].load() : 0;
  return int(110000 / std::max(baud, 1u) + 3000);
}

std::vector<uint8_t> old_records(uint8_t ch, const LIN_MSG* records, uint32_t count) {
  std::vector<uint8_t> payload{ch};
  const auto* bytes = reinterpret_cast<const uint8_t*>(records);
  payload.insert(payload.end(), bytes, bytes + size_t(count) * sizeof(LIN_MSG));
  return payload;
}

// All records through LIN_EX_MasterSync: 0, or -4 when fewer came back.
int sync_all(uint32_t handle, uint8_t ch, std::vector<LIN_EX_MSG>& in,
             std::vector<LIN_EX_MSG>& out) {
  out.resize(in.size());
  const int r = LIN_EX_MasterSync(handle, ch, in.data(), out.data(), uint32_t(in.size()));
  return r == int(in.size()) ? 0 : result::kReplyFailed;
}

bool bad_list(const void* records, uint32_t count) {
  return !records || count == 0 || count > uint32_t(INT_MAX) / sizeof(LIN_EX_MSG);
}

}  // namespace

VARNEL_API int LIN_Init(DevHandle handle, uint8_t ch, LIN_CONFIG* config) {
  return guarded(result::kFailed, [&] {
    const auto device = device_of(handle);
    if (!device || !config) return result::kBadArgument;
    uint32_t version = 0;
    if (int r = read_firmware_version(handle, version); r != 0) return r;
    device->old_firmware = version < kFirstExtendedFirmware;
    if (!device->old_firmware) {
      if (int r = LIN_EX_Init(handle, ch, config->BaudRate, config->MasterMode); r != 0) return r;
      return LIN_EX_CtrlPowerOut(handle, ch, 1);
    }
    if (ch >= kOldChannels) return result::kBadArgument;
    PayloadWriter request;
    request.u8(ch)
        .u32(config->BaudRate)
        .u8(config->Config1)
        .u8(config->MasterMode)
        .u8(config->Config3);
    device->baud[ch] = config->BaudRate;
    return acknowledged(handle, kOldInit, request.bytes());
  });
}

VARNEL_API int LIN_SendBreak(DevHandle handle, uint8_t ch) {
  return guarded(result::kFailed, [&] {
    const int old = old_path(handle, ch);
    if (old < 0) return old;
    if (old) return acknowledged(handle, kOldBreak, {&ch, 1});
    return LIN_EX_MasterBreak(handle, ch);
  });
}

VARNEL_API int LIN_Write(DevHandle handle, uint8_t ch, LIN_MSG* records, uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (bad_list(records, count)) return result::kBadArgument;
    const int old = old_path(handle, ch);
    if (old < 0) return old;
    if (old)
      return transact_ack(handle, kOldWrite, old_records(ch, records, count),
                          within(old_timeout_ms(handle, ch)))
          .acknowledged();
    std::vector<LIN_EX_MSG> in, out;
    for (uint32_t i = 0; i < count; ++i) {
      in.push_back(translated(records[i], LIN_EX_MSG_TYPE_MW, write_check(records[i].ID)));
      in.back().BreakBits = 13;
    }
    return sync_all(handle, ch, in, out);
  });
}

VARNEL_API int LIN_Read(DevHandle handle, uint8_t ch, LIN_MSG* records, uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (bad_list(records, count)) return result::kBadArgument;
    const int old = old_path(handle, ch);
    if (old < 0) return old;
    if (old) {
      std::vector<uint8_t> request{ch};
      for (uint32_t i = 0; i < count; ++i) request.push_back(records[i].ID);
      std::span<uint8_t> reply(reinterpret_cast<uint8_t*>(records), count * sizeof(LIN_MSG));
      return transact(handle, kOldRead, request, reply, within(old_timeout_ms(handle, ch)))
          .expect_length(int32_t(reply.size()));
    }
    std::vector<LIN_EX_MSG> in, out;
    for (uint32_t i = 0; i < count; ++i)
      in.push_back(translated(records[i], LIN_EX_MSG_TYPE_MR, read_check(records[i].ID)));
    if (int r = sync_all(handle, ch, in, out); r != 0) return r;
    for (uint32_t i = 0; i < count; ++i) copy_back(records[i], out[i]);
    return 0;
  });
}

VARNEL_API int LIN_SlaveSetIDMode(DevHandle handle, uint8_t ch, uint8_t id_mode, LIN_MSG* records,
                                  uint32_t count) {
  return guarded(result::kFailed, [&] {
    if (bad_list(records, count)) return result::kBadArgument;
    const int old = old_path(handle, ch);
    if (old < 0) return old;
    if (old) {
      std::vector<uint8_t> request = old_records(ch, records, count);
      request.insert(request.begin() + 1, id_mode);
      return acknowledged(handle, kOldSlaveSet, request);
    }
    std::vector<LIN_EX_MSG> table;
    for (uint32_t i = 0; i < count; ++i)
      table.push_back(translated(records[i], id_mode ? LIN_EX_MSG_TYPE_SC : LIN_EX_MSG_TYPE_SW, 0));
    return LIN_EX_SlaveSetIDMode(handle, ch, table.data(), count);
  });
}

VARNEL_API int LIN_SlaveGetData(DevHandle handle, uint8_t ch, LIN_MSG* records) {
  return guarded(result::kFailed, [&] {
    if (!records) return result::kBadArgument;
    const int old = old_path(handle, ch);
    if (old < 0) return old;
    if (old) {
      std::vector<LIN_MSG> reply(VARNEL_LIN_LEGACY_FETCH_SIZE);
      const auto r =
          transact(handle, kOldSlaveGet, {&ch, 1},
                   {reinterpret_cast<uint8_t*>(reply.data()), reply.size() * sizeof(LIN_MSG)});
      if (r.send_result != 0) return result::kWriteFailed;
      if (r.read_result != 0 || r.reply_length < 0) return result::kReplyFailed;
      const size_t n = std::min<size_t>(size_t(r.reply_length) / sizeof(LIN_MSG), reply.size());
      std::copy_n(reply.begin(), n, records);
      return int(n);
    }
    std::vector<LIN_EX_MSG> got(VARNEL_LIN_FETCH_SIZE);
    const int n = LIN_EX_SlaveGetData(handle, ch, got.data());
    for (int i = 0; i < n; ++i) records[i] = received_as_legacy(got[size_t(i)]);
    return n;
  });
}
