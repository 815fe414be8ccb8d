// `varnel gpio`: pin direction, levels and pulse trains.
//   varnel gpio HANDLE set MASK input|output|open-drain [--pull none|up|down]
//   varnel gpio HANDLE write MASK VALUES
//   varnel gpio HANDLE read MASK
//   varnel gpio HANDLE pulse MASK --width US --period US --count N
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "core/adapter.h"
#include "core/channel_session.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

// One set per subcommand: several may follow each other on one line and run in order, on the
// same adapter (`gpio H set 0x1 output pulse 0x1`).
struct GpioOptions {
  std::shared_ptr<std::string> handle;
  std::string mask;
  std::string mode;
  std::string pull = "none";
  std::string values;
  std::string width = "100";
  std::string period = "1000";
  int count = 1;
};

uint32_t number(const std::string& text) {
  uint32_t value = 0;
  parse_handle(text, value);  // checked by the validators
  return value;
}

const std::map<std::string, uint8_t> kPulls = {
    {"none", VARNEL_GPIO_PULL_NONE}, {"up", VARNEL_GPIO_PULL_UP}, {"down", VARNEL_GPIO_PULL_DOWN}};

// "pin 0 high, pin 2 low" for the selected pins.
std::string pin_levels(uint32_t mask, uint32_t values) {
  std::string text;
  for (int pin = 0; pin < 32; ++pin) {
    if (!((mask >> pin) & 1u)) continue;
    if (!text.empty()) text += ", ";
    text += "pin " + std::to_string(pin) + ((values >> pin) & 1u ? " high" : " low");
  }
  return text;
}

// Runs `call` in a session on the adapter. `context`: what the call was asked, for a failure
// that names it.
template <typename Call>
void with_adapter(const GpioOptions& options, const char* what, const CallContext& context,
                  Call call) {
  if (exit_code() != 0) return;  // an earlier step on the same line failed
  run_adapter_session({std::string("gpio ") + what, {}, 1, true}, number(*options.handle),
                      [&](const ChannelTarget& t) { return CallResult(call(t.handle), context); });
}

template <typename Call>
void with_adapter(const GpioOptions& options, const char* what, Call call) {
  with_adapter(options, what, CallContext{}, call);
}

void run_set(const GpioOptions& o) {
  with_adapter(o, "set", [&o](uint32_t handle) {
    const uint32_t mask = number(o.mask);
    const uint8_t pull = kPulls.at(o.pull);
    int rc = o.mode == "input"    ? GPIO_SetInput(handle, mask, pull)
             : o.mode == "output" ? GPIO_SetOutput(handle, mask, pull)
                                  : GPIO_SetOpenDrain(handle, mask, pull);
    if (rc == 0) std::printf("pins 0x%08X: %s, pull %s\n", mask, o.mode.c_str(), o.pull.c_str());
    return rc;
  });
}

void run_write(const GpioOptions& o) {
  with_adapter(o, "write", [&o](uint32_t handle) {
    const uint32_t mask = number(o.mask), values = number(o.values);
    int rc = GPIO_Write(handle, mask, values);
    if (rc == 0)
      std::printf("wrote 0x%08X to pins 0x%08X (%s)\n", values & mask, mask,
                  pin_levels(mask, values).c_str());
    return rc;
  });
}

void run_read(const GpioOptions& o) {
  with_adapter(o, "read", [&o](uint32_t handle) {
    const uint32_t mask = number(o.mask);
    uint32_t values = 0;
    int rc = GPIO_Read(handle, mask, &values);
    if (rc == 0)
      std::printf("pins 0x%08X read 0x%08X (%s)\n", mask, values, pin_levels(mask, values).c_str());
    return rc;
  });
}

std::string hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", value);
  return text;
}

void run_pulse(const GpioOptions& o) {
  const CallContext context{"GPIO_SendPulses", {{"pins", hex32(number(o.mask))}}};
  with_adapter(o, "pulse", context, [&o](uint32_t handle) {
    const uint32_t mask = number(o.mask), width = number(o.width), period = number(o.period);
    int rc = GPIO_SendPulses(handle, mask, width, period, o.count);
    if (rc == 0) {
      const uint32_t sent_period = period > width ? period : width + 1;
      std::printf("pins 0x%08X: %d pulse(s) of %u us every %u us\n", mask, o.count, width,
                  sent_period);
      if (sent_period != period)
        std::printf("  (the period was raised to width + 1 so that each pulse ends low)\n");
    }
    return rc;
  });
}

CLI::Option* add_mask(CLI::App* command, GpioOptions& options) {
  return command->add_option("MASK", options.mask, "pins: bit n selects pin n (e.g. 0x0F)")
      ->required()
      ->check(u32_validator("MASK"));
}

void add_gpio_commands(CLI::App& app) {
  auto handle = std::make_shared<std::string>();
  auto new_options = [handle] {
    auto options = std::make_shared<GpioOptions>();
    options->handle = handle;
    return options;
  };
  CLI::App* gpio = app.add_subcommand(
      "gpio", "general-purpose pins: direction, levels, pulses (several steps may follow)");
  gpio->add_option("HANDLE", *handle, "adapter handle, e.g. 0x12345678")
      ->required()
      ->check(handle_validator());
  gpio->require_subcommand(1, 0);

  auto options = new_options();
  CLI::App* set = gpio->add_subcommand("set", "make pins inputs, outputs or open-drain outputs");
  add_mask(set, *options);
  set->add_option("MODE", options->mode, "input, output or open-drain")
      ->required()
      ->check(CLI::IsMember({"input", "output", "open-drain"}));
  set->add_option("--pull", options->pull, "pull resistor: none, up or down (default none)")
      ->check(CLI::IsMember({"none", "up", "down"}));
  set->callback([options] { run_set(*options); });

  options = new_options();
  CLI::App* write = gpio->add_subcommand("write", "set output levels");
  add_mask(write, *options);
  write->add_option("VALUES", options->values, "levels: bit n for pin n, 1 high")
      ->required()
      ->check(u32_validator("VALUES"));
  write->callback([options] { run_write(*options); });

  options = new_options();
  CLI::App* read = gpio->add_subcommand("read", "read pin levels");
  add_mask(read, *options);
  read->callback([options] { run_read(*options); });

  options = new_options();
  CLI::App* pulse = gpio->add_subcommand("pulse", "emit a pulse train and wait for its end");
  add_mask(pulse, *options);
  pulse->add_option("--width", options->width, "high time in microseconds (default 100)")
      ->check(u32_validator("--width"));
  pulse->add_option("--period", options->period, "period in microseconds (default 1000)")
      ->check(u32_validator("--period"));
  pulse->add_option("--count", options->count, "number of pulses (default 1)")
      ->check(CLI::Range(0, 1000000));
  pulse->callback([options] { run_pulse(*options); });
}

VARNEL_COMMAND_GROUP(add_gpio_commands)

}  // namespace
}  // namespace varnel_cli
