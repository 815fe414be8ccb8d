// What the virtual adapter's analogue inputs see: a known waveform per input, so that a test can
// compute every sample it should receive. Readings are 12-bit (0..4095).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace sim {

struct AdcWaveform {
  enum class Kind { kRamp, kSine } kind = Kind::kRamp;
  uint16_t start = 0;  // ramp: the first reading
  uint16_t step = 1;   // ramp: added per sample, modulo 4096
  double hz = 50;      // sine: 2048 + 2047 sin(2 pi hz t), t = instant / sample rate
};

class AdcSignals {
 public:
  static constexpr int kInputs = 8;
  static constexpr uint32_t kLevels = 4096;

  // Even inputs are ramps starting at 512 x input, odd inputs 50 Hz sines.
  AdcSignals();
  void set(int input, const AdcWaveform& waveform) { waveforms_.at(size_t(input)) = waveform; }
  const AdcWaveform& waveform(int input) const { return waveforms_.at(size_t(input)); }
  // The reading of `input` at sample `instant` of a conversion running at `rate` per second.
  uint16_t sample(int input, uint64_t instant, uint32_t rate) const;

 private:
  std::array<AdcWaveform, kInputs> waveforms_;
};

}  // namespace sim
