// The virtual CAN bus: controllers of the virtual adapters' channels and scripted peer nodes
// share it. A frame put on the bus by one node reaches every other node that listens at the same
// bit rate; the bus keeps its own time, and each frame occupies it for as long as its bits take.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace sim {

struct CanFrame {
  uint32_t id = 0;
  bool extended = false;
  bool remote = false;
  bool fd = false;   // CAN FD format
  bool brs = false;  // data phase at the data bit rate
  bool esi = false;  // error state indicator: the sender is error passive
  uint8_t len = 0;   // data bytes, 0-64
  std::array<uint8_t, 64> data{};
};

struct CanBitTiming {
  uint32_t nominal_bps = 0;
  uint32_t data_bps = 0;  // 0: no data phase
};

// Bus time of a frame in microseconds (an estimate: fixed overhead plus one stuff bit in ten).
uint64_t can_frame_duration_us(const CanFrame& frame, const CanBitTiming& timing);

class CanBus;

// Anything attached to the bus.
class CanNode {
 public:
  virtual ~CanNode() = default;
  // A frame that ended on the bus at bus time `end_us`, sent at `timing`. Returns true when this
  // node acknowledged it.
  virtual bool deliver(const CanFrame& frame, uint64_t end_us, const CanBitTiming& timing) = 0;
  // Called by CanBus::catch_up: a node with a schedule sends what is due by `now_us`.
  virtual void run_due(CanBus&, uint64_t /*now_us*/) {}
};

class CanBus {
 public:
  CanBus();
  // Bus time in microseconds: the host's monotonic clock since the bus was made, plus advances.
  uint64_t now_us() const;
  // Bus time at a given instant of the host's clock (see DeviceClock::at_us).
  uint64_t at_us(std::chrono::steady_clock::time_point instant) const;
  void advance_us(uint64_t us);

  void attach(const std::shared_ptr<CanNode>& node);
  void detach(const CanNode* node);

  struct Outcome {
    bool acknowledged = false;
    uint64_t end_us = 0;
  };
  // Puts a frame on the bus from `sender` (which does not receive it). It starts when the bus is
  // free and not before `earliest_us` (0: now).
  Outcome transmit(const CanNode* sender, const CanFrame& frame, const CanBitTiming& timing,
                   uint64_t earliest_us = 0);
  // Lets scheduled nodes (peers) send what is due by now.
  void catch_up();
  uint64_t frames_carried() const;

 private:
  std::vector<std::shared_ptr<CanNode>> live_nodes();

  const uint64_t origin_ns_;
  std::atomic<uint64_t> advanced_us_{0};
  mutable std::mutex mutex_;
  std::vector<std::weak_ptr<CanNode>> nodes_;
  uint64_t busy_until_us_ = 0;
  uint64_t frames_ = 0;
};

// The bus every channel joins at init unless it was given another one.
std::shared_ptr<CanBus> default_can_bus();
void set_default_can_bus(std::shared_ptr<CanBus> bus);

// One record of a controller's receive FIFO.
struct CanRxRecord {
  CanFrame frame;
  uint64_t bus_end_us = 0;
  bool echo = false;       // the controller's own frame, as the CAN FD firmware reports it
  uint8_t echo_index = 0;  // index in its send chunk
  bool event = false;      // a device event (CAN FD firmware), 8 bytes in frame.data
};

// The controller behind one channel of a virtual adapter.
class CanController : public CanNode, public std::enable_shared_from_this<CanController> {
 public:
  enum class Kind { kClassic, kFd };
  static constexpr size_t kDefaultFifo = 65536;

  explicit CanController(Kind kind) : kind_(kind) {}
  Kind kind() const { return kind_; }

  // Joins `bus` (the default bus when null) at the given timing. Mode 2 listens only.
  void start(const CanBitTiming& timing, uint8_t mode, std::shared_ptr<CanBus> bus = nullptr);
  void stop();
  bool started() const;
  CanBitTiming timing() const;
  std::shared_ptr<CanBus> bus() const;

  // Sends one frame from the host. Returns true when another node acknowledged it; `end_us`, when
  // given, gets the bus time at which the frame ended.
  bool send(const CanFrame& frame, uint8_t echo_index = 0, uint64_t earliest_us = 0,
            uint64_t* end_us = nullptr);
  // Up to `max` records, oldest first.
  std::vector<CanRxRecord> take(size_t max);
  size_t pending() const;
  void push_event(const std::array<uint8_t, 8>& data);

  bool deliver(const CanFrame& frame, uint64_t end_us, const CanBitTiming& timing) override;

  // Error counters and the last error code (1 stuff, 2 form, 3 acknowledgement ...).
  uint8_t tec() const;
  uint8_t rec() const;
  uint8_t last_error() const;
  bool bus_off() const;
  // Frames lost because the receive FIFO was full.
  uint64_t rx_overflows() const;

  // The firmware's acceptance filters: a frame the predicate refuses is acknowledged but not
  // kept. The listener hears every frame kept (the relay), outside the controller's lock.
  void set_acceptance(std::function<bool(const CanFrame&)> accepts);
  void set_listener(std::function<void(const CanFrame&)> listener);

  // Knobs for tests and demos.
  void set_fifo_capacity(size_t records);
  void set_echo(bool on);  // CAN FD controllers echo their own frames by default
  bool echo() const;

 private:
  void count_error_locked(bool transmit);
  void push_locked(CanRxRecord record);

  const Kind kind_;
  mutable std::mutex mutex_;
  bool started_ = false;
  uint8_t mode_ = 0;
  CanBitTiming timing_;
  std::shared_ptr<CanBus> bus_;
  std::deque<CanRxRecord> fifo_;
  size_t fifo_capacity_ = kDefaultFifo;
  uint64_t overflows_ = 0;
  int tec_ = 0, rec_ = 0;
  uint8_t last_error_ = 0;
  bool echo_set_ = false, echo_ = false;
  uint8_t error_flags_ = 0;  // last reported error state (CAN FD events)
  std::function<bool(const CanFrame&)> accepts_;
  std::function<void(const CanFrame&)> listener_;
};

// A scripted node: acknowledges frames at its bit rate, records what it received, sends frames
// on demand and periodic frames as bus time passes (whenever a controller fetches).
class CanPeer : public CanNode, public std::enable_shared_from_this<CanPeer> {
 public:
  static std::shared_ptr<CanPeer> create(std::shared_ptr<CanBus> bus, CanBitTiming timing);

  // Sends now. Returns true when acknowledged.
  bool send(const CanFrame& frame);
  // Sends `frame` every `period_us` of bus time from now, `count` times (0: forever). With
  // `stamp_counter` the first four data bytes carry a running counter (little-endian).
  // With `from_first_fetch` the schedule starts at the first fetch of a controller instead
  // (a node that starts talking once somebody listens: repeatable wherever a tool starts).
  void add_periodic(const CanFrame& frame, uint64_t period_us, uint64_t count = 0,
                    bool stamp_counter = false, bool from_first_fetch = false);
  void clear_periodic();

  std::vector<CanFrame> received() const;
  size_t received_count() const;
  // Keeps at most about `frames` of the latest received frames (0: all of them).
  void set_received_limit(size_t frames);

  bool deliver(const CanFrame& frame, uint64_t end_us, const CanBitTiming& timing) override;
  void run_due(CanBus& bus, uint64_t now_us) override;

  CanPeer(std::shared_ptr<CanBus> bus, CanBitTiming timing) : bus_(bus), timing_(timing) {}

 private:
  struct Periodic {
    CanFrame frame;
    uint64_t period_us;
    uint64_t next_us;
    uint64_t remaining;  // 0: forever
    bool stamp;
    bool waiting_for_fetch;
    uint32_t counter = 0;
  };
  std::weak_ptr<CanBus> bus_;
  const CanBitTiming timing_;
  std::mutex schedule_mutex_;
  std::vector<Periodic> periodic_;
  mutable std::mutex received_mutex_;
  std::vector<CanFrame> received_;
  size_t received_limit_ = 0;
};

}  // namespace sim
