// `varnel demo`: runs the registered steps against the virtual adapter and sums them up.
#include "demo/demo.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "core/command_group.h"
#include "core/result_text.h"
#include "core/sim_mode.h"

namespace varnel_cli {
namespace {

struct RegisteredStep {
  int order;
  std::string name;
  DemoStep run;
};

std::vector<RegisteredStep>& demo_steps() {
  static std::vector<RegisteredStep> steps;
  return steps;
}

void run_demo() {
  if (!prepare_adapters(/*always_sim=*/true)) {
    exit_code() = 1;
    return;
  }
  auto steps = demo_steps();
  std::stable_sort(steps.begin(), steps.end(), [](const auto& a, const auto& b) {
    return a.order != b.order ? a.order < b.order : a.name < b.name;
  });
  std::printf("varnel demo: the library at work against the virtual adapter\n\n");
  DemoContext demo;
  size_t passed = 0;
  for (size_t i = 0; i < steps.size(); ++i) {
    std::printf("[%zu/%zu] %s\n", i + 1, steps.size(), steps[i].name.c_str());
    std::fflush(stdout);
    bool ok = false;
    try {
      ok = steps[i].run(demo);
    } catch (const std::exception& e) {
      demo.say(std::string("exception: ") + e.what());
    }
    std::printf("      %s\n", ok ? "ok" : "FAILED");
    if (ok) ++passed;
  }
  std::printf("\ndemo: %zu/%zu steps passed\n", passed, steps.size());
  if (passed != steps.size()) exit_code() = 1;
}

void add_demo_command(CLI::App& app) {
  CLI::App* demo = app.add_subcommand(
      "demo", "a scripted session against the virtual adapter, step by step (exit 0: all passed)");
  demo->callback(run_demo);
}

VARNEL_COMMAND_GROUP(add_demo_command)

}  // namespace

void DemoContext::say(const std::string& line) const {
  std::printf("      %s\n", line.c_str());
}

bool DemoContext::check(bool ok, const std::string& call, int result) const {
  if (!ok) say(call + " failed: " + describe_result(result));
  return ok;
}

bool DemoContext::check(bool ok, const std::string& call) const {
  if (!ok) say(call + " failed");
  return ok;
}

bool DemoContext::need_adapter() const {
  if (!opened) say("skipped: no open adapter");
  return opened;
}

bool register_demo_step(int order, const char* name, DemoStep step) {
  demo_steps().push_back({order, name, step});
  return true;
}

}  // namespace varnel_cli
