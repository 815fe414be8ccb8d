#include "capture/extcap/extcap.h"

#include <charconv>

#include "capture/capture_records.h"
#include "core/adapter.h"
#include "core/can_names.h"
#include "varnel_version.h"

namespace varnel_cli::extcap {

// Two LIN channels an adapter, as its hardware record counts them.
constexpr uint8_t kLinChannelsPerAdapter = 2;

std::vector<ExtcapInterface> list_interfaces(const std::vector<uint32_t>& handles,
                                             bool virtual_bus) {
  std::vector<ExtcapInterface> out;
  const std::string where = virtual_bus ? ", virtual adapter" : "";
  size_t can = 0, lin = 0;
  for (uint32_t handle : handles)
    for (uint8_t ch = 0; ch < 2; ++ch, ++can) {
      const std::string kind = is_fd_adapter(handle) ? "CAN FD" : "CAN";
      const std::string name = can_channel_name(can);
      out.push_back(
          {"varnel-" + name,
           "VARNEL " + kind + " " + name + " (" + can_channel_text({handle, ch}) + where + ")",
           false, handle, ch});
    }
  for (uint32_t handle : handles)
    for (uint8_t ch = 0; ch < kLinChannelsPerAdapter; ++ch, ++lin) {
      const std::string name = "lin" + std::to_string(lin);
      out.push_back({"varnel-" + name,
                     "VARNEL LIN " + name + " (" + handle_text(handle) + ":" + std::to_string(ch) +
                         where + ")",
                     true, handle, ch});
    }
  return out;
}

std::optional<InterfaceName> parse_interface_name(const std::string& name) {
  const std::string_view text(name);
  InterfaceName out;
  if (text.substr(0, 10) == "varnel-can")
    out.lin = false;
  else if (text.substr(0, 10) == "varnel-lin")
    out.lin = true;
  else
    return std::nullopt;
  const std::string_view digits = text.substr(10);
  if (digits.empty() || digits.size() > 3) return std::nullopt;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), out.index);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return out;
}

std::string interfaces_text(const std::vector<ExtcapInterface>& interfaces) {
  std::string text = "extcap {version=" VARNEL_VERSION_STRING
                     "}{help=https://www.wireshark.org/docs/man-pages/extcap.html}\n";
  for (const auto& i : interfaces)
    text += "interface {value=" + i.name + "}{display=" + i.display + "}\n";
  return text;
}

std::string dlts_text(const InterfaceName& interface) {
  using namespace varnel_cli::capture;
  return interface.lin
             ? "dlt {number=" + std::to_string(kLinkTypeLin) + "}{name=LIN}{display=LIN}\n"
             : "dlt {number=" + std::to_string(kLinkTypeSocketCan) +
                   "}{name=CAN_SOCKETCAN}{display=CAN and CAN FD (SocketCAN)}\n";
}

std::string config_text(const InterfaceName& interface) {
  std::string text;
  if (interface.lin) {
    text +=
        "arg {number=0}{call=--bitrate}{display=Baud rate}{type=unsigned}{default=19200}"
        "{range=1000,20000}{tooltip=LIN baud rate}\n";
  } else {
    text +=
        "arg {number=0}{call=--bitrate}{display=Bit rate}{type=unsigned}{default=500000}"
        "{tooltip=Nominal (arbitration) bit rate in bit/s}\n"
        "arg {number=1}{call=--data-bitrate}{display=Data bit rate}{type=unsigned}"
        "{default=2000000}{tooltip=CAN FD data phase bit rate in bit/s (CAN FD adapters)}\n";
  }
  text +=
      "arg {number=2}{call=--sim}{display=Virtual adapter}{type=boolflag}{default=false}"
      "{tooltip=Capture from the virtual adapter instead of hardware}\n"
      "arg {number=3}{call=--sim-traffic}{display=Virtual bus traffic}{type=string}"
      "{tooltip=Frames the virtual bus's node sends, each with its period: 123#DEADBEEF@100,...}\n";
  return text;
}

}  // namespace varnel_cli::extcap
