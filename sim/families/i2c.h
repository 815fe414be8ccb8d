// The virtual adapter's I2C and SMBus firmware: two channels, each a master (or slave) on its own
// bus with a 24C02 EEPROM at 0x50, a 24C256 EEPROM at 0x54 and an SMBus device at 0x48; every other
// address is unanswered. In slave mode a channel keeps a transmit buffer for a master to read and a
// receive buffer of what a master wrote, which a test bench drives from outside.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/bus/i2c_bus.h"

namespace sim {

class VirtualAdapter;

class I2cModel {
 public:
  static constexpr int kChannels = 2;
  static constexpr uint16_t kSmallEeprom = 0x50;  // 24C02: 256 bytes, 8-byte pages
  static constexpr uint16_t kLargeEeprom = 0x54;  // 24C256: 32 KiB, 64-byte pages, 16-bit address
  static constexpr uint16_t kSmbusDevice = 0x48;
  static constexpr size_t kSlaveBuffer = 1024;

  // The firmware's status byte of a transfer.
  enum Status : uint8_t {
    kOk = 0,
    kAddressNack = 1,
    kDataNack = 2,
    kBusError = 3,
    kTimeout = 4,
    kPecError = 5,
    kBadRequest = 6,
    kNotMaster = 7,
  };

  struct Channel {
    bool master = true;  // power-up: a 7-bit master at 100 kHz
    uint8_t address_bits = 7;
    uint16_t own_address = 0;
    uint32_t clock_hz = 100000;
    bool stretch = false;
    I2cBus bus;
    std::shared_ptr<Eeprom> small_eeprom, large_eeprom;
    std::shared_ptr<SmbusDevice> smbus;
    std::vector<uint8_t> slave_tx, slave_rx;
    size_t slave_tx_taken = 0;
    bool corrupt_next_pec = false;  // the PEC the master sends next is flipped on the line
  };

  I2cModel();
  std::mutex& mutex() { return mutex_; }
  Channel& channel(int index) { return channels_.at(size_t(index)); }

  // Test bench: a master elsewhere on the bus reading from / writing to the adapter's slave.
  std::vector<uint8_t> external_master_read(int channel, size_t count);
  void external_master_write(int channel, std::vector<uint8_t> bytes);

 private:
  std::mutex mutex_;
  std::array<Channel, kChannels> channels_;
};

void install_i2c(VirtualAdapter& adapter);

}  // namespace sim
