#include "core/can_names.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace varnel_cli {
namespace {

std::optional<uint32_t> parse_number(std::string_view text, int base) {
  uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, value, base);
  if (error != std::errc() || at != end) return std::nullopt;
  return value;
}

}  // namespace

std::optional<CanChannelName> parse_can_channel_name(std::string_view text) {
  CanChannelName name;
  if (text.substr(0, 3) == "can") {
    // a few digits at most: canN counts channels, not handles
    const auto index = text.size() <= 6 ? parse_number(text.substr(3), 10) : std::nullopt;
    if (!index) return std::nullopt;
    name.numbered = true;
    name.index = *index;
    return name;
  }
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::string_view handle = text.substr(0, colon), channel = text.substr(colon + 1);
  const bool hex = handle.substr(0, 2) == "0x" || handle.substr(0, 2) == "0X";
  const auto value = hex ? parse_number(handle.substr(2), 16) : parse_number(handle, 10);
  if (!value || (channel != "0" && channel != "1")) return std::nullopt;
  name.id = {*value, uint8_t(channel[0] - '0')};
  return name;
}

std::string can_channel_text(CanChannelId id) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%08X:%u", id.handle, unsigned(id.channel));
  return text;
}

std::string can_channel_name(size_t index) {
  return "can" + std::to_string(index);
}

std::optional<CanChannelId> resolve_can_channel(const std::vector<CanChannelId>& scanned,
                                                const CanChannelName& name) {
  if (!name.numbered) return name.id;
  if (name.index >= scanned.size()) return std::nullopt;
  return scanned[name.index];
}

std::string can_interface_name(const std::vector<CanChannelId>& scanned, CanChannelId id) {
  const auto found = std::find(scanned.begin(), scanned.end(), id);
  return found == scanned.end() ? can_channel_text(id)
                                : can_channel_name(size_t(found - scanned.begin()));
}

}  // namespace varnel_cli
