// What a bus monitor reckons from the frames it sees: each frame's length in bits on the wire
// (stuff bits counted the way canbusload counts them), the bus load of a channel, and per
// identifier the count, period and jitter. Shared by `varnel can stat` and the monitor page.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

namespace varnel_cli {

// One frame as the bus carried it.
struct BusFrame {
  uint32_t id = 0;  // 11 or 29 bits, no flags
  bool extended = false;
  bool remote = false;
  bool fd = false;
  bool brs = false;               // CAN FD: the data phase at the data bit rate
  uint8_t length = 0;             // data bytes (the DLC of a remote frame)
  std::span<const uint8_t> data;  // `length` bytes, none for a remote frame
};

// canbusload's three ways: no stuff bits, the most a frame of that length can have, or the stuff
// bits of the frame's real bit stream (CRC included).
enum class Stuffing { kNone, kWorstCase, kExact };

// A frame's bits from the start of frame to the end of the interframe space. CAN FD frames with
// the bit-rate switch have their data phase (ESI up to the end of the CRC, with its stuff bits)
// counted apart, as it runs at the data bit rate; the BRS bit and the CRC delimiter count at the
// nominal rate.
struct FrameBits {
  uint32_t nominal = 0;
  uint32_t data_phase = 0;
  uint32_t total() const { return nominal + data_phase; }
};

FrameBits frame_bits(const BusFrame& frame, Stuffing stuffing);

// CAN's CRC-15 (x^15 + x^14 + x^10 + x^8 + x^7 + x^4 + x^3 + 1, start value 0) of a bit sequence,
// one bit per element, first bit on the bus first.
uint32_t can_crc15(std::span<const uint8_t> bits);

// How long the frame holds the bus, in seconds.
double frame_seconds(const FrameBits& bits, uint32_t bitrate, uint32_t data_bitrate);

// A channel's traffic over a sliding window: frames, bits and the share of the time the bus was
// busy. Memory stays bounded: one entry per frame of the window, at most `max_frames`.
class BusLoad {
 public:
  explicit BusLoad(uint32_t bitrate, uint32_t data_bitrate = 0, uint64_t window_us = 1000000,
                   Stuffing stuffing = Stuffing::kExact, size_t max_frames = 200000);

  void add(const BusFrame& frame, uint64_t at_us);

  struct Figures {
    uint32_t frames = 0;
    uint64_t bits = 0;              // on the wire, with the stuff bits the mode counts
    uint64_t payload_bits = 0;      // data bytes only
    double load_percent = 0;        // busy time in the window, of the window
    uint64_t frames_forgotten = 0;  // frames the window could not keep (above max_frames)
  };
  // The figures of the window that ends at `now_us`.
  Figures figures(uint64_t now_us);

 private:
  struct Entry {
    uint64_t at_us;
    uint32_t bits, payload_bits;
    double seconds;
  };
  void forget_before(uint64_t start_us);

  uint32_t bitrate_, data_bitrate_;
  uint64_t window_us_;
  Stuffing stuffing_;
  size_t max_frames_;
  std::deque<Entry> entries_;
  Figures sum_;
  double busy_seconds_ = 0;
};

// Per identifier: how many frames, how often (the mean of the recent intervals) and how evenly
// (their standard deviation), and the last data with the bytes that changed from the one before.
class IdStatistics {
 public:
  struct Entry {
    uint64_t count = 0;
    uint64_t last_us = 0;
    double period_us = 0;
    double jitter_us = 0;
    std::vector<uint8_t> data;
    std::vector<bool> changed;  // per byte of `data`
    BusFrame flags;             // the last frame's flags and length (its data is in `data`)
  };
  // Keys: the identifier with bit 31 set for extended ones, so 0x123 and 0x00000123 differ.
  using Key = uint32_t;
  static Key key_of(const BusFrame& frame);

  explicit IdStatistics(size_t intervals_kept = 64) : intervals_kept_(intervals_kept) {}
  void add(const BusFrame& frame, uint64_t at_us);
  const std::map<Key, Entry>& entries() const { return entries_; }

 private:
  struct Intervals {
    std::deque<double> recent;
    double sum = 0, sum_of_squares = 0;
  };
  size_t intervals_kept_;
  std::map<Key, Entry> entries_;
  std::map<Key, Intervals> intervals_;
};

}  // namespace varnel_cli
