// The shape of every command on one adapter: make the adapters reachable (--sim), open the
// adapter, set the channel up, do the work, report what failed in words, close. A command
// supplies the set-up and the work; the session does the rest, once for all families.
#pragma once

#include <functional>
#include <span>
#include <string>

#include "core/adapter.h"
#include "core/result_text.h"

namespace varnel_cli {

// What a step gave: 0 or a count when it went well, a negative result code otherwise, with what
// the failing call was asked (so the message can name a refused argument).
struct CallResult {
  int code = 0;
  CallContext context;

  CallResult(int result = 0) : code(result) {}  // NOLINT: a plain result converts
  CallResult(int result, CallContext asked) : code(result), context(std::move(asked)) {}
  // A failure the step has already told the user about (and set the exit code for).
  static CallResult reported() { return CallResult(kReported); }
  bool was_reported() const { return code == kReported; }

 private:
  static constexpr int kReported = -0x7FFFFFFF;
};

// How a session reports: error lines read "<command>: <code> (<meaning>)" (the failing call's
// name when `command` is empty); the family's table of meanings is looked up first; a failure
// sets the tool's exit code to `failure_exit`.
struct SessionReport {
  std::string command;
  std::span<const ResultMeaning> family = {};
  int failure_exit = 1;
  // Families whose calls return a positive status byte for a refusal (I2C) fail on anything but 0.
  bool nonzero_fails = false;
};

using SessionStep = std::function<CallResult(const ChannelTarget&)>;

// Prints a failed result as the report says and sets the exit code; false when it went well.
bool report_failure(const CallResult& result, const SessionReport& report);

// A failed call outside a session's steps: prints "<call>: <code> (<meaning>)", sets exit 1 and
// returns true; false when `rc` is not a failure (negative, or any non-zero with nonzero_fails).
bool call_failed(const std::string& call, int rc, std::span<const ResultMeaning> family = {},
                 bool nonzero_fails = false);

// Opens the adapter of `target`, runs `setup` and then `work` (each only when everything before
// went well), reports the first failure and closes. True when every step went well.
bool run_channel_session(const SessionReport& report, const ChannelTarget& target,
                         const SessionStep& setup, const SessionStep& work);

// The same over several channels at once (a dump of several): each adapter is opened once however
// many of its channels are named, `setup` runs for each channel, then `work` once for all, and
// every adapter opened is closed, also when a step failed.
bool run_channels_session(const SessionReport& report, std::span<const ChannelTarget> targets,
                          const SessionStep& setup, const std::function<CallResult()>& work);

// The same for a command with nothing to set up first (GPIO, ADC, device information).
bool run_adapter_session(const SessionReport& report, uint32_t handle, const SessionStep& work);

}  // namespace varnel_cli
