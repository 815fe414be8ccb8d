// The virtual adapter: a software model of the adapter firmware. It takes the bytes the host
// writes, cuts them into command packets, hands each to the family handler registered for its
// command code and queues the reply for the host to read. It records every packet it received and
// can be told to misbehave (fault plan) so that tests see the library's error paths.
//
// The carrier (usbsim or the network daemon) moves bytes in and out; the adapter knows nothing of
// USB or TCP.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <typeindex>
#include <vector>

#include "sim/recent_log.h"

namespace sim {

struct Packet {
  uint32_t command = 0;
  std::vector<uint8_t> payload;
  // A reply: how long after the request the firmware sends it (the bus time its work takes).
  std::chrono::microseconds after{0};
};

// The adapter's own time in microseconds. It runs with the host's monotonic clock from the
// adapter's creation, and handlers that model slow operations advance it instead of sleeping.
class DeviceClock {
 public:
  DeviceClock();
  uint64_t now_us() const;
  // The time at a given instant of the host's clock, so that another clock read at the same
  // instant gives a fixed offset to this one.
  uint64_t at_us(std::chrono::steady_clock::time_point instant) const;
  void advance_us(uint64_t us);
  // Stops the clock at `us` (advance_us still moves it), for a device time a test sets exactly.
  void hold_at_us(uint64_t us);

 private:
  std::chrono::steady_clock::time_point start_;
  std::atomic<uint64_t> offset_us_{0};
  std::atomic<bool> held_{false};
};

// What the next replies should do wrong. Each fault applies once, to the next reply produced (of
// `command`, when that is not 0).
struct ReplyFault {
  enum class Kind { kDrop, kLate, kShort, kOtherCommand, kAnnounceLength, kTrickle, kDuplicate };
  Kind kind = Kind::kDrop;
  uint32_t value = 0;  // late: delay in ms; short: bytes kept; other command: the code;
                       // announce length: the length written in the header (payload padded);
                       // trickle: ms between the payload's bytes (the header comes at once);
                       // duplicate: unused (the reply is sent twice, back to back)
  uint32_t command = 0;
};

class FaultPlan {
 public:
  void next_reply(ReplyFault fault);
  // The first fault waiting for a reply of this command.
  std::optional<ReplyFault> take(uint32_t command);
  void clear();

 private:
  std::mutex mutex_;
  std::deque<ReplyFault> faults_;
};

class VirtualAdapter;
// A family handler: returns the reply, or nothing when the firmware does not answer.
using Handler = std::function<std::optional<Packet>(VirtualAdapter&, const Packet&)>;

class VirtualAdapter {
 public:
  // The firmware's receive buffer; a request header announcing more is garbage and is dropped.
  static constexpr int32_t kMaxRequestPayload = 16 * 1024 * 1024;

  explicit VirtualAdapter(uint32_t handle);
  ~VirtualAdapter();

  uint32_t handle() const { return handle_; }
  DeviceClock& clock() { return clock_; }
  // The most payload one reply may carry on the carrier the adapter is reached by: the USB
  // transport reads at most 0x80000 bytes, a TCP reply above 65,535 is a protocol error. Handlers
  // that return a variable amount (received frames) give no more than this and keep the rest.
  size_t reply_limit() const { return reply_limit_; }
  void set_reply_limit(size_t bytes) { reply_limit_ = bytes; }
  FaultPlan& faults() { return faults_; }

  // Registers the handler for command codes first..last (later registrations win).
  void on(uint32_t first, uint32_t last, Handler handler);

  // Bytes written by the host on a command endpoint or the TCP stream. Complete packets are
  // dispatched; a partial packet waits for the rest.
  void receive(const uint8_t* data, size_t size);

  // Reply bytes for the host. A read takes at most `max` bytes of the current segment (a reply's
  // header and its payload are separate segments, as the firmware sends them); when nothing is
  // queued it waits up to `timeout`. Returns the byte count, or -1 on time-out.
  int read(uint8_t* out, size_t max, std::chrono::milliseconds timeout);
  // Same, but for a byte stream (TCP): segments are not boundaries.
  int read_stream(uint8_t* out, size_t max, std::chrono::milliseconds timeout);
  bool has_pending_reply() const;

  // Queues raw bytes for the IN side, outside any reply (continuous data streams).
  void push_stream_data(std::vector<uint8_t> bytes);
  // A stream the firmware produces on demand (the ADC's packets): when the host reads and nothing
  // is queued, the source is asked, under the output lock, for the bytes due by now (maybe
  // none). An empty function ends the stream; so does a reset.
  using StreamSource = std::function<std::vector<uint8_t>()>;
  void set_stream_source(StreamSource source);

  // Vendor OUT requests without data (request type 0x41). The adapter knows the reset (0x60);
  // families add theirs. False: the firmware stalls the request.
  void on_control(uint8_t request, std::function<void(VirtualAdapter&)> handler);
  bool control_out(uint8_t request);

  // Queues a whole packet as if a handler had produced it (unsolicited data, tests).
  void push_reply(const Packet& reply);

  // Firmware reset (vendor request 0x60, or a USB reset): drops partial input and queued replies.
  void reset();
  uint32_t reset_count() const;

  // The packets received, in order: the most recent kReceivedWindow of them, within
  // kReceivedWindowBytes of payload (the newest is always kept).
  static constexpr size_t kReceivedWindow = 16384;
  static constexpr size_t kReceivedWindowBytes = 16u << 20;
  std::vector<Packet> received() const;
  void clear_received();
  // Requests that arrived while an earlier reply had not yet been read: the host interleaved
  // two transactions.
  uint32_t order_violations() const;

  // Per-family model state, created on first use: adapter.state<GpioModel>().
  template <typename T>
  T& state() {
    std::lock_guard guard(state_mutex_);
    auto& slot = family_state_[std::type_index(typeid(T))];
    if (!slot) slot = std::make_shared<T>();
    return *std::static_pointer_cast<T>(slot);
  }

 private:
  struct Segment {
    std::vector<uint8_t> bytes;
    size_t taken = 0;
    std::chrono::steady_clock::time_point ready_at;
  };
  void dispatch(const Packet& request);
  void queue_reply(Packet reply, std::optional<ReplyFault> fault);
  int read_impl(uint8_t* out, size_t max, std::chrono::milliseconds timeout, bool stream);

  const uint32_t handle_;
  std::atomic<size_t> reply_limit_{0x80000};
  DeviceClock clock_;
  FaultPlan faults_;

  std::mutex handlers_mutex_;
  struct Route {
    uint32_t first, last;
    Handler handler;
  };
  std::vector<Route> routes_;
  std::map<uint8_t, std::function<void(VirtualAdapter&)>> control_handlers_;

  std::mutex input_mutex_;  // serialises receive(): packets are dispatched in arrival order
  std::vector<uint8_t> partial_;

  mutable std::mutex output_mutex_;
  std::condition_variable output_ready_;
  std::deque<Segment> segments_;
  StreamSource stream_source_;
  RecentLog<Packet> received_{kReceivedWindow, kReceivedWindowBytes,
                              [](const Packet& p) { return p.payload.size(); }};
  uint32_t order_violations_ = 0;
  uint32_t resets_ = 0;

  std::mutex state_mutex_;
  std::map<std::type_index, std::shared_ptr<void>> family_state_;
};

// Installs every registered family's handlers on a new adapter.
void install_families(VirtualAdapter& adapter);

// A family of the firmware model registers itself from its own file (sim/families/<family>.cpp)
// with VARNEL_SIM_FAMILY(install_x); nothing central lists the families. The programs link the
// model whole (WHOLE_ARCHIVE), so a file that nothing else calls still brings its family.
using FamilyInstaller = void (*)(VirtualAdapter&);
bool register_family(FamilyInstaller installer);

#define VARNEL_SIM_FAMILY(installer) \
  static const bool varnel_sim_family_##installer = ::sim::register_family(installer);

// Helpers for handlers.
Packet reply_with(uint32_t command, std::vector<uint8_t> payload = {});
uint32_t be32(const std::vector<uint8_t>& bytes, size_t at);
void append_be32(std::vector<uint8_t>& bytes, uint32_t value);

}  // namespace sim
