// A log of the most recent entries (packets, transfers) that tests read back. A virtual adapter
// may serve a monitor all day, so the log keeps a window: at most `max_entries`, and no more
// than `max_bytes` of entry data, the oldest going first. The newest entry always stays, however
// large, so a test can look at what it just did.
#pragma once

#include <cstddef>
#include <deque>
#include <vector>

namespace sim {

template <typename Entry>
class RecentLog {
 public:
  // `bytes_of` tells how much data an entry holds.
  using BytesOf = size_t (*)(const Entry&);
  RecentLog(size_t max_entries, size_t max_bytes, BytesOf bytes_of)
      : max_entries_(max_entries), max_bytes_(max_bytes), bytes_of_(bytes_of) {}

  void push(Entry entry) {
    bytes_ += bytes_of_(entry);
    entries_.push_back(std::move(entry));
    while (entries_.size() > 1 && (entries_.size() > max_entries_ || bytes_ > max_bytes_)) {
      bytes_ -= bytes_of_(entries_.front());
      entries_.pop_front();
    }
  }
  std::vector<Entry> entries() const { return {entries_.begin(), entries_.end()}; }
  void clear() {
    entries_.clear();
    bytes_ = 0;
  }
  bool empty() const { return entries_.empty(); }
  const Entry& back() const { return entries_.back(); }

 private:
  size_t max_entries_;
  size_t max_bytes_;
  BytesOf bytes_of_;
  std::deque<Entry> entries_;
  size_t bytes_ = 0;
};

}  // namespace sim
