#include "sim/bus/can_scene.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim/bus/can_scene_text.h"
#include "sim/ecu/can_diag_ecu.h"

namespace sim {
namespace {

constexpr const char* kDefaultTiming = "500000/2000000";
// The scene's peer acknowledges for as long as the process runs; it keeps only the latest frames
// it received so that a bus under endless traffic does not grow without bound.
constexpr size_t kSceneReceivedLimit = 10000;

CanFrame bus_frame(const CANFD_MSG& msg) {
  CanFrame frame;
  frame.extended = (msg.Id & 0x80000000u) != 0;
  frame.remote = (msg.Id & 0x40000000u) != 0;
  frame.id = msg.Id & 0x1FFFFFFFu;
  frame.fd = (msg.Flags & 0x04) != 0;
  frame.brs = frame.fd && (msg.Flags & 0x01) != 0;
  frame.esi = frame.fd && (msg.Flags & 0x02) != 0;
  frame.len = msg.DataLen;
  std::memcpy(frame.data.data(), msg.Data, msg.DataLen);
  return frame;
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

std::shared_ptr<CanPeer> start_can_scene(const std::string& timing_text,
                                         const std::string& traffic_text,
                                         const std::shared_ptr<CanBus>& bus, std::string* error) {
  if (timing_text.empty() && traffic_text.empty()) return nullptr;
  const auto timing = scene_text::parse_timing(timing_text.empty() ? kDefaultTiming : timing_text);
  if (!timing) {
    *error = "bad bit timing '" + timing_text + "' (use 500000 or 500000/2000000)";
    return nullptr;
  }
  std::string bad_item;
  const auto traffic = scene_text::parse_traffic(traffic_text, &bad_item);
  if (!traffic) {
    *error = "bad traffic item '" + bad_item + "' (use ID#DATA@MS, e.g. 123#DEADBEEF@100)";
    return nullptr;
  }
  auto peer = CanPeer::create(bus, {timing->nominal_bps, timing->data_bps});
  peer->set_received_limit(kSceneReceivedLimit);
  for (const auto& item : *traffic)
    peer->add_periodic(bus_frame(item.frame), uint64_t(item.period_ms) * 1000, 0, false,
                       /*from_first_fetch=*/true);
  return peer;
}

std::shared_ptr<CanDiagnosticEcu> start_can_ecu(const std::string& ids,
                                                const std::string& timing_text,
                                                const std::shared_ptr<CanBus>& bus,
                                                std::string* error) {
  if (ids.empty()) return nullptr;
  const auto timing = scene_text::parse_timing(timing_text.empty() ? kDefaultTiming : timing_text);
  const size_t slash = ids.find('/');
  char* end = nullptr;
  CanDiagnosticEcu::Config config;
  const std::string request = ids.substr(0, slash);
  config.request_id = uint32_t(std::strtoul(request.c_str(), &end, 16));
  const bool request_ok = !request.empty() && *end == '\0';
  const std::string response = slash == std::string::npos ? "" : ids.substr(slash + 1);
  config.response_id = uint32_t(std::strtoul(response.c_str(), &end, 16));
  if (!timing || !request_ok || response.empty() || *end != '\0' ||
      std::max(config.request_id, config.response_id) > 0x1FFFFFFF) {
    *error = "bad diagnostic ECU '" + ids + "' (use REQUEST/RESPONSE in hex, e.g. 7E0/7E8)";
    return nullptr;
  }
  // eight digits or a value over 11 bits: 29-bit identifiers, as cansend reads them
  config.extended_ids =
      request.size() == 8 || config.request_id > 0x7FF || config.response_id > 0x7FF;
  config.timing = {timing->nominal_bps, timing->data_bps};
  return CanDiagnosticEcu::create(bus, config);
}

void start_can_scene_from_environment() {
  static std::shared_ptr<CanPeer> scene;
  static std::shared_ptr<CanDiagnosticEcu> ecu;
  std::string error;
  scene = start_can_scene(environment("VARNEL_SIM_CAN_PEER"), environment("VARNEL_SIM_CAN_TRAFFIC"),
                          default_can_bus(), &error);
  if (!error.empty()) std::fprintf(stderr, "virtual CAN bus: %s\n", error.c_str());
  error.clear();
  ecu = start_can_ecu(environment("VARNEL_SIM_CAN_ECU"), environment("VARNEL_SIM_CAN_PEER"),
                      default_can_bus(), &error);
  if (!error.empty()) std::fprintf(stderr, "virtual CAN bus: %s\n", error.c_str());
}

}  // namespace sim
