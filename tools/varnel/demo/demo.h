// `varnel demo`: a scripted session against the virtual adapter, one step after another, each
// printed for a person to follow, then "demo: N/N steps passed". Families add their steps from
// their own files:
//
//   static bool can_loopback(varnel_cli::DemoContext& demo) {
//     demo.say("sent 0x123 on channel 0");
//     return demo.check(rc == 0, "CAN_SendMsg", rc);
//   }
//   VARNEL_DEMO_STEP(500, "CAN: send and receive a frame", can_loopback)
//
// Steps run in ascending order (ties by name). Ranges: 100 scan, 200 open, 300 device information,
// 400-499 GPIO, 500-599 CAN, 600-699 LIN, 700-799 other peripherals, 900 close.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace varnel_cli {

struct DemoContext {
  std::vector<uint32_t> handles;  // found by the scan step
  uint32_t handle = 0;            // the adapter the steps work on (opened by the open step)
  bool opened = false;

  // One indented line of explanation under the current step.
  void say(const std::string& line) const;
  // Reports a failed library call in words; returns ok.
  bool check(bool ok, const std::string& call, int result) const;
  // The same for calls that answer true or false.
  bool check(bool ok, const std::string& call) const;
  // For steps that need the open adapter: says so and returns false when there is none.
  bool need_adapter() const;
};

using DemoStep = bool (*)(DemoContext&);

// Returns true so that it can initialise a static.
bool register_demo_step(int order, const char* name, DemoStep step);

}  // namespace varnel_cli

#define VARNEL_DEMO_CONCAT_(a, b) a##b
#define VARNEL_DEMO_CONCAT(a, b) VARNEL_DEMO_CONCAT_(a, b)
#define VARNEL_DEMO_STEP(order, name, step)                                      \
  static const bool VARNEL_DEMO_CONCAT(varnel_demo_step_registered_, __LINE__) = \
      varnel_cli::register_demo_step(order, name, step);
