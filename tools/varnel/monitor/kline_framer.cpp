#include "monitor/kline_framer.h"

#include <utility>

#include "src/lin/kline_frames.h"

namespace varnel_cli::monitor {

size_t KlineFramer::expected_size() const {
  if (pending_.empty()) return 0;
  const uint8_t fmt = pending_[0];
  size_t header = varnel::kline::has_addresses(fmt) ? 3 : 1;
  size_t length = varnel::kline::length_bits(fmt);
  if (length == 0) {  // a length byte after the addresses
    if (pending_.size() <= header) return 0;
    length = pending_[header];
    ++header;
  }
  return header + length + 1;
}

void KlineFramer::add(const uint8_t* bytes, size_t count, uint64_t at_us,
                      std::vector<KlineFrame>& out) {
  idle(at_us, out);
  for (size_t i = 0; i < count; ++i) {
    if (pending_.empty()) first_us_ = at_us;
    pending_.push_back(bytes[i]);
    const size_t size = expected_size();
    if (size == 0 || pending_.size() < size) continue;
    uint8_t sum = 0;
    for (size_t k = 0; k + 1 < size; ++k) sum = uint8_t(sum + pending_[k]);
    const bool checksum_ok = sum == pending_.back();
    out.push_back({std::move(pending_), true, checksum_ok, first_us_});
    pending_.clear();
  }
  last_us_ = at_us;
}

void KlineFramer::idle(uint64_t now_us, std::vector<KlineFrame>& out) {
  if (pending_.empty() || now_us < last_us_ + quiet_us_) return;
  out.push_back({std::move(pending_), false, false, first_us_});
  pending_.clear();
}

}  // namespace varnel_cli::monitor
