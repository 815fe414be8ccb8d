// A bounded queue of whole packets for a stream whose packets share one size (the ADC stream):
// one thread appends (a transfer's completion), another takes, each under the queue's own mutex.
// When full, the oldest packet goes and is counted. The storage is allocated on the first append.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

namespace varnel {

class PacketQueue {
 public:
  // Packets of at most `packet_bytes`, as many as `limit_bytes` holds (at least one).
  void reset(size_t packet_bytes, size_t limit_bytes) {
    std::lock_guard guard(mutex_);
    packet_bytes_ = std::max<size_t>(packet_bytes, 1);
    slots_ = std::max<size_t>(limit_bytes / packet_bytes_, 1);
    storage_.reset();
    lengths_.assign(slots_, 0);
    head_ = size_ = 0;
    dropped_ = 0;
  }

  void append(const uint8_t* data, size_t size) {
    std::lock_guard guard(mutex_);
    if (slots_ == 0) return;
    if (!storage_) storage_ = std::make_unique<uint8_t[]>(slots_ * packet_bytes_);
    if (size_ == slots_) {  // full: the oldest packet makes room
      head_ = (head_ + 1) % slots_;
      --size_;
      ++dropped_;
    }
    const size_t slot = (head_ + size_) % slots_;
    size = std::min(size, packet_bytes_);
    std::memcpy(&storage_[slot * packet_bytes_], data, size);
    lengths_[slot] = size;
    ++size_;
  }

  // Whole packets, oldest first, while the next one fits in `capacity` bytes counted as whole
  // packets: nothing is taken unless a full-size packet fits, and no packet is split. The bytes
  // copied.
  size_t take(uint8_t* out, size_t capacity) {
    std::lock_guard guard(mutex_);
    size_t copied = 0;
    while (size_ > 0 && capacity >= packet_bytes_) {
      const size_t n = lengths_[head_];
      std::memcpy(out + copied, &storage_[head_ * packet_bytes_], n);
      copied += n;
      capacity -= packet_bytes_;
      head_ = (head_ + 1) % slots_;
      --size_;
    }
    return copied;
  }

  size_t size() const {
    std::lock_guard guard(mutex_);
    return size_;
  }
  uint64_t dropped() const {
    std::lock_guard guard(mutex_);
    return dropped_;
  }

 private:
  mutable std::mutex mutex_;
  size_t packet_bytes_ = 1;
  size_t slots_ = 0;
  std::unique_ptr<uint8_t[]> storage_;
  std::vector<size_t> lengths_;
  size_t head_ = 0;
  size_t size_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace varnel
