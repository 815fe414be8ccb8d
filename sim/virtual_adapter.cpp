#include "sim/virtual_adapter.h"

#include <algorithm>
#include <cstring>

namespace sim {
namespace {

std::vector<uint8_t> header_bytes(uint32_t command, uint32_t length) {
  std::vector<uint8_t> header;
  append_be32(header, command);
  append_be32(header, length);
  return header;
}

}  // namespace

DeviceClock::DeviceClock() : start_(std::chrono::steady_clock::now()) {}

uint64_t DeviceClock::now_us() const {
  return at_us(std::chrono::steady_clock::now());
}

uint64_t DeviceClock::at_us(std::chrono::steady_clock::time_point instant) const {
  if (held_) return offset_us_.load();
  auto elapsed = instant - start_;
  return uint64_t(std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count()) +
         offset_us_.load();
}

void DeviceClock::advance_us(uint64_t us) {
  offset_us_ += us;
}

void DeviceClock::hold_at_us(uint64_t us) {
  offset_us_ = us;
  held_ = true;
}

void FaultPlan::next_reply(ReplyFault fault) {
  std::lock_guard guard(mutex_);
  faults_.push_back(fault);
}

std::optional<ReplyFault> FaultPlan::take(uint32_t command) {
  std::lock_guard guard(mutex_);
  auto it = std::find_if(faults_.begin(), faults_.end(),
                         [&](auto& f) { return f.command == 0 || f.command == command; });
  if (it == faults_.end()) return std::nullopt;
  ReplyFault fault = *it;
  faults_.erase(it);
  return fault;
}

void FaultPlan::clear() {
  std::lock_guard guard(mutex_);
  faults_.clear();
}

VirtualAdapter::VirtualAdapter(uint32_t handle) : handle_(handle) {
  install_families(*this);
}
VirtualAdapter::~VirtualAdapter() = default;

void VirtualAdapter::on(uint32_t first, uint32_t last, Handler handler) {
  std::lock_guard guard(handlers_mutex_);
  routes_.push_back({first, last, std::move(handler)});
}

void VirtualAdapter::receive(const uint8_t* data, size_t size) {
  std::lock_guard input_guard(input_mutex_);
  partial_.insert(partial_.end(), data, data + size);
  size_t used = 0;
  while (partial_.size() - used >= 8) {
    const uint8_t* at = partial_.data() + used;
    Packet request;
    request.command =
        (uint32_t{at[0]} << 24) | (uint32_t{at[1]} << 16) | (uint32_t{at[2]} << 8) | at[3];
    const int32_t length =
        int32_t((uint32_t{at[4]} << 24) | (uint32_t{at[5]} << 16) | (uint32_t{at[6]} << 8) | at[7]);
    if (length < 0 || length > kMaxRequestPayload) {  // garbage: resynchronise on the next write
      used = partial_.size();
      break;
    }
    if (partial_.size() - used < 8 + size_t(length)) break;
    request.payload.assign(at + 8, at + 8 + length);
    used += 8 + size_t(length);
    dispatch(request);
  }
  partial_.erase(partial_.begin(), partial_.begin() + ptrdiff_t(used));
}

void VirtualAdapter::dispatch(const Packet& request) {
  {
    std::lock_guard guard(output_mutex_);
    if (std::any_of(segments_.begin(), segments_.end(),
                    [](auto& s) { return s.taken < s.bytes.size(); }))
      ++order_violations_;
    received_.push(request);
  }
  Handler handler;
  {
    std::lock_guard guard(handlers_mutex_);
    for (auto it = routes_.rbegin(); it != routes_.rend(); ++it)
      if (request.command >= it->first && request.command <= it->last) {
        handler = it->handler;
        break;
      }
  }
  if (!handler) return;  // unknown command: the firmware stays silent
  std::optional<Packet> reply = handler(*this, request);
  if (reply) queue_reply(std::move(*reply), faults_.take(request.command));
}

void VirtualAdapter::queue_reply(Packet reply, std::optional<ReplyFault> fault) {
  using Kind = ReplyFault::Kind;
  auto ready_at = std::chrono::steady_clock::now() + reply.after;
  uint32_t announced = uint32_t(reply.payload.size());
  std::chrono::milliseconds byte_gap{0};
  int copies = 1;
  if (fault) {
    switch (fault->kind) {
      case Kind::kDrop:
        return;
      case Kind::kLate:
        ready_at += std::chrono::milliseconds(fault->value);
        break;
      case Kind::kShort:  // the header promises the full payload, less arrives
        reply.payload.resize(std::min<size_t>(fault->value, reply.payload.size()));
        break;
      case Kind::kOtherCommand:
        reply.command = fault->value;
        break;
      case Kind::kAnnounceLength:
        announced = fault->value;
        // a negative length (as a signed header word) comes with no payload
        reply.payload.resize(int32_t(fault->value) > 0 ? fault->value : 0);
        break;
      case Kind::kTrickle:
        byte_gap = std::chrono::milliseconds(fault->value);
        break;
      case Kind::kDuplicate:
        copies = 2;
        break;
    }
  }
  std::lock_guard guard(output_mutex_);
  for (int copy = 0; copy < copies; ++copy) {
    segments_.push_back({header_bytes(reply.command, announced), 0, ready_at});
    if (byte_gap.count() > 0) {  // a slow peer: one byte at a time
      for (uint8_t byte : reply.payload) segments_.push_back({{byte}, 0, ready_at += byte_gap});
    } else if (!reply.payload.empty()) {
      segments_.push_back({reply.payload, 0, ready_at});
    }
  }
  output_ready_.notify_all();
}

void VirtualAdapter::push_reply(const Packet& reply) {
  queue_reply(reply, std::nullopt);
}

void VirtualAdapter::push_stream_data(std::vector<uint8_t> bytes) {
  std::lock_guard guard(output_mutex_);
  segments_.push_back({std::move(bytes), 0, std::chrono::steady_clock::now()});
  output_ready_.notify_all();
}

void VirtualAdapter::set_stream_source(StreamSource source) {
  std::lock_guard guard(output_mutex_);
  stream_source_ = std::move(source);
}

void VirtualAdapter::on_control(uint8_t request, std::function<void(VirtualAdapter&)> handler) {
  std::lock_guard guard(handlers_mutex_);
  control_handlers_[request] = std::move(handler);
}

bool VirtualAdapter::control_out(uint8_t request) {
  constexpr uint8_t kRequestReset = 0x60;
  if (request == kRequestReset) {
    reset();
    return true;
  }
  std::function<void(VirtualAdapter&)> handler;
  {
    std::lock_guard guard(handlers_mutex_);
    auto it = control_handlers_.find(request);
    if (it == control_handlers_.end()) return false;
    handler = it->second;
  }
  handler(*this);
  return true;
}

int VirtualAdapter::read(uint8_t* out, size_t max, std::chrono::milliseconds timeout) {
  return read_impl(out, max, timeout, false);
}

int VirtualAdapter::read_stream(uint8_t* out, size_t max, std::chrono::milliseconds timeout) {
  return read_impl(out, max, timeout, true);
}

int VirtualAdapter::read_impl(uint8_t* out, size_t max, std::chrono::milliseconds timeout,
                              bool stream) {
  std::unique_lock guard(output_mutex_);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    if (!stream && segments_.empty() && stream_source_) {  // USB only: not into a TCP stream
      std::vector<uint8_t> due = stream_source_();
      if (!due.empty()) segments_.push_back({std::move(due), 0, std::chrono::steady_clock::now()});
    }
    if (!segments_.empty()) {
      auto ready_at = segments_.front().ready_at;
      if (ready_at <= std::chrono::steady_clock::now()) break;
      if (ready_at > deadline) {
        output_ready_.wait_until(guard, deadline);
        return -1;
      }
      output_ready_.wait_until(guard, ready_at);
      continue;
    }
    if (output_ready_.wait_until(guard, deadline) == std::cv_status::timeout && segments_.empty())
      return -1;
  }
  size_t copied = 0;
  while (copied < max && !segments_.empty() &&
         segments_.front().ready_at <= std::chrono::steady_clock::now()) {
    Segment& segment = segments_.front();
    size_t n = std::min(max - copied, segment.bytes.size() - segment.taken);
    std::memcpy(out + copied, segment.bytes.data() + segment.taken, n);
    segment.taken += n;
    copied += n;
    if (segment.taken == segment.bytes.size()) segments_.pop_front();
    if (!stream) break;
  }
  return int(copied);
}

bool VirtualAdapter::has_pending_reply() const {
  std::lock_guard guard(output_mutex_);
  return !segments_.empty();
}

void VirtualAdapter::reset() {
  {
    std::lock_guard input_guard(input_mutex_);
    partial_.clear();
  }
  std::lock_guard guard(output_mutex_);
  segments_.clear();
  stream_source_ = nullptr;
  ++resets_;
}

uint32_t VirtualAdapter::reset_count() const {
  std::lock_guard guard(output_mutex_);
  return resets_;
}

std::vector<Packet> VirtualAdapter::received() const {
  std::lock_guard guard(output_mutex_);
  return received_.entries();
}

void VirtualAdapter::clear_received() {
  std::lock_guard guard(output_mutex_);
  received_.clear();
}

uint32_t VirtualAdapter::order_violations() const {
  std::lock_guard guard(output_mutex_);
  return order_violations_;
}

Packet reply_with(uint32_t command, std::vector<uint8_t> payload) {
  return Packet{command, std::move(payload)};
}

uint32_t be32(const std::vector<uint8_t>& bytes, size_t at) {
  if (at + 4 > bytes.size()) return 0;
  return (uint32_t{bytes[at]} << 24) | (uint32_t{bytes[at + 1]} << 16) |
         (uint32_t{bytes[at + 2]} << 8) | bytes[at + 3];
}

void append_be32(std::vector<uint8_t>& bytes, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) bytes.push_back(uint8_t(value >> shift));
}

}  // namespace sim
