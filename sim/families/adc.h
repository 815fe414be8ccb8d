// The virtual adapter's ADC firmware: block reads (0x500, 0x501) and the continuous read (0x502,
// stopped by vendor request 0x40), whose packets the USB carriers pull as bulk-in data when they
// are due at the sample rate on the device clock. A sample is two bytes, little-endian; the
// inputs of one instant follow each other in ascending order.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "sim/bus/adc_signals.h"

namespace sim {

class VirtualAdapter;

struct AdcModel {
  std::mutex mutex;
  AdcSignals signals;
  uint8_t mask = 0;
  uint32_t rate = 0;
  uint64_t next_instant = 0;  // block reads continue where the last one ended, until an init
  struct Stream {
    bool running = false;
    uint8_t mask = 0;
    uint32_t rate = 0;
    uint32_t packet_samples = 0;
    uint64_t start_us = 0;
    uint64_t packets = 0;  // pushed so far
    uint64_t samples = 0;  // pushed so far, all inputs counted
  } stream;
  uint32_t stops = 0;  // vendor stop requests seen
};

AdcModel& adc_model(VirtualAdapter& adapter);

// `count` samples of the inputs in `mask`, interleaved, from sample number `first` (all inputs
// counted) of a conversion at `rate`: the bytes the firmware sends.
std::vector<uint8_t> adc_samples(const AdcSignals& signals, uint8_t mask, uint32_t rate,
                                 uint64_t first, uint64_t count);

}  // namespace sim
