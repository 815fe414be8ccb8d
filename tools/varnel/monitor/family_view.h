// What the page shows of the LIN, UART and K-line channels: per channel its counts, and the
// newest rows (LIN frames, K-line frames) and bytes (UART). Each update carries what arrived
// during its interval, at most the newest `rows_per_update` rows and `bytes_per_update` bytes of
// each channel (the rest counted as skipped); a full update carries the newest kept ones again.
// Not thread-safe: the server holds its lock around every call.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "monitor/family_source.h"

namespace varnel_cli::monitor {

// The verdict the page shows for a received LIN frame: "classic" or "enhanced" (the sum that
// matched), "bad" (neither did), "none" (no response to the header), "unchecked".
const char* lin_verdict(const LIN_EX_MSG& msg);

class FamilyView {
 public:
  explicit FamilyView(std::vector<FamilyChannelInfo> channels, size_t rows_per_update = 100,
                      size_t bytes_per_update = 4096);

  void add(const FamilyBatch& batch);
  void clear();
  // `"families":{...}` for an update; empty when no such channel is open.
  std::string json(bool full) const;
  void end_interval();

 private:
  struct Row {
    size_t channel;
    uint64_t at_us;
    std::string json;  // the row's object, written once
  };
  struct ChannelState {
    uint64_t items = 0, errors = 0, skipped = 0;
    std::deque<uint8_t> kept_bytes;  // UART: the newest bytes
    size_t new_bytes = 0;            // of which arrived this interval
    uint64_t first_new_us = 0;
  };
  void keep(std::deque<Row>& rows, Row row, size_t channel);
  void append_rows(std::string& out, const char* key, const std::deque<Row>& rows,
                   size_t fresh) const;

  std::vector<FamilyChannelInfo> channels_;
  size_t rows_per_update_, bytes_per_update_;
  std::vector<ChannelState> state_;
  std::deque<Row> lin_, kline_;             // the newest rows of all channels, oldest first
  size_t lin_fresh_ = 0, kline_fresh_ = 0;  // rows at the end that arrived this interval
};

}  // namespace varnel_cli::monitor
