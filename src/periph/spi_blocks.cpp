// SPI transfers the adapter repeats (blocks with a pause between them) or starts on a pin event.
// A block request carries its sizes, count and interval; an event request the pins, the kind of
// edge and how long to wait; an event reply starts with a status byte (not 0: no event came).
#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "core/c_boundary.h"
#include "core/result_codes.h"
#include "periph/spi.h"
#include "varnel.h"

using namespace varnel;
using namespace varnel::spi;

namespace {

enum : uint32_t {
  kBlockWrite = 0x20D,
  kBlockRead = 0x20E,
  kBlockWriteRead = 0x20F,
  kWriteOfEvent = 0x213,
  kReadOfEvent = 0x214,
  kWriteReadOfEvent = 0x215,
  kBlockWriteOfEvent = 0x216,
  kBlockReadOfEvent = 0x217,
  kBlockWriteReadOfEvent = 0x218,
};

constexpr int kNoEvent = -6;
constexpr int64_t kReplyMarginMs = 3000;

int clamp_ms(int64_t ms) {
  return int(std::min<int64_t>(ms, INT_MAX));
}

// The adapter needs the blocks' pauses on top of the ordinary reply time.
int block_timeout_ms(uint16_t count, uint32_t interval_us) {
  return clamp_ms(int64_t(count) * interval_us / 1000 + kReplyMarginMs);
}

struct Event {
  uint32_t pins;
  uint8_t type;
  uint32_t wait_ms;
  void append(PayloadWriter& request) const { request.u32(pins).u8(type).u32(wait_ms); }
};

// A reply of a status byte and then `out`: -6 for a status other than 0, whatever follows it (an
// adapter that saw no event may send the status alone); nothing is copied then.
int status_then(uint32_t handle, uint32_t command, const PayloadWriter& request,
                std::span<uint8_t> out, int timeout_ms) {
  std::vector<uint8_t> reply(out.size() + 1);
  const auto r = transact(handle, command, request.bytes(), reply, reply_within(timeout_ms));
  if (r.send_result != 0) return result::kWriteFailed;
  if (r.read_result != 0 || r.reply_length < 1) return result::kReplyFailed;
  if (reply[0] != 0) return kNoEvent;
  if (r.reply_length != int32_t(reply.size())) return result::kReplyFailed;
  if (!out.empty()) std::memcpy(out.data(), reply.data() + 1, out.size());
  return 0;
}

size_t total(uint16_t size, uint16_t count) {
  return size_t(size) * count;
}

}  // namespace

VARNEL_API int SPI_BlockWriteBytes(DevHandle handle, uint8_t channel, uint8_t* data, uint16_t size,
                                   uint16_t count, uint32_t interval_us) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, int64_t(total(size, count)))) return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel).u16(size).u16(count).u32(interval_us).raw(data, total(size, count));
    return acknowledged(handle, kBlockWrite, request, block_timeout_ms(count, interval_us));
  });
}

VARNEL_API int SPI_BlockReadBytes(DevHandle handle, uint8_t channel, uint8_t* out, uint16_t size,
                                  uint16_t count, uint32_t interval_us) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(out, int64_t(total(size, count)))) return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel).u16(size).u16(count).u32(interval_us);
    return read_exactly(handle, kBlockRead, request, {out, total(size, count)},
                        block_timeout_ms(count, interval_us));
  });
}

VARNEL_API int SPI_BlockWriteReadBytes(DevHandle handle, uint8_t channel, uint8_t* data,
                                       uint16_t write_size, uint8_t* out, uint16_t read_size,
                                       uint16_t count, uint32_t interval_us) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, int64_t(total(write_size, count))) ||
        bad_buffer(out, int64_t(total(read_size, count))))
      return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel)
        .u16(write_size)
        .u16(read_size)
        .u16(count)
        .u32(interval_us)
        .raw(data, total(write_size, count));
    return read_exactly(handle, kBlockWriteRead, request, {out, total(read_size, count)},
                        block_timeout_ms(count, interval_us));
  });
}

VARNEL_API int SPI_WriteBytesOfEvent(DevHandle handle, uint8_t channel, uint8_t* data,
                                     int32_t length, uint32_t pins, uint8_t type,
                                     uint32_t wait_ms) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, length)) return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel);
    Event{pins, type, wait_ms}.append(request);
    request.raw(data, size_t(length));
    return status_then(handle, kWriteOfEvent, request, {}, clamp_ms(int64_t(wait_ms) + 100));
  });
}

VARNEL_API int SPI_ReadBytesOfEvent(DevHandle handle, uint8_t channel, uint8_t* out, int32_t length,
                                    uint32_t pins, uint8_t type, uint32_t wait_ms) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(out, length)) return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel).u32(uint32_t(length));
    Event{pins, type, wait_ms}.append(request);
    return status_then(handle, kReadOfEvent, request, {out, size_t(length)},
                       clamp_ms(int64_t(wait_ms) + 100));
  });
}

VARNEL_API int SPI_WriteReadBytesOfEvent(DevHandle handle, uint8_t channel, uint8_t* data,
                                         int32_t write_length, uint8_t* out, int32_t read_length,
                                         int32_t interval_us, uint32_t pins, uint8_t type,
                                         uint32_t wait_ms) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, write_length) || bad_buffer(out, read_length)) return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel).u32(uint32_t(read_length)).u32(uint32_t(interval_us));
    Event{pins, type, wait_ms}.append(request);
    request.raw(data, size_t(write_length));
    return status_then(handle, kWriteReadOfEvent, request, {out, size_t(read_length)},
                       clamp_ms(int64_t(wait_ms) + 100));
  });
}

namespace {
// Each block waits for its own event.
int block_event_timeout_ms(uint16_t count, uint32_t wait_ms) {
  return clamp_ms(int64_t(count) * wait_ms + kReplyMarginMs);
}
}  // namespace

VARNEL_API int SPI_BlockWriteBytesOfEvent(DevHandle handle, uint8_t channel, uint8_t* data,
                                          uint16_t size, uint16_t count, uint32_t interval_us,
                                          uint32_t pins, uint8_t type, uint32_t wait_ms) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, int64_t(total(size, count)))) return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel).u16(size).u16(count).u32(interval_us);
    Event{pins, type, wait_ms}.append(request);
    request.raw(data, total(size, count));
    return status_then(handle, kBlockWriteOfEvent, request, {},
                       block_event_timeout_ms(count, wait_ms));
  });
}

VARNEL_API int SPI_BlockReadBytesOfEvent(DevHandle handle, uint8_t channel, uint8_t* out,
                                         uint16_t size, uint16_t count, uint32_t interval_us,
                                         uint32_t pins, uint8_t type, uint32_t wait_ms) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(out, int64_t(total(size, count)))) return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel).u16(size).u16(count).u32(interval_us);
    Event{pins, type, wait_ms}.append(request);
    return status_then(handle, kBlockReadOfEvent, request, {out, total(size, count)},
                       block_event_timeout_ms(count, wait_ms));
  });
}

VARNEL_API int SPI_BlockWriteReadBytesOfEvent(DevHandle handle, uint8_t channel, uint8_t* data,
                                              uint16_t write_size, uint8_t* out, uint16_t read_size,
                                              uint16_t count, uint32_t interval_us, uint32_t pins,
                                              uint8_t type, uint32_t wait_ms) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, int64_t(total(write_size, count))) ||
        bad_buffer(out, int64_t(total(read_size, count))))
      return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel).u16(write_size).u16(read_size).u16(count).u32(interval_us);
    Event{pins, type, wait_ms}.append(request);
    request.raw(data, total(write_size, count));
    return status_then(handle, kBlockWriteReadOfEvent, request, {out, total(read_size, count)},
                       block_event_timeout_ms(count, wait_ms));
  });
}
