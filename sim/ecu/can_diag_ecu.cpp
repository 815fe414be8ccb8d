#include "sim/ecu/can_diag_ecu.h"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

constexpr uint8_t kSingle = 0x0, kFirst = 0x1, kConsecutive = 0x2, kFlow = 0x3;
constexpr uint8_t kContinue = 0x30, kWait = 0x31, kOverflow = 0x32;
constexpr uint64_t kFlowDelayUs = 50;  // from a first frame or a block's end to flow control

// STmin as ISO 15765-2 codes it: 0-127 ms, 0xF1-0xF9 100-900 us, anything else 127 ms.
uint64_t stmin_us(uint8_t code) {
  if (code <= 0x7F) return uint64_t(code) * 1000;
  if (code >= 0xF1 && code <= 0xF9) return uint64_t(code - 0xF0) * 100;
  return 127000;
}

}  // namespace

std::shared_ptr<CanDiagnosticEcu> CanDiagnosticEcu::create(std::shared_ptr<CanBus> bus,
                                                           Config config) {
  auto ecu = std::make_shared<CanDiagnosticEcu>(bus, config);
  bus->attach(ecu);
  return ecu;
}

CanDiagnosticEcu::CanDiagnosticEcu(std::shared_ptr<CanBus> bus, Config config)
    : config_(config), bus_(bus) {}

void CanDiagnosticEcu::set_faults(const Faults& faults) {
  std::lock_guard guard(mutex_);
  faults_ = faults;
}

std::vector<CanDiagnosticEcu::Heard> CanDiagnosticEcu::heard() const {
  std::lock_guard guard(mutex_);
  return heard_;
}

std::vector<std::vector<uint8_t>> CanDiagnosticEcu::requests() const {
  std::lock_guard guard(mutex_);
  return requests_;
}

CanFrame CanDiagnosticEcu::blank_frame(uint8_t length) const {
  CanFrame frame;
  frame.id = config_.response_id;
  frame.extended = config_.extended_ids;
  frame.fd = fd_;
  frame.brs = brs_;
  frame.len = length;
  frame.data.fill(config_.fill);
  if (config_.address >= 0) frame.data[0] = config_.tester_address;
  return frame;
}

CanFrame CanDiagnosticEcu::flow_frame(uint8_t status) const {
  CanFrame frame = blank_frame(8);
  frame.data[offset()] = status;
  frame.data[offset() + 1] = config_.block_size;
  frame.data[offset() + 2] = config_.stmin;
  return frame;
}

bool CanDiagnosticEcu::deliver(const CanFrame& frame, uint64_t end_us, const CanBitTiming& timing) {
  if (timing.nominal_bps != config_.timing.nominal_bps) return false;
  if (frame.id != config_.request_id || frame.extended != config_.extended_ids || frame.remote)
    return true;  // acknowledged like any node, not for this ECU
  std::lock_guard guard(mutex_);
  if (faults_.silent) return true;
  heard_.push_back({frame, end_us});
  const size_t at = offset();
  if (frame.len < at + 1 || (config_.address >= 0 && frame.data[0] != config_.address)) return true;
  switch (frame.data[at] >> 4) {
    case kSingle:
      on_single(frame, end_us);
      break;
    case kFirst:
      on_first(frame, end_us);
      break;
    case kConsecutive:
      on_consecutive(frame, end_us);
      break;
    case kFlow:
      on_flow(frame, end_us);
      break;
    default:
      break;  // not ISO-TP: ignored
  }
  return true;
}

void CanDiagnosticEcu::on_single(const CanFrame& frame, uint64_t end_us) {
  const size_t at = offset();
  size_t length = frame.data[at] & 0x0F, start = at + 1;
  if (frame.len > 8 || length == 0) {
    length = frame.data[at + 1];
    start = at + 2;
  }
  if (start + length > frame.len) return;
  fd_ = frame.fd;
  brs_ = frame.brs;
  frame_length_ = std::max<uint8_t>(8, frame.len);
  receiving_ = false;
  answer({frame.data.begin() + ptrdiff_t(start), frame.data.begin() + ptrdiff_t(start + length)},
         end_us);
}

void CanDiagnosticEcu::on_first(const CanFrame& frame, uint64_t end_us) {
  const size_t at = offset();
  size_t length = size_t(frame.data[at] & 0x0F) << 8 | frame.data[at + 1], start = at + 2;
  if (length == 0) {
    length = size_t(frame.data[at + 2]) << 24 | size_t(frame.data[at + 3]) << 16 |
             size_t(frame.data[at + 4]) << 8 | frame.data[at + 5];
    start = at + 6;
  }
  fd_ = frame.fd;
  brs_ = frame.brs;
  frame_length_ = std::max<uint8_t>(8, frame.len);
  if (faults_.flow_overflow) {
    faults_.flow_overflow = false;
    receiving_ = false;
    control_.push_back({end_us + kFlowDelayUs, flow_frame(kOverflow)});
    return;
  }
  rx_.assign(frame.data.begin() + ptrdiff_t(start), frame.data.begin() + frame.len);
  rx_length_ = length;
  if (rx_.size() > length) rx_.resize(length);
  rx_sequence_ = 1;
  rx_in_block_ = 0;
  receiving_ = true;
  uint64_t at_us = end_us + kFlowDelayUs;
  const uint64_t wait_step = std::max(kFlowDelayUs, faults_.wait_spacing_us);
  for (; faults_.flow_waits > 0; --faults_.flow_waits, at_us += wait_step)
    control_.push_back({at_us, flow_frame(kWait)});
  control_.push_back({at_us, flow_frame(kContinue)});
  rx_deadline_us_ = at_us + config_.n_cr_us;
}

void CanDiagnosticEcu::on_consecutive(const CanFrame& frame, uint64_t end_us) {
  if (!receiving_) return;
  const size_t at = offset();
  if (end_us > rx_deadline_us_) {
    receiving_ = false;  // N_Cr passed: the sender gave the request up long ago
    return;
  }
  rx_deadline_us_ = end_us + config_.n_cr_us;
  if ((frame.data[at] & 0x0F) != (rx_sequence_ & 0x0F)) {
    receiving_ = false;  // out of sequence: the reception is abandoned
    return;
  }
  ++rx_sequence_;
  const size_t n = std::min<size_t>(rx_length_ - rx_.size(), frame.len - at - 1);
  rx_.insert(rx_.end(), frame.data.begin() + ptrdiff_t(at + 1),
             frame.data.begin() + ptrdiff_t(at + 1 + n));
  if (rx_.size() == rx_length_) {
    receiving_ = false;
    answer(rx_, end_us);
    return;
  }
  if (config_.block_size && ++rx_in_block_ == config_.block_size) {
    rx_in_block_ = 0;
    control_.push_back({end_us + kFlowDelayUs, flow_frame(kContinue)});
    rx_deadline_us_ = end_us + kFlowDelayUs + config_.n_cr_us;
  }
}

void CanDiagnosticEcu::on_flow(const CanFrame& frame, uint64_t end_us) {
  if (!sending_ || !awaiting_flow_) return;
  const size_t at = offset();
  const uint8_t status = frame.data[at];
  if (status == kWait) {  // the receiver needs longer: N_Bs starts again
    tx_flow_deadline_us_ = end_us + config_.n_bs_us;
    return;
  }
  if (status != kContinue) {  // overflow or garbage: the answer is abandoned
    sending_ = false;
    return;
  }
  awaiting_flow_ = false;
  tx_block_ = frame.data[at + 1];
  tx_in_block_ = 0;
  tx_gap_us_ = stmin_us(frame.data[at + 2]);
  tx_next_us_ = end_us;
}

void CanDiagnosticEcu::answer(const std::vector<uint8_t>& request, uint64_t end_us) {
  requests_.push_back(request);
  const UdsAnswer answer = server_.handle(request);
  uint64_t at_us = end_us + config_.answer_delay_us;
  for (int i = 0; i < answer.pending; ++i, at_us += config_.pending_gap_us)
    outbox_.push_back({at_us, {0x7F, request[0], kNrcResponsePending}});
  if (!answer.response.empty()) outbox_.push_back({at_us, answer.response});
}

void CanDiagnosticEcu::start_message(const Message& message, uint64_t now_us,
                                     std::vector<Due>* out) {
  const size_t at = offset();
  const size_t length = frame_length_;
  const size_t single_room = length - at - (length > 8 ? 2 : 1);
  CanFrame frame = blank_frame(uint8_t(length));
  const size_t n = message.bytes.size();
  if (n <= single_room) {
    size_t p = at;
    if (length > 8) frame.data[p++] = 0x00;
    frame.data[p++] = uint8_t(n);
    std::copy(message.bytes.begin(), message.bytes.end(), frame.data.begin() + ptrdiff_t(p));
    out->push_back({message.at_us, frame});
    return;
  }
  size_t p = at;
  if (n <= 0xFFF) {
    frame.data[p++] = uint8_t(0x10 | (n >> 8));
    frame.data[p++] = uint8_t(n);
  } else {
    frame.data[p++] = 0x10;
    frame.data[p++] = 0x00;
    for (int shift = 24; shift >= 0; shift -= 8) frame.data[p++] = uint8_t(n >> shift);
  }
  const size_t carried = length - p;
  std::copy_n(message.bytes.begin(), carried, frame.data.begin() + ptrdiff_t(p));
  out->push_back({message.at_us, frame});
  tx_ = message.bytes;
  tx_done_ = carried;
  tx_sequence_ = 1;
  tx_cf_index_ = 0;
  tx_lose_ = std::exchange(faults_.lose_frame, false);
  tx_misnumber_ = std::exchange(faults_.wrong_sequence, false);
  sending_ = true;
  awaiting_flow_ = true;
  // N_Bs runs from the first frame's sending, which is now when nobody fetched in time
  tx_flow_deadline_us_ = std::max(message.at_us, now_us) + config_.n_bs_us;
}

void CanDiagnosticEcu::continue_message(uint64_t now_us, std::vector<Due>* out) {
  const size_t at = offset();
  while (sending_ && !awaiting_flow_ && tx_next_us_ <= now_us) {
    CanFrame frame = blank_frame(frame_length_);
    const bool second = ++tx_cf_index_ == 2;
    const uint8_t sequence = uint8_t(tx_sequence_++ + (second && tx_misnumber_ ? 1 : 0));
    frame.data[at] = uint8_t(0x20 | (sequence & 0x0F));
    const size_t n = std::min(tx_.size() - tx_done_, size_t(frame_length_) - at - 1);
    std::copy_n(tx_.begin() + ptrdiff_t(tx_done_), n, frame.data.begin() + ptrdiff_t(at + 1));
    tx_done_ += n;
    if (!(second && tx_lose_)) out->push_back({tx_next_us_, frame});
    tx_next_us_ += tx_gap_us_;
    if (tx_done_ == tx_.size()) {
      sending_ = false;
    } else if (tx_block_ && ++tx_in_block_ == tx_block_) {
      awaiting_flow_ = true;
      tx_flow_deadline_us_ = std::max(tx_next_us_, now_us) + config_.n_bs_us;
    }
  }
}

void CanDiagnosticEcu::run_due(CanBus& bus, uint64_t now_us) {
  std::vector<Due> due;
  {
    std::lock_guard guard(mutex_);
    // N_Bs passed without flow control: the answer is dropped, the next one may go
    if (sending_ && awaiting_flow_ && now_us > tx_flow_deadline_us_) sending_ = false;
    std::erase_if(control_, [&](const Due& d) {
      if (d.at_us > now_us) return false;
      due.push_back(d);
      return true;
    });
    while (true) {
      continue_message(now_us, &due);
      if (sending_ || outbox_.empty() || outbox_.front().at_us > now_us) break;
      start_message(outbox_.front(), now_us, &due);
      outbox_.pop_front();
    }
  }
  std::stable_sort(due.begin(), due.end(),
                   [](const Due& a, const Due& b) { return a.at_us < b.at_us; });
  for (const Due& d : due) bus.transmit(this, d.frame, config_.timing, d.at_us);
}

}  // namespace sim
