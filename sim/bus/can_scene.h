// A scene on the virtual CAN bus set up from the environment, so that users of the virtual adapter
// (and `varnel --sim`) get a node on the bus without writing code:
//   VARNEL_SIM_CAN_PEER     bit timing of a node that acknowledges every frame at that timing
//   VARNEL_SIM_CAN_TRAFFIC  frames that node sends periodically (text form in can_scene_text.h)
//   VARNEL_SIM_CAN_ECU      a diagnostic ECU's request/response identifiers, e.g. 7E0/7E8, and
//                           its options: 7E0/7E8,block=258,key=xor,fault=wrong-key
// Traffic without a peer timing runs at 500000/2000000, the CLI's default bit rates.
#pragma once

#include <memory>
#include <string>

#include "sim/bus/can_bus.h"

namespace sim {

// Attaches the scene's peer to `bus` and schedules its traffic. Returns null, with the reason in
// `error`, when the text is malformed; also null (no error) when both texts are empty.
std::shared_ptr<CanPeer> start_can_scene(const std::string& timing, const std::string& traffic,
                                         const std::shared_ptr<CanBus>& bus, std::string* error);

class CanDiagnosticEcu;
// A diagnostic ECU answering "REQUEST/RESPONSE" identifiers (hex) at the scene's timing, with
// options after commas (key=NAME, block=N, pending=N, fault=A+B); null, with the reason in
// `error`, when malformed, and null (no error) when the text is empty.
std::shared_ptr<CanDiagnosticEcu> start_can_ecu(const std::string& ids_and_options,
                                                const std::string& timing,
                                                const std::shared_ptr<CanBus>& bus,
                                                std::string* error);

// The scene of VARNEL_SIM_CAN_PEER / VARNEL_SIM_CAN_TRAFFIC on the default bus, kept for the life
// of the process. A malformed scene is reported on stderr and not started.
void start_can_scene_from_environment();

}  // namespace sim
