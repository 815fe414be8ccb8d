#include "core/channel_session.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "core/command_group.h"
#include "core/sim_mode.h"

namespace varnel_cli {

bool report_failure(const CallResult& result, const SessionReport& report) {
  if (report.nonzero_fails ? result.code == 0 : result.code >= 0) return false;
  if (result.was_reported()) {
    if (exit_code() == 0) exit_code() = report.failure_exit;
    return true;
  }
  const std::string& prefix = report.command.empty() ? result.context.call : report.command;
  std::fprintf(stderr, "%s: %s\n", prefix.c_str(),
               describe_result(result.code, result.context, report.family).c_str());
  exit_code() = report.failure_exit;
  return true;
}

bool call_failed(const std::string& call, int rc, std::span<const ResultMeaning> family,
                 bool nonzero_fails) {
  return report_failure(CallResult(rc, {call, {}}), {"", family, 1, nonzero_fails});
}

namespace {

// Opens each adapter of `targets` once; the handles opened, also when one failed (`ok` false).
std::vector<uint32_t> open_adapters(std::span<const ChannelTarget> targets, bool& ok) {
  std::vector<uint32_t> opened;
  // the scan that found a channel made the adapters reachable already
  const bool found = std::all_of(targets.begin(), targets.end(),
                                 [](const ChannelTarget& t) { return t.found_by_scan; });
  ok = found || prepare_adapters();
  for (const ChannelTarget& t : targets) {
    if (!ok) break;
    if (std::find(opened.begin(), opened.end(), t.handle) != opened.end()) continue;
    ok = t.found_by_scan ? open_found_adapter(t.handle) : open_adapter(t.handle);
    if (ok) opened.push_back(t.handle);
  }
  return opened;
}

}  // namespace

bool run_channels_session(const SessionReport& report, std::span<const ChannelTarget> targets,
                          const SessionStep& setup, const std::function<CallResult()>& work) {
  bool ok = false;
  const std::vector<uint32_t> opened = open_adapters(targets, ok);
  if (!ok) exit_code() = report.failure_exit;  // they said why
  for (const ChannelTarget& t : targets)
    if (ok && setup) ok = !report_failure(setup(t), report);
  if (ok) ok = !report_failure(work(), report);
  for (uint32_t handle : opened) close_adapter(handle);
  return ok;
}

bool run_channel_session(const SessionReport& report, const ChannelTarget& target,
                         const SessionStep& setup, const SessionStep& work) {
  return run_channels_session(report, {&target, 1}, setup, [&] { return work(target); });
}

bool run_adapter_session(const SessionReport& report, uint32_t handle, const SessionStep& work) {
  return run_channel_session(report, ChannelTarget{handle, 0}, nullptr, work);
}

}  // namespace varnel_cli
