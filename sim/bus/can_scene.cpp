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

// The ECU's options after its identifiers: key=NAME (its key routine), block=N (its
// maxNumberOfBlockLength, 3..4095), pending=N ("response pending" answers to an erase) and
// fault=A+B... (wrong-key, wrong-sequence, abort-transfer, checksum, reset). False, with the bad
// option in `bad`, for anything else.
bool apply_ecu_options(const std::string& text, UdsServer& server, std::string* bad) {
  UdsServer::Config config;
  UdsServer::Faults faults;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    const std::string item = text.substr(start, end - start);
    start = end + 1;
    const size_t equals = item.find('=');
    const std::string name = item.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : item.substr(equals + 1);
    char* stop = nullptr;
    const unsigned long number = std::strtoul(value.c_str(), &stop, 0);
    const bool numeric = !value.empty() && *stop == '\0';
    bool ok = true;
    if (name == "key") {
      config.key_routine = UdsServer::key_routine_named(value);
      ok = config.key_routine != nullptr;
    } else if (name == "block") {
      ok = numeric && number >= 3 && number <= 4095;
      config.max_block_length = uint16_t(number);
    } else if (name == "pending") {
      ok = numeric && number <= 100;
      config.erase_pending = int(number);
    } else if (name == "fault") {
      for (size_t at = 0; ok && at <= value.size();) {
        size_t plus = value.find('+', at);
        if (plus == std::string::npos) plus = value.size();
        const std::string fault = value.substr(at, plus - at);
        at = plus + 1;
        if (fault == "wrong-key")
          faults.wrong_key = true;
        else if (fault == "wrong-sequence")
          faults.wrong_sequence = true;
        else if (fault == "abort-transfer")
          faults.abort_transfer = true;
        else if (fault == "checksum")
          faults.corrupt_byte = true;
        else if (fault == "reset")
          faults.reset_after_erase = true;
        else
          ok = false;
      }
    } else {
      ok = false;
    }
    if (!ok) {
      *bad = item;
      return false;
    }
  }
  server.configure(config);
  server.set_faults(faults);
  return true;
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

std::shared_ptr<CanDiagnosticEcu> start_can_ecu(const std::string& ids_and_options,
                                                const std::string& timing_text,
                                                const std::shared_ptr<CanBus>& bus,
                                                std::string* error) {
  if (ids_and_options.empty()) return nullptr;
  const auto timing = scene_text::parse_timing(timing_text.empty() ? kDefaultTiming : timing_text);
  const size_t comma = ids_and_options.find(',');
  const std::string ids = ids_and_options.substr(0, comma);
  const std::string options = comma == std::string::npos ? "" : ids_and_options.substr(comma + 1);
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
  auto ecu = CanDiagnosticEcu::create(bus, config);
  std::string bad;
  if (!apply_ecu_options(options, ecu->server(), &bad)) {
    *error = "bad diagnostic ECU option '" + bad +
             "' (use key=rotate7|xor, block=N, pending=N, fault=wrong-key|wrong-sequence|"
             "abort-transfer|checksum|reset)";
    bus->detach(ecu.get());
    return nullptr;
  }
  return ecu;
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
