// The SPI slave side: bytes loaded for a master to read, bytes a master clocked in, fetched once
// or by the continuous read's stream thread (one per adapter, both channels, a fetch every
// millisecond) into a host buffer bounded at 20 MiB or a callback.
#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstring>
#include <memory>
#include <vector>

#include "core/adapter_state.h"
#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/pollers.h"
#include "core/result_codes.h"
#include "core/ring_queue.h"
#include "core/transport.h"
#include "periph/spi.h"
#include "varnel.h"

using namespace varnel;
using namespace varnel::spi;

namespace {

enum : uint32_t {
  kSlaveWrite = 0x205,
  kSlaveWriteRead = 0x222,
  kStreamFetch = 0x223,
  kSlaveReadWrite = 0x224,
  kStreamStart = 0x225,
  kStreamStop = 0x226,
  kContinueWrite = 0x227,
};

constexpr int kChannels = 2;
constexpr size_t kFetchBytes = 61440;
constexpr int kFetchTimeoutMs = 11;
constexpr size_t kBufferLimit = 0x1400000;  // 20 MiB a channel
constexpr int kReadRoundMs = 10;

struct Stream {
  std::unique_ptr<RingQueue<uint8_t>> buffer;              // allocated at the first byte
  std::atomic<SPI_SLAVE_DATA_CALLBACK> callback{nullptr};  // read by the stream thread
};
struct SlaveStreams {
  std::array<Stream, kChannels> channels;
};

// The channel's stream, held for the caller; null for an unknown handle or channel.
std::shared_ptr<Stream> stream_of(uint32_t handle, uint8_t channel, bool create) {
  auto adapter = create ? adapter_table<SlaveStreams>().find_or_create(handle)
                        : adapter_table<SlaveStreams>().find(handle);
  Stream* stream = adapter ? channel_at(adapter->channels, channel) : nullptr;
  return stream ? std::shared_ptr<Stream>(adapter, stream) : nullptr;
}

// The slave calls give the adapter the wait and take 100 ms more for its answer.
int slave_timeout_ms(int32_t wait_ms) {
  return wait_ms < 1 ? 0 : int(std::min<int64_t>(int64_t(wait_ms) + 100, INT_MAX));
}

// A request answered with the request's command and no data.
int confirmed(uint32_t handle, uint32_t command, const PayloadWriter& request) {
  return acknowledged(handle, command, request, kDefaultTimeoutMs);
}

// One fetch of what the adapter's slave port received; the count, or -2/-4.
int fetch(uint32_t handle, uint8_t channel, std::span<uint8_t> out) {
  const uint8_t ch = channel & 1;
  const auto r = transact(handle, kStreamFetch, {&ch, 1}, out, reply_within(kFetchTimeoutMs));
  if (r.send_result != 0) return result::kWriteFailed;
  if (r.read_result != 0 || r.reply_command != kStreamFetch) return result::kReplyFailed;
  return std::min<int>(r.reply_length, int(out.size()));
}

int stream_step(uint32_t handle, uint8_t channel) {
  const auto held = stream_of(handle, channel, false);
  if (!held) return result::kUnknownHandle;
  thread_local std::vector<uint8_t> bytes(kFetchBytes);
  const int n = fetch(handle, channel, bytes);
  if (n <= 0) return n;
  Stream& stream = *held;
  if (SPI_SLAVE_DATA_CALLBACK callback = stream.callback) {
    callback(handle, channel, bytes.data(), n);
    return 0;
  }
  spi_slave_data_lock(handle, channel);
  if (!stream.buffer) stream.buffer = std::make_unique<RingQueue<uint8_t>>(kBufferLimit);
  stream.buffer->append(bytes.data(), size_t(n));
  spi_slave_data_unlock(handle, channel);
  return 0;
}

Pollers& stream_pollers() {
  static Pollers pollers(kChannels, stream_step, /*pause_ms=*/1);
  return pollers;
}

int write_then_read(uint32_t handle, uint8_t channel, uint32_t command, const uint8_t* data,
                    uint8_t* out, int32_t length, int32_t wait_ms) {
  if (bad_buffer(data, length) || bad_buffer(out, length)) return result::kBadArgument;
  PayloadWriter request;
  request.u8(channel).u32(uint32_t(wait_ms)).u32(uint32_t(length)).raw(data, size_t(length));
  return read_exactly(handle, command, request, {out, size_t(length)}, slave_timeout_ms(wait_ms));
}

}  // namespace

VARNEL_API int SPI_SlaveWriteBytes(DevHandle handle, uint8_t channel, uint8_t* data, int32_t length,
                                   int32_t wait_ms) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, length)) return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel).u32(uint32_t(wait_ms)).raw(data, size_t(length));
    uint8_t count[4];
    const auto r = transact(handle, kSlaveWrite, request.bytes(), count,
                            reply_within(slave_timeout_ms(wait_ms)));
    if (r.send_result != 0) return result::kWriteFailed;
    if (r.read_result != 0 || r.reply_length != 4 || r.reply_command != kSlaveWrite)
      return result::kReplyFailed;
    return int(get_be32(count));
  });
}

VARNEL_API int SPI_SlaveWriteReadBytes(DevHandle handle, uint8_t channel, uint8_t* data,
                                       uint8_t* out, int32_t length, int32_t wait_ms) {
  return guarded(result::kFailed, [&] {
    return write_then_read(handle, channel, kSlaveWriteRead, data, out, length, wait_ms);
  });
}

VARNEL_API int SPI_SlaveReadWriteBytes(DevHandle handle, uint8_t channel, uint8_t* out,
                                       uint8_t* data, int32_t length, int32_t wait_ms) {
  return guarded(result::kFailed, [&] {
    return write_then_read(handle, channel, kSlaveReadWrite, data, out, length, wait_ms);
  });
}

VARNEL_API int SPI_SlaveStartContinueRead(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    PayloadWriter request;
    request.u8(channel & 1);
    return confirmed(handle, kStreamStart, request);
  });
}

VARNEL_API int SPI_SlaveStopContinueRead(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    PayloadWriter request;
    request.u8(channel & 1);
    return confirmed(handle, kStreamStop, request);
  });
}

VARNEL_API int SPI_SlaveContinueWrite(DevHandle handle, uint8_t channel, uint8_t* data,
                                      int32_t length) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(data, length)) return result::kBadArgument;
    PayloadWriter request;
    request.u8(channel).raw(data, size_t(length));
    return confirmed(handle, kContinueWrite, request);
  });
}

VARNEL_API int SPI_SlaveReadBytes(DevHandle handle, uint8_t channel, uint8_t* out, int32_t length,
                                  int32_t timeout_ms) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(out, length)) return result::kBadArgument;
    if (int r = SPI_SlaveStartContinueRead(handle, channel); r != 0) return r;
    int32_t done = 0;
    int result = 0;
    while (done < length) {
      const int n = fetch(handle, channel, {out + done, size_t(length - done)});
      if (n < 0) {
        result = n;
        break;
      }
      done += n;
      if (done >= length) break;
      if (timeout_ms >= 1) {  // below 1: no limit
        timeout_ms -= kReadRoundMs;
        if (timeout_ms < 1) break;
      }
    }
    SPI_SlaveStopContinueRead(handle, channel);
    return result < 0 ? result : done;
  });
}

VARNEL_API int SPI_SlaveContinueRead(DevHandle handle, uint8_t channel,
                                     SPI_SLAVE_DATA_CALLBACK callback) {
  return guarded(result::kFailed, [&] {
    const auto stream = stream_of(handle, channel, true);
    if (!stream) return result::kBadArgument;
    if (int r = SPI_SlaveStartContinueRead(handle, channel); r != 0) return r;
    spi_slave_data_lock(handle, channel);
    if (stream->buffer) stream->buffer->clear();
    if (stream->buffer) stream->buffer->forget_drops();
    stream->callback = callback;
    spi_slave_data_unlock(handle, channel);
    return stream_pollers().start(handle, channel);
  });
}

VARNEL_API int SPI_SlaveGetBytes(DevHandle handle, uint8_t channel, uint8_t* out, int32_t size) {
  return guarded(result::kFailed, [&] {
    if (!out || size < 0) return result::kBadArgument;
    const auto stream = stream_of(handle, channel, true);
    if (!stream) return result::kBadArgument;
    spi_slave_data_lock(handle, channel);
    const size_t n = stream->buffer ? stream->buffer->take(out, size_t(size)) : 0;
    spi_slave_data_unlock(handle, channel);
    return int(n);
  });
}

VARNEL_API int SPI_SlaveContinueWriteReadStop(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    stream_pollers().stop(handle, channel);
    return SPI_SlaveStopContinueRead(handle, channel);
  });
}

VARNEL_API int SPI_SlaveContinueReadStop(DevHandle handle, uint8_t channel) {
  return SPI_SlaveContinueWriteReadStop(handle, channel);
}

VARNEL_API int SPI_SlaveReadBytesFromBuffer(DevHandle handle, uint8_t channel, uint8_t* out,
                                            int32_t size) {
  return guarded(result::kFailed, [&] {
    if (bad_buffer(out, size)) return result::kBadArgument;
    return fetch(handle, channel, {out, size_t(size)});
  });
}

VARNEL_API int64_t VARNEL_SPI_SlaveDropped(DevHandle handle, uint8_t channel) {
  return guarded(int64_t(result::kFailed), [&]() -> int64_t {
    const auto stream = stream_of(handle, channel, true);
    if (!stream) return result::kBadArgument;
    spi_slave_data_lock(handle, channel);
    const int64_t dropped = stream->buffer ? int64_t(stream->buffer->dropped()) : 0;
    spi_slave_data_unlock(handle, channel);
    return dropped;
  });
}

VARNEL_API int VARNEL_SPI_SlaveStreamState(DevHandle handle, uint8_t channel) {
  return guarded(result::kFailed, [&] {
    if (channel >= kChannels) return result::kBadArgument;
    if (stream_pollers().polled(handle, channel)) return 1;
    return stream_pollers().stop_result(handle, channel);
  });
}
