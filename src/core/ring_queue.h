// A bounded receive queue for the streaming families (CAN, CAN FD, and later LIN, the slave
// streams and the ADC): a ring of at most `capacity` records that drops its oldest records when
// full and counts them. The storage is allocated on the first append, once.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

namespace varnel {

template <typename Record>
class RingQueue {
 public:
  explicit RingQueue(size_t capacity) : capacity_(capacity) {}

  size_t size() const { return size_; }
  uint64_t dropped() const { return dropped_; }

  // Appends n records; a full queue drops its oldest record before each append.
  void append(const Record* records, size_t n) {
    if (n == 0) return;
    if (!storage_) storage_ = std::make_unique<Record[]>(capacity_);
    if (n > capacity_) {
      dropped_ += n - capacity_;
      records += n - capacity_;
      n = capacity_;
    }
    const size_t overflow = size_ + n > capacity_ ? size_ + n - capacity_ : 0;
    if (overflow) {
      head_ = (head_ + overflow) % capacity_;
      size_ -= overflow;
      dropped_ += overflow;
    }
    size_t tail = (head_ + size_) % capacity_;
    const size_t first = std::min(n, capacity_ - tail);
    std::memcpy(&storage_[tail], records, first * sizeof(Record));
    std::memcpy(&storage_[0], records + first, (n - first) * sizeof(Record));
    size_ += n;
  }

  // Moves up to max records, oldest first, into out.
  size_t take(Record* out, size_t max) {
    const size_t n = std::min(max, size_);
    if (n == 0) return 0;
    const size_t first = std::min(n, capacity_ - head_);
    std::memcpy(out, &storage_[head_], first * sizeof(Record));
    std::memcpy(out + first, &storage_[0], (n - first) * sizeof(Record));
    head_ = (head_ + n) % capacity_;
    size_ -= n;
    return n;
  }

  void forget_drops() { dropped_ = 0; }

  void clear() {
    head_ = 0;
    size_ = 0;
  }

 private:
  size_t capacity_;
  std::unique_ptr<Record[]> storage_;
  size_t head_ = 0;
  size_t size_ = 0;
  uint64_t dropped_ = 0;
};

}  // namespace varnel
