// GPIO: pin direction, drive, levels and pulse trains. Each call is one transaction; the library
// keeps no pin state (the configuration lives in the adapter) and checks no argument.
#include "periph/gpio.h"

#include <array>
#include <cstdint>

#include "core/bytes.h"
#include "core/c_boundary.h"
#include "core/result_codes.h"
#include "core/transaction.h"
#include "varnel.h"

namespace {

constexpr uint32_t kSetInput = 0x0600;
constexpr uint32_t kSetOutput = 0x0601;
constexpr uint32_t kSetOpenDrain = 0x0602;
constexpr uint32_t kWrite = 0x0603;
constexpr uint32_t kRead = 0x0604;
constexpr uint32_t kSendPulses = 0x0806;  // lives in the PWM block of the firmware

int acknowledged(uint32_t handle, uint32_t command, std::span<const uint8_t> request,
                 int read_timeout_ms = varnel::kDefaultTimeoutMs) {
  varnel::TransactionOptions options;
  options.read_timeout_ms = read_timeout_ms;
  return varnel::transact_ack(handle, command, request, options).acknowledged();
}

int set_mode(uint32_t handle, uint32_t command, uint32_t mask, uint8_t pull) {
  std::array<uint8_t, 5> payload{};
  varnel::put_be32(payload.data(), mask);
  payload[4] = pull;
  return acknowledged(handle, command, payload);
}

int write_pins(uint32_t handle, uint32_t mask, uint32_t values) {
  std::array<uint8_t, 8> payload{};
  varnel::put_be32(payload.data(), mask);
  varnel::put_be32(payload.data() + 4, values);
  return acknowledged(handle, kWrite, payload);
}

}  // namespace

namespace varnel {

// The train's duration in ms on top of the ordinary 3000 ms: period x count wraps in 32 bits,
// as the firmware protocol has always computed it.
int pulse_read_timeout_ms(uint32_t period_us, int32_t count) {
  uint32_t train_us = period_us * static_cast<uint32_t>(count);
  return static_cast<int>(train_us / 1000u) + kDefaultTimeoutMs;
}

// Every pulse keeps at least one microsecond of low time.
uint32_t corrected_pulse_period(uint32_t width_us, uint32_t period_us) {
  return period_us > width_us ? period_us : width_us + 1;
}

}  // namespace varnel

VARNEL_API int GPIO_SetInput(DevHandle handle, uint32_t mask, uint8_t pull) {
  return varnel::guarded(varnel::result::kFailed,
                         [&] { return set_mode(handle, kSetInput, mask, pull); });
}

VARNEL_API int GPIO_SetOutput(DevHandle handle, uint32_t mask, uint8_t pull) {
  return varnel::guarded(varnel::result::kFailed,
                         [&] { return set_mode(handle, kSetOutput, mask, pull); });
}

VARNEL_API int GPIO_SetOpenDrain(DevHandle handle, uint32_t mask, uint8_t pull) {
  return varnel::guarded(varnel::result::kFailed,
                         [&] { return set_mode(handle, kSetOpenDrain, mask, pull); });
}

VARNEL_API int GPIO_Write(DevHandle handle, uint32_t mask, uint32_t values) {
  return varnel::guarded(varnel::result::kFailed, [&] { return write_pins(handle, mask, values); });
}

VARNEL_API int GPIO_Read(DevHandle handle, uint32_t mask, uint32_t* values) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    std::array<uint8_t, 4> request{};
    varnel::put_be32(request.data(), mask);
    std::array<uint8_t, 4> reply{};
    auto result = varnel::transact(handle, kRead, request, reply);
    int rc = result.expect_length(4);
    if (rc != 0) return rc;
    if (values) *values = varnel::get_be32(reply.data());
    return 0;
  });
}

VARNEL_API int GPIO_SendPulses(DevHandle handle, uint32_t mask, uint32_t width_us,
                               uint32_t period_us, int32_t count) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    uint32_t period = varnel::corrected_pulse_period(width_us, period_us);
    varnel::PayloadWriter payload;
    payload.u32(mask).u32(width_us).u32(period).u32(static_cast<uint32_t>(count));
    return acknowledged(handle, kSendPulses, payload.bytes(),
                        varnel::pulse_read_timeout_ms(period, count));
  });
}

// The digital outputs of the K-line wake-up patterns ride on the GPIO commands: push-pull without
// pull, then written high or low.
VARNEL_API int DIO_Init(DevHandle handle, uint32_t mask) {
  return varnel::guarded(varnel::result::kFailed,
                         [&] { return set_mode(handle, kSetOutput, mask, 0); });
}

VARNEL_API int DIO_SetPins(DevHandle handle, uint32_t mask) {
  return varnel::guarded(varnel::result::kFailed, [&] { return write_pins(handle, mask, mask); });
}

VARNEL_API int DIO_ResetPins(DevHandle handle, uint32_t mask) {
  return varnel::guarded(varnel::result::kFailed, [&] { return write_pins(handle, mask, 0); });
}
