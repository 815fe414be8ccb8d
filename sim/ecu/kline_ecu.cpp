#include "sim/ecu/kline_ecu.h"

#include <algorithm>
#include <map>
#include <string>

namespace sim {
namespace {

constexpr uint64_t kMs = 1000;
constexpr uint64_t kBitUs = 200 * kMs;              // one bit at 5 baud
constexpr uint64_t kStopSeenUs = 1790 * kMs;        // the stop bit is set 9 bits after the start
constexpr uint64_t kPatternStaleUs = 10'000 * kMs;  // an abandoned pattern, even on a busy host
// 25 ms nominal, but the pin commands' transport delays shorten or stretch it as the unit sees
// it: on a busy host the first command may arrive so late that hardly any low is left. Any low
// pulse after idle that ends before a 5-baud start bit would is taken as the wake-up.
constexpr uint64_t kFastLowMaxUs = 150 * kMs;
constexpr uint64_t kIdleUs = 100 * kMs;  // the line high before a pattern (the tester: 300 ms)
constexpr uint64_t kW1Us = 20 * kMs;     // address end to sync byte
constexpr uint64_t kW2Us = 10 * kMs;     // between sync, KB1 and KB2
constexpr uint64_t kW4Us = 30 * kMs;     // inverted KB2 to inverted address
// How long after KB2 the unit waits for its inverse (W4 is 25-50 ms; loose for a busy host)
constexpr uint64_t kKeyByteWaitUs = 300 * kMs;
constexpr uint64_t kFrameGapUs = 500 * kMs;  // a longer pause drops a partial request

enum : uint8_t {
  kStartCommunication = 0x81,
  kStopCommunication = 0x82,
  kReadEcuIdentification = 0x1A,
  kReadDataByLocalIdentifier = 0x21,
  kTesterPresent = 0x3E,
  kNegative = 0x7F,
};
enum : uint8_t {
  kServiceNotSupported = 0x11,
  kSubFunctionNotSupported = 0x12,  // also: invalid format
  kRequestOutOfRange = 0x31,
  kResponsePending = 0x78,
};

std::vector<uint8_t> text(uint8_t sid, uint8_t option, const std::string& s) {
  std::vector<uint8_t> out{uint8_t(sid + 0x40), option};
  out.insert(out.end(), s.begin(), s.end());
  return out;
}

std::vector<uint8_t> negative(uint8_t sid, uint8_t code) {
  return {kNegative, sid, code};
}

bool addressed(uint8_t fmt) {
  return (fmt & 0xC0) > 0x40;
}

// Fmt, the addresses if any, the length byte if the length bits are 0.
size_t header_size(uint8_t fmt) {
  return 1 + (addressed(fmt) ? 2 : 0) + ((fmt & 0x3F) == 0 ? 1 : 0);
}

uint8_t sum(const std::vector<uint8_t>& bytes) {
  unsigned s = 0;
  for (uint8_t b : bytes) s += b;
  return uint8_t(s);
}

}  // namespace

uint64_t KLineEcu::byte_us() const {
  return 10'000'000 / std::max(config.baud, 1u);  // start, 8 data bits, stop
}

void KLineEcu::line_level(bool high, uint64_t at_us) {
  if (faults.silent) return;
  const bool changed = high != line_high_;
  line_high_ = high;
  const std::optional<uint64_t> high_since = high_since_;
  if (high && !high_since_) high_since_ = at_us;
  if (!high) high_since_.reset();
  if (start_ && at_us > *start_ + kPatternStaleUs) start_.reset();
  if (!start_) {
    // After the line idled high, its going low starts a 5-baud address or a fast-init pulse.
    // (A pin just made an output may show a low latch for a moment: no idle, no pattern.)
    if (changed && !high && high_since && at_us - *high_since >= kIdleUs) {
      start_ = at_us;
      levels_ = {{false, at_us}};
    }
    return;
  }
  if (changed) levels_.push_back({high, at_us});
  if (high && changed && levels_.size() == 2 && at_us - *start_ < kFastLowMaxUs) {
    pulse_ended();
    start_.reset();
  } else if (high && at_us >= *start_ + kStopSeenUs) {
    five_baud_done(at_us);
    start_.reset();
  }
}

bool KLineEcu::level_at(uint64_t at_us) const {
  bool high = levels_.front().high;
  for (const Level& l : levels_)
    if (l.at_us <= at_us) high = l.high;
  return high;
}

void KLineEcu::five_baud_done(uint64_t stop_us) {
  // The bit time as the tester kept it (a busy host holds each level a little longer than
  // 200 ms): the stop bit starts nine bits after the start bit. Each bit is read in its middle.
  const uint64_t bit_us = (stop_us - *start_) / 9;
  uint8_t address = 0;
  for (int bit = 0; bit < 8; ++bit)
    if (level_at(*start_ + bit_us * uint64_t(bit + 1) + bit_us / 2)) address |= uint8_t(1u << bit);
  heard_address_ = address;
  if (address != config.address && address != kFunctionalAddress) return;
  frame_.clear();
  state_ = State::kKeyBytesSent;
  const uint64_t end = std::max(*start_ + 10 * kBitUs, stop_us);
  uint64_t t = end + kW1Us + byte_us();
  send_(faults.wrong_sync ? 0x54 : 0x55, t);
  t += kW2Us + byte_us();
  send_(config.kb1, t);
  t += kW2Us + byte_us();
  send_(config.kb2, t);
  key_bytes_end_us_ = t;
}

void KLineEcu::pulse_ended() {
  frame_.clear();
  state_ = State::kFastWoken;
}

void KLineEcu::tester_byte(uint8_t byte, uint64_t at_us) {
  if (faults.silent) return;
  if (state_ == State::kKeyBytesSent) {
    if (byte != uint8_t(~config.kb2) || at_us > key_bytes_end_us_ + kKeyByteWaitUs) {
      state_ = State::kAsleep;
      return;
    }
    const uint8_t address = heard_address_.value_or(config.address);
    send_(faults.wrong_inverted_address ? address : uint8_t(~address), at_us + kW4Us + byte_us());
    state_ = State::kAwake;
    return;
  }
  if (state_ == State::kAsleep) return;
  if (!frame_.empty() && at_us - last_byte_us_ > kFrameGapUs) frame_.clear();
  frame_.push_back(byte);
  last_byte_us_ = at_us;
  const uint8_t fmt = frame_[0];
  const size_t header = header_size(fmt);
  if (frame_.size() < header) return;
  const size_t length = (fmt & 0x3F) ? (fmt & 0x3F) : frame_[header - 1];
  if (frame_.size() == header + length + 1) frame_complete(at_us);
}

void KLineEcu::frame_complete(uint64_t at_us) {
  std::vector<uint8_t> f;
  f.swap(frame_);
  const uint8_t fmt = f[0];
  const size_t header = header_size(fmt);
  const uint8_t check = f.back();
  f.pop_back();
  if (sum(f) != check || f.size() == header) return;  // a corrupt or empty frame is ignored
  request_addressed_ = addressed(fmt);
  if (request_addressed_) {
    if (f[1] != config.address && f[1] != kFunctionalAddress) return;
    request_source_ = f[2];
  }
  std::vector<uint8_t> message(f.begin() + long(header), f.end());
  requests_.push_back(message);
  if (state_ == State::kFastWoken && message[0] != kStartCommunication) return;
  bool pending = false;
  std::vector<uint8_t> reply = answer(message, pending);
  if (reply.empty()) return;
  uint64_t start = at_us + config.p2_us;
  if (faults.late_ms) start = at_us + std::max(config.p2_us, kP2MaxUs) + faults.late_ms * kMs;
  if (pending) start = respond(negative(message[0], kResponsePending), start) + kPendingUs;
  respond(reply, start);
}

std::vector<uint8_t> KLineEcu::answer(const std::vector<uint8_t>& request, bool& pending) {
  static const std::map<uint8_t, std::string> identification = {
      {0x90, "VARNEL0K1INE00001"},  // vehicle identification number, 17 characters
      {0x91, "HW-0001"},
      {0x94, "SW-0102"},
  };
  const uint8_t sid = request[0];
  switch (sid) {
    case kStartCommunication:
      state_ = State::kAwake;
      return {0xC1, config.fast_kb1, config.fast_kb2};
    case kStopCommunication:
      state_ = State::kAsleep;
      return {0xC2};
    case kReadEcuIdentification: {
      if (request.size() != 2) return negative(sid, kSubFunctionNotSupported);
      auto it = identification.find(request[1]);
      if (it == identification.end()) return negative(sid, kSubFunctionNotSupported);
      return text(sid, request[1], it->second);
    }
    case kReadDataByLocalIdentifier: {
      if (request.size() != 2) return negative(sid, kSubFunctionNotSupported);
      std::vector<uint8_t> out{0x61, request[1]};
      if (request[1] == 0x01) {
        out.insert(out.end(), {0x0C, 0x1C, 0x00, 0x5A});
      } else if (request[1] == 0x02) {  // gathered slowly: "response pending" first
        pending = true;
        out.insert(out.end(), {0x01, 0x02, 0x03, 0x04});
      } else if (request[1] == 0x10) {  // a block longer than Fmt can count: a length byte
        for (int i = 0; i < 100; ++i) out.push_back(uint8_t(i));
      } else {
        return negative(sid, kRequestOutOfRange);
      }
      return out;
    }
    case kTesterPresent:
      if (request.size() == 2 && request[1] == 0x02) return {};  // no response wanted
      return {0x7E};
    default:
      return negative(sid, kServiceNotSupported);
  }
}

uint64_t KLineEcu::respond(const std::vector<uint8_t>& message, uint64_t at_us) {
  const size_t length = message.size();
  std::vector<uint8_t> f;
  const uint8_t length_bits = length <= 63 ? uint8_t(length) : 0;
  f.push_back(uint8_t((request_addressed_ ? 0x80 : 0x00) | length_bits));
  if (request_addressed_) f.insert(f.end(), {request_source_, config.address});
  if (length_bits == 0) f.push_back(uint8_t(length));
  f.insert(f.end(), message.begin(), message.end());
  const uint8_t check = sum(f);
  f.push_back(faults.bad_checksum ? uint8_t(~check) : check);
  if (faults.cut_after && faults.cut_after < f.size()) f.resize(faults.cut_after);
  return send_bytes(f, at_us);
}

uint64_t KLineEcu::send_bytes(const std::vector<uint8_t>& bytes, uint64_t first_at_us) {
  uint64_t t = first_at_us;
  for (uint8_t b : bytes) {
    t += byte_us();
    send_(b, t);
  }
  return t;
}

}  // namespace sim
