// The K-line's shared pieces (see kline_line.h).
#include "lin/kline_line.h"

#include <memory>
#include <mutex>

#include "core/adapter_state.h"
#include "core/clock.h"
#include "core/delay.h"
#include "core/result_codes.h"
#include "core/transport.h"
#include "lin/kline_frames.h"
#include "lin/kline_wakeup_pins.h"

namespace varnel::kline {
namespace {

constexpr uint32_t kDefaultBaud = 10400;
constexpr size_t kReadBuffer = VARNEL_UART_READ_SIZE;

// The UART configuration each channel last stored, kept per adapter.
struct StoredConfigs {
  std::mutex mutex;
  std::array<UartConfig, kChannels> configs{};
  std::array<bool, kChannels> stored{};
};

// Pin commands in order; the first failure stops the sequence.
struct PinSequence {
  uint32_t handle;
  uint32_t mask;
  int result = 0;
  PinSequence& level(bool high) {
    if (result == 0) result = high ? DIO_SetPins(handle, mask) : DIO_ResetPins(handle, mask);
    return *this;
  }
  PinSequence& hold_ms(int ms) {
    if (result == 0) sleep_for_ms(ms);
    return *this;
  }
};

void wait_until(uint64_t deadline_ns) {
  wait_until_ns(deadline_ns);
}

}  // namespace

UartConfig uart_config(uint32_t baud, uint8_t letter) {
  UartConfig c{};
  c.BaudRate = baud;
  c.Mode = letter;
  return c;
}

bool known_handle(uint32_t handle) {
  return adapter_listed(handle);
}

int store_config(uint32_t handle, uint8_t channel, const UartConfig& config) {
  auto adapter = adapter_table<StoredConfigs>().find_or_create(handle);
  if (!adapter) return KWP_ERR_UNKNOWN_HANDLE;
  std::lock_guard guard(adapter->mutex);
  UartConfig* slot = channel_at(adapter->configs, channel);
  if (!slot) return result::kBadArgument;  // the callers check the channel too
  *slot = config;
  adapter->stored[channel] = true;
  return 0;
}

UartConfig stored_config(uint32_t handle, uint8_t channel) {
  auto adapter = adapter_table<StoredConfigs>().find(handle);
  if (!adapter) return uart_config(kDefaultBaud, kModeK);
  std::lock_guard guard(adapter->mutex);
  const bool* stored = channel_at(adapter->stored, channel);
  return stored && *stored ? adapter->configs[channel] : uart_config(kDefaultBaud, kModeK);
}

int init_uart(uint32_t handle, uint8_t channel) {
  const UartConfig config = stored_config(handle, channel);
  return UART_Init(handle, channel, &config);
}

int send_five_baud_address(uint32_t handle, uint8_t channel, uint8_t address) {
  const uint32_t mask = wakeup_pin_mask(handle, channel);
  int r = DIO_Init(handle, mask);
  if (r != 0) return r;
  PinSequence line{handle, mask};
  line.level(true).hold_ms(300).level(false).hold_ms(200);  // idle, then the start bit
  for (int bit = 0; bit < 8; ++bit) line.level((address >> bit) & 1).hold_ms(200);
  return line.level(true).hold_ms(10).result;  // the stop bit
}

int send_fast_pattern_slept(uint32_t handle, uint8_t channel) {
  const uint32_t mask = wakeup_pin_mask(handle, channel);
  int r = DIO_Init(handle, mask);
  if (r != 0) return r;
  PinSequence line{handle, mask};
  return line.level(true).hold_ms(300).level(false).hold_ms(25).level(true).hold_ms(25).result;
}

int send_fast_pattern_counted(uint32_t handle, uint8_t channel) {
  const uint32_t mask = wakeup_pin_mask(handle, channel);
  int r = DIO_Init(handle, mask);
  if (r != 0) return r;
  PinSequence line{handle, mask};
  if (line.level(true).hold_ms(300).result != 0) return line.result;
  const uint64_t low_from = monotonic_ns();
  if (line.level(false).result != 0) return line.result;
  wait_until(low_from + 25'000'000);
  const uint64_t high_from = monotonic_ns();
  if (line.level(true).result != 0) return line.result;
  wait_until(high_from + (is_network_handle(handle) ? 23'000'000 : 24'000'000));
  return 0;
}

int send_with_echo(uint32_t handle, uint8_t channel, std::span<const uint8_t> frame, int p4,
                   int echo_timeout_ms) {
  const auto size = int32_t(frame.size());
  const int r = p4 == kNoInterval
                    ? UART_WriteBytes(handle, channel, frame.data(), size)
                    : UART_WriteBytesInterval(handle, channel, frame.data(), size, uint8_t(p4));
  if (r != 0) return r;
  std::vector<uint8_t> echo(kReadBuffer);
  const int n = UART_ReadBytes(handle, channel, echo.data(), echo_timeout_ms);
  if (n < 0) return n;
  if (!echo_matches(frame, {echo.data(), size_t(n)})) return kEchoError;
  return 0;
}

int poll(uint32_t handle, uint8_t channel, int timeout_ms,
         const std::function<void(std::span<const uint8_t>)>& take,
         const std::function<bool()>& done) {
  std::vector<uint8_t> buffer(kReadBuffer);
  const uint64_t start = monotonic_ns();
  for (;;) {
    const int n = UART_ReadBytes(handle, channel, buffer.data(), 0);
    if (n < 0) return n;
    if (n > 0) take({buffer.data(), size_t(n)});
    if (done()) return 0;
    if (elapsed_ms_since(start) >= timeout_ms) return 0;
    wait_for_us(kPollIntervalMs * 1000);
  }
}

int collect(uint32_t handle, uint8_t channel, size_t want, int timeout_ms,
            std::vector<uint8_t>& out) {
  return poll(
      handle, channel, timeout_ms,
      [&](std::span<const uint8_t> bytes) {
        for (uint8_t b : bytes)
          if (out.size() < want) out.push_back(b);
      },
      [&] { return out.size() >= want; });
}

void stamp(uint32_t handle, KWP_MSG& record) {
  const uint64_t time = uint64_t(DEV_GetTimestampMs(handle));
  record.TimeStamp = uint32_t(time);
  record.TimeStampHi = uint8_t(time >> 32);
}

}  // namespace varnel::kline
