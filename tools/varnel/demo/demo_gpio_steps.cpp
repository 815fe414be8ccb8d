// Demo steps of the GPIO family: configure pins, drive them, read them back, emit a pulse train.
#include <cstdio>
#include <string>

#include "demo/demo.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

constexpr uint32_t kOutputs = 0x0F;     // pins 0-3
constexpr uint32_t kPulledUp = 0x10;    // pin 4
constexpr uint32_t kPulledDown = 0x20;  // pin 5
constexpr uint32_t kWritten = 0x0A;     // pins 1 and 3 high

std::string hex(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%02X", value);
  return text;
}

bool configure_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  int rc = GPIO_SetOutput(demo.handle, kOutputs, VARNEL_GPIO_PULL_NONE);
  if (!demo.check(rc == 0, "GPIO_SetOutput", rc)) return false;
  demo.say("GPIO_SetOutput(pins " + hex(kOutputs) + "): pins 0-3 drive");
  rc = GPIO_SetInput(demo.handle, kPulledUp, VARNEL_GPIO_PULL_UP);
  if (!demo.check(rc == 0, "GPIO_SetInput", rc)) return false;
  rc = GPIO_SetInput(demo.handle, kPulledDown, VARNEL_GPIO_PULL_DOWN);
  if (!demo.check(rc == 0, "GPIO_SetInput", rc)) return false;
  demo.say("GPIO_SetInput: pin 4 with pull-up, pin 5 with pull-down");
  return true;
}

bool write_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  int rc = GPIO_Write(demo.handle, kOutputs, kWritten);
  if (!demo.check(rc == 0, "GPIO_Write", rc)) return false;
  demo.say("GPIO_Write(pins " + hex(kOutputs) + ", levels " + hex(kWritten) +
           "): pins 1 and 3 high, 0 and 2 low");
  return true;
}

bool read_back_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const uint32_t mask = kOutputs | kPulledUp | kPulledDown;
  const uint32_t expected = kWritten | kPulledUp;
  uint32_t value = 0;
  int rc = GPIO_Read(demo.handle, mask, &value);
  if (!demo.check(rc == 0, "GPIO_Read", rc)) return false;
  demo.say("GPIO_Read(pins " + hex(mask) + ") = " + hex(value) + ", expected " + hex(expected) +
           " (outputs as written, pin 4 pulled up, pin 5 pulled down)");
  return value == expected;
}

bool pulse_step(DemoContext& demo) {
  if (!demo.need_adapter()) return false;
  const int64_t before_ms = DEV_GetTimestampMs(demo.handle);
  int rc = GPIO_SendPulses(demo.handle, 0x01, 100, 100, 1000);
  const int64_t after_ms = DEV_GetTimestampMs(demo.handle);
  if (!demo.check(rc == 0, "GPIO_SendPulses", rc)) return false;
  demo.say("GPIO_SendPulses(pin 0, width 100 us, period 100 us, 1000 pulses): the period");
  demo.say("  went out as 101 us so that each pulse ends low; the adapter answered after the");
  demo.say("  train, and the library waited for it with a read time-out of 3101 ms");
  const bool train_took_its_time = before_ms >= 0 && after_ms - before_ms >= 101;
  demo.say(std::string("device clock: ") + (train_took_its_time
                                                ? "advanced by at least the train's 101 ms"
                                                : "did not advance by the train's 101 ms"));
  uint32_t value = 0xFF;
  rc = GPIO_Read(demo.handle, 0x01, &value);
  if (!demo.check(rc == 0, "GPIO_Read", rc)) return false;
  demo.say("pin 0 after the train: " + std::string(value ? "high" : "low"));
  return train_took_its_time && value == 0;
}

VARNEL_DEMO_STEP(400, "gpio: configure pins", configure_step)
VARNEL_DEMO_STEP(410, "gpio: write output levels", write_step)
VARNEL_DEMO_STEP(420, "gpio: read the levels back", read_back_step)
VARNEL_DEMO_STEP(430, "gpio: send a pulse train", pulse_step)

}  // namespace
}  // namespace varnel_cli
