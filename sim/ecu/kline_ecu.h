// A virtual control unit on a K-line. It watches the line level the tester's wake-up pin sets
// (device times) and the bytes the tester's UART sends, and puts its own bytes on the line at
// device times:
// - 5-baud init: it decodes the address from the levels (a start bit, eight bits least
//   significant first, 200 ms each, sampled in the middle), answers 0x55, KB1, KB2, waits for the
//   inverted KB2 and answers the inverted address;
// - fast init: a low pulse of about 25 ms wakes it, and the first request must be
//   StartCommunication;
// - KWP2000 services once awake: StartCommunication 81, StopCommunication 82,
//   ReadEcuIdentification 1A, ReadDataByLocalIdentifier 21 (02 is slow: "response pending"
//   first), TesterPresent 3E; 7F SID NRC otherwise.
// Responses start P2 (40 ms) after the request's last byte. Faults are scriptable.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

namespace sim {

class KLineEcu {
 public:
  // How the unit puts a byte on the line: the byte and the device time it is complete at.
  using Send = std::function<void(uint8_t byte, uint64_t at_us)>;

  static constexpr uint8_t kFunctionalAddress = 0x33;  // the OBD functional address
  static constexpr uint64_t kP2MaxUs = 50'000;         // the latest a response may start
  static constexpr uint64_t kPendingUs = 200'000;      // "response pending" to the response

  struct Config {
    uint8_t address = 0x10;                    // physical address; the functional 0x33 is heard too
    uint8_t kb1 = 0x08, kb2 = 0x08;            // key bytes of the 5-baud init
    uint8_t fast_kb1 = 0xEF, fast_kb2 = 0x8F;  // key bytes of StartCommunication's answer
    uint32_t baud = 10400;
    // Request end to response start (ISO 14230: 25 to 50 ms). 40 ms leaves a busy host time to
    // read the echo of a request before the answer comes.
    uint64_t p2_us = 40'000;
  };
  struct Faults {
    bool wrong_sync = false;              // 0x54 instead of 0x55
    bool wrong_inverted_address = false;  // the address itself instead of its inverse
    bool bad_checksum = false;            // responses carry the inverted checksum
    uint32_t late_ms = 0;                 // responses start this much after P2max
    uint32_t cut_after = 0;               // responses stop after this many bytes (0: whole)
    bool silent = false;                  // hears nothing, says nothing
  };

  explicit KLineEcu(Send send) : send_(std::move(send)) {}

  Config config;
  Faults faults;

  // The line level set by the tester's pin, at a device time (every set, changed or not).
  void line_level(bool high, uint64_t at_us);
  // A byte the tester sent, complete at a device time.
  void tester_byte(uint8_t byte, uint64_t at_us);

  enum class State { kAsleep, kKeyBytesSent, kFastWoken, kAwake };
  State state() const { return state_; }
  // The address decoded from the last 5-baud pattern, for tests.
  std::optional<uint8_t> heard_address() const { return heard_address_; }
  // Every complete request (SID and data) heard, for tests.
  const std::vector<std::vector<uint8_t>>& requests() const { return requests_; }

 private:
  struct Level {
    bool high;
    uint64_t at_us;
  };
  uint64_t byte_us() const;
  bool level_at(uint64_t at_us) const;
  void five_baud_done(uint64_t stop_us);
  void pulse_ended();
  void frame_complete(uint64_t at_us);
  std::vector<uint8_t> answer(const std::vector<uint8_t>& request, bool& pending);
  // Sends SID + data framed as the request was (addresses swapped), starting at `at_us`;
  // returns the time its last byte is complete.
  uint64_t respond(const std::vector<uint8_t>& message, uint64_t at_us);
  uint64_t send_bytes(const std::vector<uint8_t>& bytes, uint64_t first_at_us);

  Send send_;
  State state_ = State::kAsleep;
  bool line_high_ = true;
  std::optional<uint64_t> high_since_;  // the line has been high since then
  std::optional<uint64_t> start_;       // the line went low from idle: a pattern may be under way
  std::vector<Level> levels_;           // since then
  std::optional<uint8_t> heard_address_;
  uint64_t key_bytes_end_us_ = 0;  // KB2 sent
  std::vector<uint8_t> frame_;
  uint64_t last_byte_us_ = 0;
  bool request_addressed_ = false;
  uint8_t request_source_ = 0;
  std::vector<std::vector<uint8_t>> requests_;
};

}  // namespace sim
