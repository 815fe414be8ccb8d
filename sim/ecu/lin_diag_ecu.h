// A virtual LIN control unit with a node address: it hears master request frames (identifier
// 3C) addressed to it or to the wildcard 7F, reassembles single, first and consecutive frames,
// hands the request to its diagnostic services (the UdsServer the CAN ECU uses too) and answers
// slave response headers (3D) one frame at a time: "response pending" answers first, then the
// response. Faults are scriptable.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "sim/ecu/lin_boot_server.h"
#include "sim/ecu/uds_server.h"

namespace sim {

class LinDiagnosticEcu {
 public:
  static constexpr uint8_t kWildcardNad = 0x7F;

  // An application (the diagnostic services) or a boot loader.
  enum class Kind { kApplication, kBootLoader };
  explicit LinDiagnosticEcu(uint8_t nad = 0x10, Kind kind = Kind::kApplication)
      : nad_(nad), kind_(kind) {}

  struct Faults {
    bool lose_frame = false;      // the next response frame is never sent (the header goes empty)
    bool bad_checksum = false;    // the next response frame carries an inverted checksum
    bool wrong_sequence = false;  // the next consecutive frame has the sequence number + 1
    bool silent = false;          // hears nothing and answers nothing while set
    // Frames (8 bytes) sent to the next headers before anything else: the start of an answer
    // the unit then gave up.
    std::deque<std::vector<uint8_t>> stray_frames;
    // While set, every header is answered with a frame of this PCI and FF filler (0xFF: a unit
    // that is not ready, 0x30: flow control), whatever else it has to say.
    std::optional<uint8_t> stuck_pci;
  };
  Faults faults;

  // A master request frame's 8 data bytes.
  void hear(const std::vector<uint8_t>& frame);
  // The 8 data bytes and whether the checksum should be spoiled, for a 3D header; nothing when
  // there is nothing to say.
  struct Answer {
    std::vector<uint8_t> data;
    bool bad_checksum = false;
  };
  std::optional<Answer> answer();

  uint8_t nad() const { return nad_; }
  UdsServer& server() { return server_; }
  LinBootServer& boot() { return boot_; }
  // Every complete request heard, for tests.
  const std::vector<std::vector<uint8_t>>& requests() const { return requests_; }

 private:
  void respond(const std::vector<uint8_t>& request);
  void queue_message(const std::vector<uint8_t>& message);

  uint8_t nad_;
  Kind kind_;
  UdsServer server_;
  LinBootServer boot_;
  int unanswered_ = 0;  // response headers to leave empty (a boot loader restarting)
  std::vector<uint8_t> partial_;
  size_t expected_ = 0;
  uint8_t next_sequence_ = 1;
  std::deque<std::vector<uint8_t>> outgoing_;  // response frames, 8 bytes each
  std::vector<std::vector<uint8_t>> requests_;
};

}  // namespace sim
