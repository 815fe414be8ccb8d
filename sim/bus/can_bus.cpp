#include "sim/bus/can_bus.h"

#include <algorithm>
#include <chrono>

namespace sim {
namespace {

uint64_t monotonic_ns() {
  return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count());
}

uint8_t padded_length(uint8_t len) {
  static constexpr uint8_t kSizes[] = {12, 16, 20, 24, 32, 48, 64};
  if (len <= 8) return len;
  for (uint8_t size : kSizes)
    if (len <= size) return size;
  return 64;
}

std::mutex default_bus_mutex;
std::shared_ptr<CanBus> default_bus;

}  // namespace

uint64_t can_frame_duration_us(const CanFrame& frame, const CanBitTiming& timing) {
  if (timing.nominal_bps == 0) return 0;
  const uint64_t header = frame.extended ? 54 : 34;  // up to the data, with CRC-free control
  if (!frame.fd) {
    const uint64_t bits = header + (frame.remote ? 0 : 8u * std::min<uint8_t>(frame.len, 8)) + 25;
    return (bits + bits / 10) * 1000000 / timing.nominal_bps;
  }
  const uint64_t len = padded_length(frame.len);
  const uint64_t data_bits = 8 * len + (len > 16 ? 26 : 22);
  const uint32_t data_rate = frame.brs && timing.data_bps ? timing.data_bps : timing.nominal_bps;
  return (header + 10) * 1000000 / timing.nominal_bps +
         (data_bits + data_bits / 10) * 1000000 / data_rate;
}

// ---- bus ----

CanBus::CanBus() : origin_ns_(monotonic_ns()) {}

uint64_t CanBus::now_us() const {
  return at_us(std::chrono::steady_clock::now());
}

uint64_t CanBus::at_us(std::chrono::steady_clock::time_point instant) const {
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(instant.time_since_epoch());
  return (uint64_t(ns.count()) - origin_ns_) / 1000 + advanced_us_.load();
}

void CanBus::advance_us(uint64_t us) {
  advanced_us_ += us;
}

void CanBus::attach(const std::shared_ptr<CanNode>& node) {
  std::lock_guard guard(mutex_);
  for (auto& weak : nodes_)
    if (weak.lock() == node) return;
  nodes_.push_back(node);
}

void CanBus::detach(const CanNode* node) {
  std::lock_guard guard(mutex_);
  std::erase_if(nodes_, [&](const std::weak_ptr<CanNode>& weak) {
    auto live = weak.lock();
    return !live || live.get() == node;
  });
}

std::vector<std::shared_ptr<CanNode>> CanBus::live_nodes() {
  std::vector<std::shared_ptr<CanNode>> out;
  out.reserve(nodes_.size());
  for (auto& weak : nodes_)
    if (auto node = weak.lock()) out.push_back(std::move(node));
  return out;
}

CanBus::Outcome CanBus::transmit(const CanNode* sender, const CanFrame& frame,
                                 const CanBitTiming& timing, uint64_t earliest_us) {
  Outcome outcome;
  std::vector<std::shared_ptr<CanNode>> nodes;
  {
    std::lock_guard guard(mutex_);
    // a scheduled frame starts at its own time (a peer catching up sends frames of the past)
    const uint64_t start = std::max(busy_until_us_, earliest_us ? earliest_us : now_us());
    outcome.end_us = start + can_frame_duration_us(frame, timing);
    busy_until_us_ = outcome.end_us;
    ++frames_;
    nodes = live_nodes();
  }
  for (auto& node : nodes)
    if (node.get() != sender && node->deliver(frame, outcome.end_us, timing))
      outcome.acknowledged = true;
  return outcome;
}

void CanBus::catch_up() {
  std::vector<std::shared_ptr<CanNode>> nodes;
  {
    std::lock_guard guard(mutex_);
    nodes = live_nodes();
  }
  const uint64_t now = now_us();
  for (auto& node : nodes) node->run_due(*this, now);
}

uint64_t CanBus::frames_carried() const {
  std::lock_guard guard(mutex_);
  return frames_;
}

std::shared_ptr<CanBus> default_can_bus() {
  std::lock_guard guard(default_bus_mutex);
  if (!default_bus) default_bus = std::make_shared<CanBus>();
  return default_bus;
}

void set_default_can_bus(std::shared_ptr<CanBus> bus) {
  std::lock_guard guard(default_bus_mutex);
  default_bus = std::move(bus);
}

// ---- controller ----

void CanController::start(const CanBitTiming& timing, uint8_t mode, std::shared_ptr<CanBus> bus) {
  std::shared_ptr<CanBus> old;
  if (!bus) bus = default_can_bus();
  {
    std::lock_guard guard(mutex_);
    old = bus_;
    started_ = true;
    mode_ = mode;
    timing_ = timing;
    bus_ = bus;
    fifo_.clear();
    tec_ = rec_ = 0;
    last_error_ = 0;
    error_flags_ = 0;
  }
  if (old && old != bus) old->detach(this);
  bus->attach(shared_from_this());
}

void CanController::stop() {
  std::shared_ptr<CanBus> bus;
  {
    std::lock_guard guard(mutex_);
    started_ = false;
    bus = bus_;
  }
  if (bus) bus->detach(this);
}

bool CanController::started() const {
  std::lock_guard guard(mutex_);
  return started_;
}

CanBitTiming CanController::timing() const {
  std::lock_guard guard(mutex_);
  return timing_;
}

std::shared_ptr<CanBus> CanController::bus() const {
  std::lock_guard guard(mutex_);
  return bus_;
}

bool CanController::send(const CanFrame& frame, uint8_t echo_index, uint64_t earliest_us,
                         uint64_t* end_us) {
  std::shared_ptr<CanBus> bus;
  CanBitTiming timing;
  {
    std::lock_guard guard(mutex_);
    if (!started_ || mode_ == 2 || tec_ > 255) return false;
    bus = bus_;
    timing = timing_;
  }
  const auto outcome = bus->transmit(this, frame, timing, earliest_us);
  if (end_us) *end_us = outcome.end_us;
  std::lock_guard guard(mutex_);
  if (!outcome.acknowledged) {
    last_error_ = 3;  // acknowledgement error: nobody else listens at this rate
    // an error-passive transmitter does not count acknowledgement errors any further
    if (tec_ < 128) count_error_locked(true);
    return false;
  }
  if (tec_ > 0) --tec_;
  if (echo()) {
    CanRxRecord record;
    record.frame = frame;
    record.bus_end_us = outcome.end_us;
    record.echo = true;
    record.echo_index = echo_index;
    push_locked(std::move(record));
  }
  return true;
}

bool CanController::echo() const {
  return echo_set_ ? echo_ : kind_ == Kind::kFd;
}

void CanController::set_echo(bool on) {
  std::lock_guard guard(mutex_);
  echo_set_ = true;
  echo_ = on;
}

void CanController::count_error_locked(bool transmit) {
  if (transmit)
    tec_ = std::min(tec_ + 8, 256);
  else
    rec_ = std::min(rec_ + 1, 255);
  const uint8_t flags = uint8_t((tec_ >= 96 || rec_ >= 96 ? 1 : 0) |
                                (tec_ >= 128 || rec_ >= 128 ? 2 : 0) | (tec_ > 255 ? 4 : 0));
  if (flags != error_flags_ && kind_ == Kind::kFd) {
    CanRxRecord event;
    event.event = true;
    event.frame.len = 8;
    event.frame.data[0] = 1;  // error state changed
    event.frame.data[1] = uint8_t(std::min(tec_, 255));
    event.frame.data[2] = uint8_t(rec_);
    event.frame.data[3] = flags;
    event.bus_end_us = bus_ ? bus_->now_us() : 0;
    push_locked(std::move(event));
  }
  error_flags_ = flags;
}

void CanController::push_locked(CanRxRecord record) {
  if (fifo_.size() >= fifo_capacity_) {
    ++overflows_;
    return;
  }
  fifo_.push_back(std::move(record));
}

bool CanController::deliver(const CanFrame& frame, uint64_t end_us, const CanBitTiming& timing) {
  std::function<void(const CanFrame&)> listener;
  bool acknowledged = false;
  {
    std::lock_guard guard(mutex_);
    if (!started_ || tec_ > 255) return false;
    if (timing.nominal_bps != timing_.nominal_bps || (frame.fd && kind_ != Kind::kFd)) {
      last_error_ = 2;  // form error: the frame makes no sense at this controller's bit timing
      count_error_locked(false);
      return false;
    }
    if (rec_ > 0) --rec_;
    acknowledged = mode_ != 2;  // a listening controller does not acknowledge
    if (accepts_ && !accepts_(frame)) return acknowledged;
    CanRxRecord record;
    record.frame = frame;
    record.bus_end_us = end_us;
    push_locked(std::move(record));
    listener = listener_;
  }
  if (listener) listener(frame);
  return acknowledged;
}

void CanController::set_acceptance(std::function<bool(const CanFrame&)> accepts) {
  std::lock_guard guard(mutex_);
  accepts_ = std::move(accepts);
}

void CanController::set_listener(std::function<void(const CanFrame&)> listener) {
  std::lock_guard guard(mutex_);
  listener_ = std::move(listener);
}

void CanController::push_event(const std::array<uint8_t, 8>& data) {
  std::lock_guard guard(mutex_);
  CanRxRecord event;
  event.event = true;
  event.frame.len = 8;
  std::copy(data.begin(), data.end(), event.frame.data.begin());
  event.bus_end_us = bus_ ? bus_->now_us() : 0;
  push_locked(std::move(event));
}

std::vector<CanRxRecord> CanController::take(size_t max) {
  if (auto bus = this->bus()) bus->catch_up();
  std::lock_guard guard(mutex_);
  const size_t n = std::min(max, fifo_.size());
  std::vector<CanRxRecord> out(std::make_move_iterator(fifo_.begin()),
                               std::make_move_iterator(fifo_.begin() + ptrdiff_t(n)));
  fifo_.erase(fifo_.begin(), fifo_.begin() + ptrdiff_t(n));
  return out;
}

size_t CanController::pending() const {
  std::lock_guard guard(mutex_);
  return fifo_.size();
}

uint8_t CanController::tec() const {
  std::lock_guard guard(mutex_);
  return uint8_t(std::min(tec_, 255));
}
uint8_t CanController::rec() const {
  std::lock_guard guard(mutex_);
  return uint8_t(rec_);
}
uint8_t CanController::last_error() const {
  std::lock_guard guard(mutex_);
  return last_error_;
}
bool CanController::bus_off() const {
  std::lock_guard guard(mutex_);
  return tec_ > 255;
}
uint64_t CanController::rx_overflows() const {
  std::lock_guard guard(mutex_);
  return overflows_;
}
void CanController::set_fifo_capacity(size_t records) {
  std::lock_guard guard(mutex_);
  fifo_capacity_ = records;
}

// ---- peer ----

std::shared_ptr<CanPeer> CanPeer::create(std::shared_ptr<CanBus> bus, CanBitTiming timing) {
  auto peer = std::make_shared<CanPeer>(bus, timing);
  bus->attach(peer);
  return peer;
}

bool CanPeer::send(const CanFrame& frame) {
  auto bus = bus_.lock();
  return bus && bus->transmit(this, frame, timing_).acknowledged;
}

void CanPeer::add_periodic(const CanFrame& frame, uint64_t period_us, uint64_t count,
                           bool stamp_counter, bool from_first_fetch) {
  auto bus = bus_.lock();
  if (!bus || period_us == 0) return;
  std::lock_guard guard(schedule_mutex_);
  periodic_.push_back(
      {frame, period_us, bus->now_us() + period_us, count, stamp_counter, from_first_fetch});
}

void CanPeer::clear_periodic() {
  std::lock_guard guard(schedule_mutex_);
  periodic_.clear();
}

void CanPeer::run_due(CanBus& bus, uint64_t now_us) {
  std::lock_guard guard(schedule_mutex_);
  for (auto& p : periodic_)
    if (p.waiting_for_fetch) {
      p.next_us = now_us + p.period_us;
      p.waiting_for_fetch = false;
    }
  // earliest first across the schedule, so frames go out in bus-time order
  for (size_t budget = 100000; budget > 0; --budget) {
    Periodic* next = nullptr;
    for (auto& p : periodic_)
      if (p.next_us <= now_us && (!next || p.next_us < next->next_us)) next = &p;
    if (!next) break;
    CanFrame frame = next->frame;
    if (next->stamp)
      for (int i = 0; i < 4; ++i) frame.data[size_t(i)] = uint8_t(next->counter >> (8 * i));
    ++next->counter;
    bus.transmit(this, frame, timing_, next->next_us);
    next->next_us += next->period_us;
    if (next->remaining && --next->remaining == 0) next->next_us = UINT64_MAX;
  }
  std::erase_if(periodic_, [](const Periodic& p) { return p.next_us == UINT64_MAX; });
}

bool CanPeer::deliver(const CanFrame& frame, uint64_t, const CanBitTiming& timing) {
  if (timing.nominal_bps != timing_.nominal_bps) return false;
  std::lock_guard guard(received_mutex_);
  // dropping the older half at once keeps the cost per frame constant
  if (received_limit_ && received_.size() >= received_limit_)
    received_.erase(received_.begin(), received_.begin() + ptrdiff_t(received_.size() / 2));
  received_.push_back(frame);
  return true;
}

void CanPeer::set_received_limit(size_t frames) {
  std::lock_guard guard(received_mutex_);
  received_limit_ = frames;
}

std::vector<CanFrame> CanPeer::received() const {
  std::lock_guard guard(received_mutex_);
  return received_;
}

size_t CanPeer::received_count() const {
  std::lock_guard guard(received_mutex_);
  return received_.size();
}

}  // namespace sim
