#include "sim/ecu/lin_diag_ecu.h"

#include <algorithm>

namespace sim {
namespace {

constexpr uint8_t kFill = 0xFF;

std::vector<uint8_t> frame(uint8_t nad, uint8_t pci, const uint8_t* bytes, size_t n) {
  std::vector<uint8_t> f{nad, pci};
  f.insert(f.end(), bytes, bytes + n);
  f.resize(8, kFill);
  return f;
}

}  // namespace

void LinDiagnosticEcu::hear(const std::vector<uint8_t>& f) {
  if (faults.silent || f.size() < 8 || (f[0] != nad_ && f[0] != kWildcardNad)) return;
  const uint8_t pci = f[1];
  switch (pci >> 4) {
    case 0: {  // single frame
      const size_t n = pci & 0x0F;
      if (n == 0 || n > 6) return;
      respond({f.begin() + 2, f.begin() + 2 + long(n)});
      return;
    }
    case 1:  // first frame: 12-bit length, 5 bytes
      expected_ = size_t(pci & 0x0F) << 8 | f[2];
      partial_.assign(f.begin() + 3, f.end());
      next_sequence_ = 1;
      return;
    case 2: {  // consecutive frame
      if (expected_ == 0 || (pci & 0x0F) != (next_sequence_ & 0x0F)) {
        expected_ = 0;  // out of sequence: the message is dropped
        return;
      }
      ++next_sequence_;
      partial_.insert(partial_.end(), f.begin() + 2, f.end());
      if (partial_.size() < expected_) return;
      partial_.resize(expected_);
      expected_ = 0;
      respond(partial_);
      return;
    }
    default:
      return;
  }
}

void LinDiagnosticEcu::respond(const std::vector<uint8_t>& request) {
  requests_.push_back(request);
  outgoing_.clear();
  const UdsAnswer a = kind_ == Kind::kBootLoader ? boot_.handle(request) : server_.handle(request);
  if (kind_ == Kind::kBootLoader) unanswered_ = boot_.take_silent_reads();
  for (int i = 0; i < a.pending; ++i) queue_message({0x7F, request[0], kNrcResponsePending});
  if (!a.response.empty()) queue_message(a.response);
}

void LinDiagnosticEcu::queue_message(const std::vector<uint8_t>& m) {
  if (m.size() <= 6) {
    outgoing_.push_back(frame(nad_, uint8_t(m.size()), m.data(), m.size()));
    return;
  }
  // A first frame: a 12-bit length and 5 bytes, or for more than 4095 bytes a length field of 0,
  // the length in the next 4 bytes and 1 byte.
  const bool long_form = m.size() > 0xFFF;
  const size_t first = long_form ? 1 : 5;
  std::vector<uint8_t> head;
  if (long_form)
    head = {0,
            uint8_t(m.size() >> 24),
            uint8_t(m.size() >> 16),
            uint8_t(m.size() >> 8),
            uint8_t(m.size()),
            m[0]};
  else
    head = {uint8_t(m.size()), m[0], m[1], m[2], m[3], m[4]};
  outgoing_.push_back(
      frame(nad_, uint8_t(long_form ? 0x10 : 0x10 | (m.size() >> 8)), head.data(), 6));
  uint8_t sequence = 1;
  for (size_t at = first; at < m.size(); at += 6, ++sequence)
    outgoing_.push_back(
        frame(nad_, uint8_t(0x20 | (sequence & 0x0F)), &m[at], std::min<size_t>(6, m.size() - at)));
}

std::optional<LinDiagnosticEcu::Answer> LinDiagnosticEcu::answer() {
  if (faults.silent) return std::nullopt;
  if (faults.stuck_pci) return Answer{frame(nad_, *faults.stuck_pci, nullptr, 0), false};
  if (!faults.stray_frames.empty()) {
    Answer a{faults.stray_frames.front(), false};
    faults.stray_frames.pop_front();
    return a;
  }
  if (outgoing_.empty()) return std::nullopt;
  if (unanswered_ > 0) {
    --unanswered_;
    return std::nullopt;
  }
  Answer a{outgoing_.front(), false};
  outgoing_.pop_front();
  if (faults.lose_frame) {
    faults.lose_frame = false;
    return std::nullopt;
  }
  if (faults.bad_checksum) {
    faults.bad_checksum = false;
    a.bad_checksum = true;
  }
  if (faults.wrong_sequence && (a.data[1] >> 4) == 2) {
    faults.wrong_sequence = false;
    a.data[1] = uint8_t(0x20 | ((a.data[1] + 1) & 0x0F));
  }
  return a;
}

}  // namespace sim
