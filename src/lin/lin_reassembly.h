// Diagnostic messages put back together from LIN slave response frames (8 data bytes: NAD, PCI,
// then the message bytes), one frame at a time. Two readers: the diagnostic calls' (12-bit or
// 32-bit lengths, sequence numbers checked, into the caller's buffer) and the boot loader's own
// compact one. Pure functions of the frames fed, so that they can be tried on any bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace varnel::lin {

// A single frame (PCI 0L) or a first frame (1L) starts a new message wherever the last one was:
// a node that gave up a long answer starts over, and its new answer is read from its start.
class DiagnosticReassembly {
 public:
  static constexpr int kMore = 1;  // the message is not complete yet: read the next frame
  static constexpr int kOutOfSequence = -103;
  static constexpr int kBadPci = -105;
  static constexpr int kTooLong = -109;  // more than the caller's buffer or than an int can say

  // `out` holds `size` bytes (UINT64_MAX: the caller gave no size).
  DiagnosticReassembly(uint8_t* out, uint64_t size) : out_(out), size_(size) {}
  // One good frame's 8 data bytes: kMore, the message length, or a negative code.
  int take(const uint8_t* frame);

 private:
  bool copy(const uint8_t* bytes, uint64_t n);

  uint8_t* out_;
  uint64_t size_;
  uint64_t total_ = 0, copied_ = 0;
  uint8_t expected_ = 1;
  bool first_seen_ = false;
};

// The boot loader's reader: the sequence number is not checked, frames of other kinds (filler,
// flow control) are passed over, consecutive frames before a first frame belong to an earlier
// answer and are passed over too. A single frame completes the message with its bytes added to
// what was collected so far (unlike the diagnostic reader, the boot protocol keeps them).
class BootReassembly {
 public:
  enum class Step { kPassedOver, kMore, kComplete };
  // One good frame's 8 data bytes.
  Step take(const uint8_t* frame);
  const std::vector<uint8_t>& message() const { return message_; }

 private:
  std::vector<uint8_t> message_;
  size_t remaining_ = 0;
};

}  // namespace varnel::lin
