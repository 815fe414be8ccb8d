// A diagnostic ECU on the virtual CAN bus: it speaks ISO 15765-2 (single, first, consecutive and
// flow control frames, normal or extended addressing, classic or CAN FD frames as the tester
// uses them) and hands whole requests to a UdsServer. Its answers go out in bus time: a frame is
// due at a bus time and leaves when the bus catches up (whenever a controller fetches), so tests
// never wait out real time. A transfer its peer abandons is dropped after the ISO 15765-2 time-outs
// (N_Bs: no flow control for an answer; N_Cr: no next consecutive frame of a request), counted in
// bus time, and the next request is served.
#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/bus/can_bus.h"
#include "sim/ecu/uds_server.h"

namespace sim {

class CanDiagnosticEcu : public CanNode, public std::enable_shared_from_this<CanDiagnosticEcu> {
 public:
  struct Config {
    uint32_t request_id = 0x7E0;
    uint32_t response_id = 0x7E8;
    bool extended_ids = false;
    CanBitTiming timing{500000, 2000000};
    int address = -1;               // extended addressing: the first byte of requests; -1: none
    uint8_t tester_address = 0xF1;  // the first byte of its frames under extended addressing
    uint8_t block_size = 0;         // its flow control: frames per block (0: all)
    uint8_t stmin = 0;              // its flow control: the STmin byte
    uint8_t fill = 0xAA;
    uint64_t answer_delay_us = 100;  // from a request's last frame to the answer
    uint64_t pending_gap_us = 1000;  // between "response pending" answers
    uint64_t n_bs_us = 1000000;      // how long an answer waits for flow control
    uint64_t n_cr_us = 1000000;      // how long a request waits for its next consecutive frame
  };
  // Scriptable faults; each serves the next occasion and then clears itself.
  struct Faults {
    int flow_waits = 0;            // "wait" flow control frames before "continue"
    bool flow_overflow = false;    // "overflow" to the next first frame
    bool lose_frame = false;       // the next multi-frame answer loses its second consecutive frame
    bool wrong_sequence = false;   // ... or sends it with a wrong sequence number
    bool silent = false;           // hears nothing and answers nothing while set (not cleared)
    uint64_t wait_spacing_us = 0;  // bus time between those "wait" frames (0: as fast as it can)
  };
  struct Heard {
    CanFrame frame;
    uint64_t end_us = 0;
  };

  static std::shared_ptr<CanDiagnosticEcu> create(std::shared_ptr<CanBus> bus, Config config);
  CanDiagnosticEcu(std::shared_ptr<CanBus> bus, Config config);

  UdsServer& server() { return server_; }
  void set_faults(const Faults& faults);
  // The frames of the request identifier it heard, and the whole requests it understood.
  std::vector<Heard> heard() const;
  std::vector<std::vector<uint8_t>> requests() const;

  bool deliver(const CanFrame& frame, uint64_t end_us, const CanBitTiming& timing) override;
  void run_due(CanBus& bus, uint64_t now_us) override;

 private:
  struct Due {
    uint64_t at_us;
    CanFrame frame;
  };
  struct Message {
    uint64_t at_us;
    std::vector<uint8_t> bytes;
  };
  size_t offset() const { return config_.address >= 0 ? 1 : 0; }
  CanFrame blank_frame(uint8_t length) const;
  CanFrame flow_frame(uint8_t status) const;
  void on_single(const CanFrame& frame, uint64_t end_us);
  void on_first(const CanFrame& frame, uint64_t end_us);
  void on_consecutive(const CanFrame& frame, uint64_t end_us);
  void on_flow(const CanFrame& frame, uint64_t end_us);
  void answer(const std::vector<uint8_t>& request, uint64_t end_us);
  void start_message(const Message& message, uint64_t now_us, std::vector<Due>* out);
  void continue_message(uint64_t now_us, std::vector<Due>* out);

  const Config config_;
  std::weak_ptr<CanBus> bus_;
  UdsServer server_;
  mutable std::mutex mutex_;
  Faults faults_;
  std::vector<Heard> heard_;
  std::vector<std::vector<uint8_t>> requests_;
  // the requester's frame format, which its answers copy
  bool fd_ = false, brs_ = false;
  uint8_t frame_length_ = 8;
  // reception
  bool receiving_ = false;
  std::vector<uint8_t> rx_;
  size_t rx_length_ = 0;
  uint8_t rx_sequence_ = 1;
  uint8_t rx_in_block_ = 0;
  uint64_t rx_deadline_us_ = 0;  // N_Cr: the next consecutive frame ends by then
  // transmission
  std::vector<Due> control_;    // flow control frames due
  std::deque<Message> outbox_;  // whole answers due
  bool sending_ = false, awaiting_flow_ = false;
  std::vector<uint8_t> tx_;
  size_t tx_done_ = 0;
  uint8_t tx_sequence_ = 1;
  uint8_t tx_block_ = 0, tx_in_block_ = 0;
  uint64_t tx_gap_us_ = 0, tx_next_us_ = 0;
  uint64_t tx_flow_deadline_us_ = 0;  // N_Bs: flow control arrives by then
  int tx_cf_index_ = 0;
  bool tx_lose_ = false, tx_misnumber_ = false;
};

}  // namespace sim
