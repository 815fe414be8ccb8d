// The services a CAN channel runs on the adapter without the host: acceptance filters, cyclic
// send schedules and the relay between the two channels. Each call is one command; CAN FD
// adapters take their own commands and records.
#include <cstring>
#include <vector>

#include "can/can_internal.h"
#include "core/bytes.h"

using namespace varnel;
using namespace varnel::can;

namespace {

constexpr int kBanksPerChannel = 14;
constexpr size_t kScheduleLimit = 10240;    // a classic schedule packet stays below this
constexpr size_t kFdScheduleLimit = 65536;  // our CAN FD firmware's bound
constexpr size_t kFdUpdateRecord = 80;      // a CANFD_MSG and 4 reserved bytes
constexpr int kScheduleTimeoutMs = 15000;

TransactionOptions send_locked(uint8_t channel, int read_timeout_ms = kDefaultTimeoutMs) {
  TransactionOptions options;
  options.read_timeout_ms = read_timeout_ms;
  options.lock = {TransactionLock::Kind::kCanChannel, channel};
  return options;
}

int acknowledged(uint32_t handle, uint32_t command, std::span<const uint8_t> payload,
                 int read_timeout_ms = kDefaultTimeoutMs) {
  return send_transaction(handle, command, payload, {}, send_locked(payload[0], read_timeout_ms))
      .acknowledged();
}

// A filter bank register: bits 31-21 the standard identifier (or the top 11 bits of an extended
// one), bits 20-3 the low 18 bits of an extended identifier, bit 2 IDE, bit 1 RTR.
uint32_t bank_register(uint32_t id, bool extended, uint32_t ide, uint32_t rtr) {
  const uint32_t identifier =
      extended ? ((id >> 18) & 0x7FF) << 21 | (id & 0x3FFFF) << 3 : (id & 0x7FF) << 21;
  return identifier | (ide & 1) << 2 | (rtr & 1) << 1;
}

int fd_filter(uint32_t handle, uint8_t channel, const CAN_FILTER_CONFIG& f) {
  CANFD_FILTER_CONFIG entry{};
  entry.Enable = f.Enable;
  entry.Index = f.FilterIndex;
  entry.ID = f.ID | (f.IdIDE & 1) << 31 | (f.IdRTR & 1) << 30;
  entry.Mask = f.FilterMode ? 0xFFFFFFFFu : f.Mask | (f.MaskIDE & 1) << 31 | (f.MaskRTR & 1) << 30;
  return CANFD_SetFilter(handle, channel, &entry, 1);
}

// The CAN FD form of a scheduled record: the time stamp is the record's offset and goes as it is,
// not scaled as received time stamps are.
CANFD_MSG scheduled_fd(const CAN_MSG& msg) {
  CANFD_MSG fd = to_canfd(msg);
  fd.TimeStamp = msg.TimeStamp;
  fd.TimeStampHigh = 0;
  return fd;
}

void append(std::vector<uint8_t>& out, const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  out.insert(out.end(), bytes, bytes + size);
}

}  // namespace

VARNEL_API int CAN_Filter_Init(DevHandle handle, uint8_t channel, CAN_FILTER_CONFIG* filter) {
  return guarded(result::kFailed, [&] {
    if (!filter) return result::kBadArgument;
    if (is_fd_adapter(handle)) return fd_filter(handle, channel, *filter);
    const bool extended = filter->ExtFrame == 1;
    const uint32_t r1 = bank_register(filter->ID, extended, filter->IdIDE, filter->IdRTR);
    const uint32_t r2 =
        filter->FilterMode
            ? bank_register(0, extended, filter->MaskIDE, filter->MaskRTR)
            : bank_register(filter->Mask, extended, filter->MaskIDE, filter->MaskRTR);
    std::vector<uint8_t> payload{
        channel, uint8_t(filter->FilterIndex % kBanksPerChannel + channel * kBanksPerChannel),
        filter->FilterMode, 1};
    payload.resize(14);
    put_be32(&payload[4], r1);
    put_be32(&payload[8], r2);
    payload[13] = filter->Enable;
    return acknowledged(handle, kCanFilter, payload);
  });
}

VARNEL_API int CAN_FilterList_Init(DevHandle handle, uint8_t channel, uint32_t* ids,
                                   uint8_t count) {
  return guarded(result::kFailed, [&] {
    if (count > 0 && !ids) return result::kBadArgument;
    CAN_FILTER_CONFIG filter{};
    if (count == 0) {  // every filter off
      for (uint8_t index = 0; index < kBanksPerChannel; ++index) {
        filter.FilterIndex = index;
        if (int r = CAN_Filter_Init(handle, channel, &filter); r != 0) return r;
      }
      return 0;
    }
    for (uint8_t i = 0; i < std::min<uint8_t>(count, kBanksPerChannel); ++i) {
      const bool extended = ids[i] >> 31;
      filter = CAN_FILTER_CONFIG{
          1, i, 1, uint8_t(extended), ids[i] & 0x1FFFFFFF, extended, (ids[i] >> 30) & 1, 0, 0, 0};
      if (int r = CAN_Filter_Init(handle, channel, &filter); r != 0) return r;
    }
    return 0;
  });
}

VARNEL_API int CANFD_SetFilter(DevHandle handle, uint8_t channel, CANFD_FILTER_CONFIG* filters,
                               uint8_t count) {
  return guarded(result::kFailed, [&] {
    if (count > 0 && !filters) return result::kBadArgument;
    std::vector<uint8_t> payload{channel, count};
    for (uint8_t i = 0; i < count; ++i) {
      const size_t at = payload.size();
      payload.resize(at + 10);
      payload[at] = filters[i].Enable;
      payload[at + 1] = filters[i].Index;
      put_be32(&payload[at + 2], filters[i].ID);
      put_be32(&payload[at + 6], filters[i].Mask);
    }
    return acknowledged(handle, kFdFilter, payload);
  });
}

VARNEL_API int CAN_SetSchedule(DevHandle handle, uint8_t channel, CAN_MSG* msgs, uint8_t* counts,
                               uint8_t* table_values, uint8_t tables) {
  return guarded(result::kFailed, [&] {
    if (tables > 0 && (!counts || !table_values)) return result::kBadArgument;
    size_t total = 0;
    for (uint8_t t = 0; t < tables; ++t) total += counts[t];
    if (total > 0 && !msgs) return result::kBadArgument;
    const bool fd = is_fd_adapter(handle);
    const size_t record = fd ? sizeof(CANFD_MSG) : sizeof(CAN_MSG);
    if (record * total + 3 * size_t(tables) + 2 >= (fd ? kFdScheduleLimit : kScheduleLimit))
      return result::kReplyFailed;  // refused before anything is sent
    std::vector<uint8_t> payload{channel, tables};
    append(payload, counts, tables);
    append(payload, table_values, 2 * size_t(tables));
    for (size_t i = 0; i < total; ++i) {
      if (!fd) {
        append(payload, &msgs[i], sizeof(CAN_MSG));
        continue;
      }
      const CANFD_MSG converted = scheduled_fd(msgs[i]);
      append(payload, &converted, sizeof converted);
    }
    return acknowledged(handle, fd ? kFdSchedule : kCanSchedule, payload, kScheduleTimeoutMs);
  });
}

VARNEL_API int CAN_UpdateSchedule(DevHandle handle, uint8_t channel, uint8_t table, uint8_t first,
                                  CAN_MSG* msgs, uint8_t count) {
  return guarded(result::kFailed, [&] {
    if (count > 0 && !msgs) return result::kBadArgument;
    const bool fd = is_fd_adapter(handle);
    std::vector<uint8_t> payload{channel, table, first};
    for (uint8_t i = 0; i < count; ++i) {
      if (!fd) {
        append(payload, &msgs[i], sizeof(CAN_MSG));
        continue;
      }
      const CANFD_MSG converted = scheduled_fd(msgs[i]);
      append(payload, &converted, sizeof converted);
      payload.resize(payload.size() + kFdUpdateRecord - sizeof converted, 0);
    }
    return acknowledged(handle, fd ? kFdScheduleUpdate : kCanScheduleUpdate, payload);
  });
}

VARNEL_API int CAN_StartSchedule(DevHandle handle, uint8_t channel, uint8_t table, uint8_t periods,
                                 uint8_t option) {
  return guarded(result::kFailed, [&] {
    const uint8_t payload[] = {channel, table, periods, option};
    return acknowledged(handle, is_fd_adapter(handle) ? kFdScheduleStart : kCanScheduleStart,
                        payload);
  });
}

VARNEL_API int CAN_StopSchedule(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    return acknowledged(handle, is_fd_adapter(handle) ? kFdScheduleStop : kCanScheduleStop,
                        {&channel, 1});
  });
}

VARNEL_API int CAN_SetRelay(DevHandle handle, uint8_t state) {
  return guarded(result::kFailed, [&] {
    uint8_t echo = 0;
    const auto r =
        transact(handle, is_fd_adapter(handle) ? kFdRelay : kCanRelay, {&state, 1}, {&echo, 1});
    if (r.send_result != 0) return result::kWriteFailed;
    return r.read_result == 0 && r.reply_length == 1 && echo == state ? 0 : result::kReplyFailed;
  });
}
