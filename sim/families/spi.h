// The virtual adapter's SPI firmware: two master ports, each with an SPI NOR flash on its chip
// select. Byte transfers reach the flash as sessions; bit transfers reach a loopback wire (what a
// write-read sends comes back) and a read-only pattern; the flash commands of the 0x207-0x20C
// block run on the flash with the description the host gave (which command byte does what), page
// by page and sector by sector, advancing the device clock over busy times instead of waiting.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "sim/bus/spi_flash.h"

namespace sim {

class VirtualAdapter;

// The size of each port's flash: VARNEL_SIM_SPI_FLASH_SIZE (bytes, a power of two from 64 KiB to
// 256 MiB) or 1 MiB.
size_t configured_flash_size();

struct SpiModel {
  static constexpr int kChannels = 2;
  struct Channel {
    std::vector<uint8_t> config;         // the option bytes and clock of the last init
    std::array<uint8_t, 32> commands{};  // the flash description's command bytes
    bool flash_known = false;
    SpiNorFlash flash{configured_flash_size()};
    std::vector<uint8_t> read_pattern{0xA5};     // what a bit read clocks in, repeated
    std::vector<std::vector<uint8_t>> sessions;  // every byte write, as the flash saw it
    bool event_never = false;                    // event-started transfers find no event (status 1)
    // The slave port: a master elsewhere clocks in a running byte counter at this rate while the
    // continuous read runs (and for each slave write-read), and reads what the host loaded.
    uint32_t feed_bytes_per_ms = 1000;
    bool streaming = false;
    uint64_t stream_start_us = 0, fed = 0, counter = 0;
    std::vector<uint8_t> slave_tx;
  };
  std::mutex mutex;
  std::array<Channel, kChannels> channels;
};

SpiModel& spi_model(VirtualAdapter& adapter);

}  // namespace sim
