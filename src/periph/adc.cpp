// The ADC: block reads as one transaction, and the continuous read, where the adapter pushes
// packets of samples on the bulk-in endpoint for a stream of asynchronous transfers on a thread of
// the library (core/usb_stream), handed to the caller's callback or queued for ADC_GetData.
#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <climits>
#include <memory>
#include <mutex>

#include "core/adapter_state.h"
#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/locks.h"
#include "core/packet_queue.h"
#include "core/result_codes.h"
#include "core/transaction.h"
#include "core/transport.h"
#include "core/usb.h"
#include "core/usb_stream.h"
#include "varnel.h"

using namespace varnel;

namespace {

enum : uint32_t { kAdcInit = 0x500, kAdcRead = 0x501, kAdcStreamStart = 0x502 };
constexpr uint8_t kRequestStreamStop = 0x40;  // vendor control request, no data

constexpr int kConfigTimeoutMs = 3000;
constexpr int kSingleSampleTimeoutMs = 100;
constexpr size_t kDefaultQueueLimit = 0x1400000;  // 20 MiB

struct AdcDevice {
  std::mutex control;  // orders starts and stops of one device's stream
  std::atomic<uint8_t> mask{0};
  std::atomic<uint32_t> rate{0};
  std::atomic<uint32_t> packet_samples{0};
  std::atomic<ADC_DATA_CALLBACK> callback{nullptr};
  std::atomic<bool> queueing{false};  // the stream was started without a callback
  std::atomic<size_t> queue_limit{kDefaultQueueLimit};
  PacketQueue queue;
  std::unique_ptr<BulkInStream> stream;  // its callback uses the fields above
  // Why the last stream ended, once its stream is gone (a start while one ran, or the stop).
  std::atomic<BulkInStream::End> last_end{BulkInStream::End::kStopped};
  ~AdcDevice() { stream.reset(); }  // stopped and joined before the queue goes
};
using AdcDevicePtr = std::shared_ptr<AdcDevice>;

// The table lives until exit (the libusb context does too); a stream left running is stopped at
// exit, so that its thread is joined before the process ends.
AdapterTable<AdcDevice>& devices() {
  static auto* table = new AdapterTable<AdcDevice>;
  static struct Reaper {
    ~Reaper() {
      for (const AdcDevicePtr& device : table->all()) {
        std::lock_guard control(device->control);
        device->stream.reset();
      }
    }
  } reaper;
  return *table;
}

AdcDevicePtr device_of(uint32_t handle) {
  return devices().find_or_create(handle);
}

TransactionOptions reply_within(int timeout_ms) {
  TransactionOptions options;
  options.read_timeout_ms = timeout_ms;
  return options;
}

// A block of more than one sample per input may take its own duration at the sample rate.
int read_timeout_ms(uint32_t samples_per_channel, uint32_t rate) {
  if (samples_per_channel <= 1) return kSingleSampleTimeoutMs;
  const uint64_t duration_ms = (uint64_t(samples_per_channel) * 1000 - 1000) / std::max(rate, 1u);
  return int(std::min<uint64_t>(duration_ms + kConfigTimeoutMs, INT_MAX));
}

void tell_adapter_to_stop(uint32_t handle) {
  DeviceLockGuard lock(handle);
  usb_control_out(handle, kRequestStreamStop, kConfigTimeoutMs);
}

// Stops the adapter's side and reaps the thread. The caller holds the device's control mutex.
void stop_stream(uint32_t handle, AdcDevice& device) {
  if (device.stream && !device.stream->stopped()) {
    tell_adapter_to_stop(handle);
    device.callback = nullptr;
  }
  // Cancels, drains and joins (the pump is woken, the drain is bounded); a stream that the
  // adapter's unplug ended still has a thread to join.
  if (device.stream) {
    device.stream->stop();
    device.last_end = device.stream->end();
  }
  device.stream.reset();
}

void on_packet(uint32_t handle, AdcDevice& device, const uint8_t* data, int size) {
  if (ADC_DATA_CALLBACK callback = device.callback) {
    // The transfer's buffer comes from new[], aligned for 16-bit samples.
    callback(handle, reinterpret_cast<uint16_t*>(const_cast<uint8_t*>(data)), size / 2);
  } else if (device.queueing) {
    device.queue.append(data, size_t(size));
  }  // else a callback stream is stopping: what arrives during the drain is not the queue's
}

int start_stream(uint32_t handle, AdcDevice& device, ADC_DATA_CALLBACK callback) {
  const size_t packet_bytes = size_t(device.packet_samples) * 2;
  device.queue.reset(packet_bytes, device.queue_limit);
  device.callback = callback;
  device.queueing = callback == nullptr;
  BulkInStream::Options options;
  options.buffer_size = int(packet_bytes);
  device.stream = std::make_unique<BulkInStream>(
      handle, options,
      [handle, &device](const uint8_t* data, int size) { on_packet(handle, device, data, size); });
  if (device.stream->start()) return 0;
  // No transfer could be submitted (not a USB adapter, or it went away): the adapter is told to
  // stop as ADC_StopContinueRead does.
  tell_adapter_to_stop(handle);
  device.stream.reset();
  return result::kWriteFailed;
}

}  // namespace

VARNEL_API int ADC_Init(DevHandle handle, uint8_t mask, uint32_t rate) {
  return guarded(result::kFailed, [&] {
    if (const AdcDevicePtr device = device_of(handle)) {
      device->mask = mask;
      device->rate = rate;
    }
    PayloadWriter request;
    request.u8(mask).u32(rate);
    return transact_ack(handle, kAdcInit, request.bytes(), reply_within(kConfigTimeoutMs))
        .acknowledged();
  });
}

VARNEL_API int ADC_Read(DevHandle handle, uint16_t* out, uint32_t samples_per_channel) {
  return guarded(result::kFailed, [&] {
    const AdcDevicePtr device = device_of(handle);
    const uint8_t mask = device ? device->mask.load() : 0;
    const uint32_t rate = device ? device->rate.load() : 0;
    const uint64_t expected = uint64_t(samples_per_channel) * std::popcount(mask) * 2;
    if (expected > uint64_t(INT_MAX)) return result::kBadArgument;
    if (!out && expected > 0) return result::kBadArgument;
    PayloadWriter request;
    request.u32(samples_per_channel);
    std::span<uint8_t> reply(reinterpret_cast<uint8_t*>(out), size_t(expected));
    return transact(handle, kAdcRead, request.bytes(), reply,
                    reply_within(read_timeout_ms(samples_per_channel, rate)))
        .expect_length(int32_t(expected));
  });
}

VARNEL_API int ADC_StartContinueRead(DevHandle handle, uint8_t mask, uint32_t rate,
                                     uint32_t packet_samples, ADC_DATA_CALLBACK callback) {
  return guarded(result::kFailed, [&] {
    if (packet_samples == 0 || packet_samples > INT_MAX / 2) return result::kBadArgument;
    const AdcDevicePtr device = device_of(handle);
    if (!device) return result::kFailed;
    std::lock_guard control(device->control);
    stop_stream(handle, *device);
    device->mask = mask;
    device->rate = rate;
    device->packet_samples = packet_samples;
    PayloadWriter request;
    request.u8(mask).u32(rate).u32(packet_samples);
    const int r =
        transact_ack(handle, kAdcStreamStart, request.bytes(), reply_within(kConfigTimeoutMs))
            .acknowledged();
    if (r != 0) return r;
    return start_stream(handle, *device, callback);
  });
}

VARNEL_API int ADC_StopContinueRead(DevHandle handle) {
  return guarded(0, [&] {
    if (const AdcDevicePtr device = device_of(handle)) {
      std::lock_guard control(device->control);
      stop_stream(handle, *device);
    }
    return 0;
  });
}

VARNEL_API int ADC_GetData(DevHandle handle, uint16_t* out, int32_t max_samples) {
  return guarded(result::kFailed, [&] {
    if (!out || max_samples < 0) return result::kBadArgument;
    const AdcDevicePtr device = device_of(handle);
    if (!device) return result::kUnknownHandle;
    DeviceLockGuard lock(handle);
    const size_t copied =
        device->queue.take(reinterpret_cast<uint8_t*>(out), size_t(max_samples) * 2);
    return int(copied / 2);
  });
}

VARNEL_API int64_t VARNEL_ADC_Dropped(DevHandle handle) {
  return guarded(int64_t(result::kFailed), [&]() -> int64_t {
    const AdcDevicePtr device = device_of(handle);
    return device ? int64_t(device->queue.dropped()) : result::kUnknownHandle;
  });
}

VARNEL_API int VARNEL_ADC_SetQueueLimit(DevHandle handle, uint32_t bytes) {
  return guarded(result::kFailed, [&] {
    const AdcDevicePtr device = device_of(handle);
    if (!device) return result::kUnknownHandle;
    device->queue_limit = bytes == 0 ? kDefaultQueueLimit : size_t(bytes);
    return 0;
  });
}

VARNEL_API int VARNEL_ADC_StreamState(DevHandle handle) {
  return guarded(result::kFailed, [&] {
    const AdcDevicePtr device = device_of(handle);
    if (!device) return result::kUnknownHandle;
    std::lock_guard control(device->control);
    const BulkInStream::End end = device->stream ? device->stream->end() : device->last_end.load();
    switch (end) {
      case BulkInStream::End::kRunning:
        return 1;
      case BulkInStream::End::kStopped:
        return 0;
      case BulkInStream::End::kClosedUnderIt:
        return result::kWriteFailed;
      case BulkInStream::End::kDeviceGone:
        break;
    }
    return result::kReplyMissing;
  });
}
