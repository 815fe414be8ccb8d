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

namespace varnel {

class PacketQueue {
 public:
  // Packets of at most `packet_bytes`, as many as `limit_bytes` of samples hold (at least one);
  // each slot keeps its packet's length before the bytes.
  void reset(size_t packet_bytes, size_t limit_bytes) {
    std::lock_guard guard(mutex_);
    packet_bytes_ = std::max<size_t>(packet_bytes, 1);
    slot_bytes_ = sizeof(uint32_t) + packet_bytes_;
    slots_ = std::max<size_t>(limit_bytes / packet_bytes_, 1);
    storage_.reset();
    head_ = size_ = 0;
    dropped_ = 0;
  }

  void append(const uint8_t* data, size_t size) {
    std::lock_guard guard(mutex_);
    if (slots_ == 0) return;
    if (!storage_) storage_ = std::make_unique<uint8_t[]>(slots_ * slot_bytes_);
    if (size_ == slots_) {  // full: the oldest packet makes room
      head_ = (head_ + 1) % slots_;
      --size_;
      ++dropped_;
    }
    uint8_t* slot = &storage_[(head_ + size_) % slots_ * slot_bytes_];
    const auto length = uint32_t(std::min(size, packet_bytes_));
    std::memcpy(slot, &length, sizeof length);
    std::memcpy(slot + sizeof length, data, length);
    ++size_;
  }

  // Whole packets, oldest first, while a full-size packet still fits in `capacity` bytes: no
  // packet is split, and a short one still counts as a whole one against the capacity. The bytes
  // copied.
  size_t take(uint8_t* out, size_t capacity) {
    std::lock_guard guard(mutex_);
    size_t copied = 0;
    while (size_ > 0 && capacity >= packet_bytes_) {
      const uint8_t* slot = &storage_[head_ * slot_bytes_];
      uint32_t length;
      std::memcpy(&length, slot, sizeof length);
      std::memcpy(out + copied, slot + sizeof length, length);
      copied += length;
      capacity -= packet_bytes_;
      head_ = (head_ + 1) % slots_;
      --size_;
    }
    return copied;
  }

  uint64_t dropped() const {
    std::lock_guard guard(mutex_);
    return dropped_;
  }

 private:
  mutable std::mutex mutex_;
  size_t packet_bytes_ = 1;
  size_t slot_bytes_ = 1;
  size_t slots_ = 0;
  std::unique_ptr<uint8_t[]> storage_;
  size_t head_ = 0;
  size_t size_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace varnel
