#include "sim/bus/adc_signals.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace sim {

AdcSignals::AdcSignals() {
  for (int input = 0; input < kInputs; ++input) {
    AdcWaveform& w = waveforms_[size_t(input)];
    w.kind = input % 2 == 0 ? AdcWaveform::Kind::kRamp : AdcWaveform::Kind::kSine;
    w.start = uint16_t(512 * input);
  }
}

uint16_t AdcSignals::sample(int input, uint64_t instant, uint32_t rate) const {
  const AdcWaveform& w = waveforms_.at(size_t(input));
  if (w.kind == AdcWaveform::Kind::kRamp) return uint16_t((w.start + instant * w.step) % kLevels);
  const double t = double(instant) / std::max(rate, 1u);
  return uint16_t(std::lround(2048 + 2047 * std::sin(2 * std::numbers::pi * w.hz * t)));
}

}  // namespace sim
