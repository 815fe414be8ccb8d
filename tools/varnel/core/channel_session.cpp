#include "core/channel_session.h"

#include <cstdio>

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

bool run_channel_session(const SessionReport& report, const ChannelTarget& target,
                         const SessionStep& setup, const SessionStep& work) {
  if (!prepare_adapters() || !open_adapter(target.handle)) {
    exit_code() = report.failure_exit;  // they said why
    return false;
  }
  bool ok = !setup || !report_failure(setup(target), report);
  if (ok) ok = !report_failure(work(target), report);
  close_adapter(target.handle);
  return ok;
}

bool run_adapter_session(const SessionReport& report, uint32_t handle, const SessionStep& work) {
  return run_channel_session(report, ChannelTarget{handle, 0}, nullptr, work);
}

}  // namespace varnel_cli
