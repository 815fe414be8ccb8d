// varnel can filter CHANNEL FILTER...|--clear     acceptance filters held by the adapter
// varnel can schedule CHANNEL FRAME@MS...|--stop  cyclic frames the adapter sends on its own
//
// A filter is candump's ID:MASK (mask mode) or a bare ID (exactly that identifier); identifiers
// of 8 digits or above 0x7FF are 29-bit, as cansend reads them. Each scheduled frame becomes a
// table of its own with its period; the adapter plays them until `--stop` (or -n periods).
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "can/can_channel.h"
#include "core/adapter.h"
#include "core/command_group.h"
#include "core/result_text.h"
#include "sim/bus/can_scene_text.h"
#include "src/can/can_text.h"
#include "varnel.h"

namespace varnel_cli {
namespace {

constexpr size_t kMaxFilters = 14;
constexpr uint32_t kMaxPeriodMs = 65535;  // a table's period is 2 bytes
constexpr size_t kMaxTables = 255;

// The adapter's status byte: anything but 0 is a refusal.
const SessionReport kNonZeroFails{"", {}, 1, true};

struct ServiceOptions {
  std::string target;
  std::vector<std::string> items;
  bool clear = false, stop = false;
  unsigned periods = 0;
  CanRates rates;
};

std::optional<uint32_t> parse_id(const std::string& text, bool* extended) {
  if (text.empty() || text.size() > 8 ||
      text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
    return std::nullopt;
  const uint32_t id = uint32_t(std::stoul(text, nullptr, 16));
  if (id > 0x1FFFFFFF) return std::nullopt;
  *extended = text.size() == 8 || id > 0x7FF;
  return id;
}

std::optional<CAN_FILTER_CONFIG> parse_filter(const std::string& text, uint8_t index) {
  const size_t colon = text.find(':');
  bool extended = false, mask_extended = false;
  const auto id = parse_id(text.substr(0, colon), &extended);
  if (!id) return std::nullopt;
  CAN_FILTER_CONFIG f{1, index, 1, uint8_t(extended), *id, extended, 0, 0, 0, 0};
  if (colon == std::string::npos) return f;
  const auto mask = parse_id(text.substr(colon + 1), &mask_extended);
  if (!mask) return std::nullopt;
  f.FilterMode = 0;
  f.Mask = *mask;
  f.MaskIDE = 1;  // the 11/29-bit kind must match too, as candump's filters compare it
  return f;
}

void run_filter(const ServiceOptions& o) {
  std::vector<CAN_FILTER_CONFIG> filters;
  for (const auto& item : o.items) {
    const auto f = parse_filter(item, uint8_t(filters.size()));
    if (!f || filters.size() == kMaxFilters) {
      std::fprintf(stderr, "bad filter %s (ID or ID:MASK in hex, at most 14)\n", item.c_str());
      exit_code() = 2;
      return;
    }
    filters.push_back(*f);
  }
  run_can_session(kNonZeroFails, o.target, o.rates, [&](const OpenCanChannel& ch) -> CallResult {
    if (const int rc = CAN_FilterList_Init(ch.handle, ch.channel, nullptr, 0); rc != 0)
      return {rc, {"CAN_FilterList_Init", {}}};
    for (auto& f : filters)
      if (const int rc = CAN_Filter_Init(ch.handle, ch.channel, &f); rc != 0)
        return {rc, {"CAN_Filter_Init", {}}};
    std::printf("%s: %zu filter%s\n", ch.interface.c_str(), filters.size(),
                filters.size() == 1 ? "" : "s");
    return 0;
  });
}

void run_schedule(const ServiceOptions& o) {
  std::vector<CAN_MSG> msgs;
  std::vector<uint8_t> counts, periods;
  for (const auto& item : o.items) {
    std::string bad;
    const auto parsed = sim::scene_text::parse_traffic(item, &bad);
    if (!parsed || parsed->size() != 1 || parsed->front().period_ms > kMaxPeriodMs ||
        (parsed->front().frame.Flags & 0x04) || msgs.size() == kMaxTables) {
      std::fprintf(stderr, "bad scheduled frame %s (ID#DATA@MS, MS up to 65535)\n", item.c_str());
      exit_code() = 2;
      return;
    }
    const CANFD_MSG& f = parsed->front().frame;
    CAN_MSG msg{};
    msg.Id = f.Id & 0x1FFFFFFF;
    msg.Extended = f.Id >> 31;
    msg.Flags = (f.Id >> 30) & 1;
    msg.DataLen = f.DataLen;
    std::copy(f.Data, f.Data + 8, msg.Data);
    msgs.push_back(msg);
    counts.push_back(1);
    const uint32_t period = parsed->front().period_ms;
    periods.push_back(uint8_t(period));  // as the 2 bytes lie in memory: little-endian
    periods.push_back(uint8_t(period >> 8));
  }
  run_can_session(kNonZeroFails, o.target, o.rates, [&](const OpenCanChannel& ch) -> CallResult {
    if (o.stop) return {CAN_StopSchedule(ch.handle, ch.channel), {"CAN_StopSchedule", {}}};
    if (const int rc = CAN_SetSchedule(ch.handle, ch.channel, msgs.data(), counts.data(),
                                       periods.data(), uint8_t(msgs.size()));
        rc != 0)
      return {rc, {"CAN_SetSchedule", {}}};
    if (const int rc = CAN_StartSchedule(ch.handle, ch.channel, 0xFF, uint8_t(o.periods), 0);
        rc != 0)
      return {rc, {"CAN_StartSchedule", {}}};
    for (const auto& item : o.items) std::printf("%s\n", item.c_str());
    return 0;
  });
}

CLI::App* add_common(CLI::App* can, const char* name, const char* what,
                     std::shared_ptr<ServiceOptions> o) {
  CLI::App* command = can->add_subcommand(name, what);
  add_channel_argument(command, o->target);
  command->add_option("-b,--bitrate", o->rates.bitrate, "nominal bit rate (default 500000)");
  command->add_option("--data-bitrate", o->rates.data_bitrate,
                      "CAN FD data bit rate (default 2000000)");
  return command;
}

}  // namespace

void add_can_service_commands(CLI::App* can) {
  auto f = std::make_shared<ServiceOptions>();
  CLI::App* filter = add_common(
      can, "filter", "acceptance filters in the adapter: 123 (exactly), 120:7F0 (masked)", f);
  filter->add_option("FILTER", f->items, "ID or ID:MASK, hex, up to 14");
  filter->add_flag("--clear", f->clear, "turn every filter off: all frames pass");
  filter->callback([f] {
    if (f->items.empty() != f->clear) {
      std::fprintf(stderr, "give filters or --clear\n");
      exit_code() = 2;
      return;
    }
    run_filter(*f);
  });

  auto s = std::make_shared<ServiceOptions>();
  CLI::App* schedule =
      add_common(can, "schedule", "frames the adapter sends cyclically: 123#DEADBEEF@100 (ms)", s);
  schedule->add_option("FRAME", s->items, "ID#DATA@MS in can-utils syntax");
  schedule->add_option("-n,--periods", s->periods, "periods to play (default 0: until --stop)")
      ->check(CLI::Range(0, 255));
  schedule->add_flag("--stop", s->stop, "stop the channel's schedule");
  schedule->callback([s] {
    if (s->items.empty() != s->stop) {
      std::fprintf(stderr, "give frames or --stop\n");
      exit_code() = 2;
      return;
    }
    run_schedule(*s);
  });
  add_can_play_command(can);
}

}  // namespace varnel_cli
