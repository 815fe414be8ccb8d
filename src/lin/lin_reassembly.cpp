#include "lin/lin_reassembly.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "core/bytes.h"

namespace varnel::lin {

bool DiagnosticReassembly::copy(const uint8_t* bytes, uint64_t n) {
  n = std::min(n, total_ - copied_);
  if (copied_ + n > size_) return false;
  if (n) std::memcpy(out_ + copied_, bytes, size_t(n));
  copied_ += n;
  return true;
}

int DiagnosticReassembly::take(const uint8_t* frame) {
  const uint8_t pci = frame[1];
  if (pci < 0x10) {
    const uint8_t n = pci & 0x0F;
    if (n > 6) return kBadPci;
    total_ = n;
    copied_ = 0;
    first_seen_ = false;
    return copy(frame + 2, n) ? n : kTooLong;
  }
  if (pci >> 4 == 1) {
    total_ = uint64_t(pci & 0x0F) << 8 | frame[2];
    copied_ = 0;
    const bool long_form = total_ == 0;  // the length in the next four bytes
    if (long_form) total_ = get_be32(frame + 3);
    if (!copy(frame + (long_form ? 7 : 3), long_form ? 1 : 5)) return kTooLong;
    expected_ = 1;
    first_seen_ = true;
    return kMore;
  }
  if (pci >> 4 != 2) return kBadPci;
  if (!first_seen_) return kMore;  // the tail of an earlier answer
  if ((pci & 0x0F) != (expected_ & 0x0F)) return kOutOfSequence;
  if (!copy(frame + 2, 6)) return kTooLong;
  if (copied_ >= total_) return total_ > uint64_t(INT_MAX) ? kTooLong : int(total_);
  ++expected_;
  return kMore;
}

BootReassembly::Step BootReassembly::take(const uint8_t* frame) {
  const uint8_t pci = frame[1];
  const auto step = [&] { return remaining_ == 0 ? Step::kComplete : Step::kMore; };
  switch (pci >> 4) {
    case 0:  // appended to what an earlier first frame brought, as the boot protocol defines it
      message_.insert(message_.end(), frame + 2, frame + 2 + std::min(pci & 0x0F, 6));
      remaining_ = 0;
      return Step::kComplete;
    case 1: {
      const size_t total = size_t(pci & 0x0F) << 8 | frame[2];
      message_.assign(frame + 3, frame + 3 + std::min<size_t>(5, total));
      remaining_ = total > 5 ? total - 5 : 0;
      return step();
    }
    case 2: {
      if (remaining_ == 0) return Step::kPassedOver;  // no first frame before it
      const size_t n = std::min<size_t>(6, remaining_);
      message_.insert(message_.end(), frame + 2, frame + 2 + n);
      remaining_ -= n;
      return step();
    }
    default:
      return Step::kPassedOver;
  }
}

}  // namespace varnel::lin
