#include "can/bus_statistics.h"

#include <algorithm>
#include <cmath>

namespace varnel_cli {
namespace {

// Bits after the CRC: delimiter, acknowledge slot and delimiter, end of frame, interframe space.
constexpr uint32_t kTrailerBits = 1 + 1 + 1 + 7 + 3;

uint8_t fd_dlc(uint8_t length) {
  static constexpr uint8_t kLengths[] = {12, 16, 20, 24, 32, 48, 64};
  if (length <= 8) return length;
  for (uint8_t code = 0; code < 7; ++code)
    if (length <= kLengths[code]) return uint8_t(9 + code);
  return 15;
}

// The frame's bits from the start of frame on, before stuffing, as they go on the bus.
class BitStream {
 public:
  void put(uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) bits_.push_back(uint8_t(value >> i & 1));
  }
  size_t size() const { return bits_.size(); }
  const std::vector<uint8_t>& bits() const { return bits_; }

  uint32_t crc15() const { return can_crc15(bits_); }

 private:
  std::vector<uint8_t> bits_;
};

// The start of frame and the arbitration and control fields up to the DLC, then the data.
// Returns the index of the first data-phase bit (ESI) for CAN FD, else the size.
size_t write_header_and_data(const BusFrame& f, BitStream& out) {
  out.put(0, 1);  // start of frame
  if (f.extended) {
    out.put(f.id >> 18 & 0x7FF, 11);
    out.put(1, 1);  // SRR
    out.put(1, 1);  // IDE
    out.put(f.id & 0x3FFFF, 18);
  } else {
    out.put(f.id & 0x7FF, 11);
  }
  size_t data_phase = 0;
  if (f.fd) {
    out.put(0, 1);                   // RRS
    if (!f.extended) out.put(0, 1);  // IDE
    out.put(1, 1);                   // FDF
    out.put(0, 1);                   // res
    out.put(f.brs, 1);
    data_phase = out.size();
    out.put(0, 1);  // ESI: error active
    out.put(fd_dlc(f.length), 4);
  } else {
    out.put(f.remote, 1);  // RTR
    out.put(0, 1);         // IDE of a standard frame, r1 of an extended one
    out.put(0, 1);         // r0
    out.put(std::min<uint8_t>(f.length, 15), 4);
  }
  const size_t bytes = f.remote && !f.fd ? 0 : std::min<size_t>(f.length, f.data.size());
  for (size_t i = 0; i < bytes; ++i) out.put(f.data[i], 8);
  return f.fd ? data_phase : out.size();
}

// Stuff bits a transmitter inserts into `bits`: one after every five equal bits, the stuff bit
// itself starting the next run. `after_last`: whether a run of five at the very end gets one
// too (classic CAN: the CRC delimiter follows; CAN FD: the fixed stuff bit takes its place).
// Counted apart for the bits before and from `split` on.
std::pair<uint32_t, uint32_t> stuff_bits(const std::vector<uint8_t>& bits, size_t split,
                                         bool after_last) {
  uint32_t before = 0, from = 0;
  int run = 0;
  uint8_t level = 2;
  for (size_t i = 0; i < bits.size(); ++i) {
    run = bits[i] == level ? run + 1 : 1;
    level = bits[i];
    if (run == 5 && (after_last || i + 1 < bits.size())) {
      (i + 1 >= split ? from : before) += 1;
      level = uint8_t(!level);  // the stuff bit
      run = 1;
    }
  }
  return {before, from};
}

}  // namespace

uint32_t can_crc15(std::span<const uint8_t> bits) {
  uint32_t crc = 0;
  for (uint8_t bit : bits) {
    const bool invert = (bit ^ (crc >> 14)) & 1;
    crc = (crc << 1) & 0x7FFF;
    if (invert) crc ^= 0x4599;
  }
  return crc;
}

FrameBits frame_bits(const BusFrame& frame, Stuffing stuffing) {
  BitStream stream;
  const size_t split = write_header_and_data(frame, stream);
  FrameBits out;
  if (!frame.fd) {
    stream.put(stream.crc15(), 15);
    const uint32_t stuffed = stuffing == Stuffing::kExact
                                 ? stuff_bits(stream.bits(), stream.size(), true).first
                             : stuffing == Stuffing::kWorstCase ? uint32_t(stream.size() - 1) / 4
                                                                : 0;
    out.nominal = uint32_t(stream.size()) + stuffed + kTrailerBits;
    return out;
  }
  // After the data: the stuff count (3 bits and parity) and the CRC, 17 bits up to 16 data
  // bytes and 21 above, with a fixed stuff bit before them and after every fourth of their bits.
  const uint32_t crc = frame.length > 16 ? 21 : 17;
  const uint32_t tail = 4 + crc + 1 + (4 + crc) / 4;
  auto [arbitration_stuff, data_stuff] = stuff_bits(stream.bits(), split, false);
  if (stuffing == Stuffing::kWorstCase) {
    const uint32_t all = uint32_t(stream.size() - 1) / 4;
    arbitration_stuff = uint32_t(split - 1) / 4;
    data_stuff = all - arbitration_stuff;
  } else if (stuffing == Stuffing::kNone) {
    arbitration_stuff = data_stuff = 0;
  }
  const uint32_t data_bits = uint32_t(stream.size() - split) + data_stuff + tail;
  out.nominal = uint32_t(split) + arbitration_stuff + kTrailerBits;
  if (frame.brs)
    out.data_phase = data_bits;
  else
    out.nominal += data_bits;
  return out;
}

double frame_seconds(const FrameBits& bits, uint32_t bitrate, uint32_t data_bitrate) {
  if (bitrate == 0) return 0;
  const uint32_t fast = data_bitrate ? data_bitrate : bitrate;
  return double(bits.nominal) / bitrate + double(bits.data_phase) / fast;
}

BusLoad::BusLoad(uint32_t bitrate, uint32_t data_bitrate, uint64_t window_us, Stuffing stuffing,
                 size_t max_frames)
    : bitrate_(bitrate),
      data_bitrate_(data_bitrate),
      window_us_(window_us),
      stuffing_(stuffing),
      max_frames_(max_frames) {}

void BusLoad::add(const BusFrame& frame, uint64_t at_us) {
  const FrameBits bits = frame_bits(frame, stuffing_);
  const uint32_t payload = frame.remote && !frame.fd ? 0 : uint32_t(frame.length) * 8;
  Entry entry{at_us, bits.total(), payload, frame_seconds(bits, bitrate_, data_bitrate_)};
  if (entries_.size() >= max_frames_) {
    forget_before(entries_.front().at_us + 1);
    ++sum_.frames_forgotten;
  }
  entries_.push_back(entry);
  sum_.frames += 1;
  sum_.bits += entry.bits;
  sum_.payload_bits += entry.payload_bits;
  busy_seconds_ += entry.seconds;
}

void BusLoad::forget_before(uint64_t start_us) {
  while (!entries_.empty() && entries_.front().at_us < start_us) {
    const Entry& e = entries_.front();
    sum_.frames -= 1;
    sum_.bits -= e.bits;
    sum_.payload_bits -= e.payload_bits;
    busy_seconds_ -= e.seconds;
    entries_.pop_front();
  }
  if (entries_.empty()) busy_seconds_ = 0;  // no drift from the subtractions
}

BusLoad::Figures BusLoad::figures(uint64_t now_us) {
  forget_before(now_us >= window_us_ ? now_us - window_us_ + 1 : 0);
  Figures out = sum_;
  out.load_percent = 100.0 * busy_seconds_ / (double(window_us_) / 1e6);
  return out;
}

IdStatistics::Key IdStatistics::key_of(const BusFrame& frame) {
  return frame.id | (frame.extended ? 0x80000000u : 0);
}

void IdStatistics::add(const BusFrame& frame, uint64_t at_us) {
  const Key key = key_of(frame);
  Entry& e = entries_[key];
  const size_t bytes =
      frame.remote && !frame.fd ? 0 : std::min<size_t>(frame.length, frame.data.size());
  std::vector<uint8_t> data(frame.data.begin(), frame.data.begin() + long(bytes));
  e.changed.assign(bytes, false);
  for (size_t i = 0; i < bytes; ++i)
    e.changed[i] = e.count > 0 && (i >= e.data.size() || e.data[i] != data[i]);
  if (e.count > 0 && at_us >= e.last_us) {
    Intervals& in = intervals_[key];
    const double interval = double(at_us - e.last_us);
    in.recent.push_back(interval);
    in.sum += interval;
    in.sum_of_squares += interval * interval;
    if (in.recent.size() > intervals_kept_) {
      const double old = in.recent.front();
      in.sum -= old;
      in.sum_of_squares -= old * old;
      in.recent.pop_front();
    }
    const double n = double(in.recent.size());
    e.period_us = in.sum / n;
    e.jitter_us = std::sqrt(std::max(0.0, in.sum_of_squares / n - e.period_us * e.period_us));
  }
  e.count += 1;
  e.last_us = at_us;
  e.data = std::move(data);
  e.flags = frame;
  e.flags.data = {};
}

}  // namespace varnel_cli
