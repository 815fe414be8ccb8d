// The virtual adapter's GPIO firmware: 16 pins, each with a direction, a pull and an output latch,
// and an optional level driven from outside (a test bench wire) on input pins.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

namespace sim {

class VirtualAdapter;

class GpioModel {
 public:
  static constexpr int kPins = 16;
  static constexpr uint32_t kValidPins = (1u << kPins) - 1;

  enum class Mode : uint8_t { kInput, kOutput, kOpenDrain };
  enum Pull : uint8_t { kPullNone = 0, kPullUp = 1, kPullDown = 2 };
  // First payload byte of a refusal; an acknowledgement has no payload.
  enum Refusal : uint8_t {
    kBadPin = 1,     // a mask bit beyond the adapter's pins
    kBadPull = 2,    // pull mode other than none/up/down
    kNotOutput = 3,  // pulses asked on a pin that does not drive
    kBadCount = 4,   // negative pulse count
    kBadLength = 5,  // request payload of the wrong size
  };

  struct Pin {
    Mode mode = Mode::kInput;
    uint8_t pull = kPullNone;
    bool latch = false;     // output register; kept while the pin is an input
    bool driven = false;    // something outside drives the pin
    bool external = false;  // ... to this level
    uint64_t pulses = 0;    // pulses emitted on the pin since power-up
  };

  // The level the pin shows on input: what it drives, else the outside level, else its pull.
  // A floating pin reads low.
  bool level(int pin) const;
  uint32_t levels(uint32_t mask) const;

  // Test bench side: drive pins from outside (mask selects, values gives the levels), or release.
  void drive(uint32_t mask, uint32_t values);
  void release(uint32_t mask);
  Pin pin(int index) const;

  // A level an output pin was set to (changed or not), at a device time. Peers on the wire (the
  // K-line units) decode wake-up patterns from these; tests read the pattern back.
  struct Level {
    int pin = 0;
    bool high = false;
    uint64_t at_us = 0;
  };
  static constexpr size_t kLevelLog = 256;  // the last levels kept per adapter
  using LevelListener = std::function<void(const Level&)>;
  // Called after each level set, outside the model's lock.
  void on_level(LevelListener listener);
  std::vector<Level> levels_set(int pin) const;

  // Firmware side: each returns 0 or a Refusal. `now_us` stamps the levels the call sets.
  uint8_t configure(uint32_t mask, Mode mode, uint8_t pull, uint64_t now_us = 0);
  uint8_t write(uint32_t mask, uint32_t values, uint64_t now_us = 0);
  uint8_t read(uint32_t mask, uint32_t& values) const;
  // Checks and counts a train; the caller advances the device clock by its duration.
  uint8_t pulse(uint32_t mask, int32_t count);

 private:
  bool level_locked(int pin) const;
  // Logs the levels of the output pins of `mask` (under the lock) and returns them.
  std::vector<Level> log_levels_locked(uint32_t mask, uint64_t now_us);
  void notify(const std::vector<Level>& levels);
  mutable std::mutex mutex_;
  std::array<Pin, kPins> pins_{};
  std::deque<Level> log_;
  std::vector<LevelListener> listeners_;
};

void install_gpio(VirtualAdapter& adapter);

}  // namespace sim
