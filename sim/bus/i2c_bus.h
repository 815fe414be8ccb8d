// An I2C bus behind one adapter channel: devices answer at their addresses byte by byte, as on the
// wire (acknowledges, repeated starts, the master's NACK before a stop), and every transaction's
// bytes are kept for tests to look at.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <span>
#include <vector>

namespace sim {

// SMBus packet error code: CRC-8, polynomial x^8 + x^2 + x + 1, initial value 0.
uint8_t smbus_pec(std::span<const uint8_t> bytes);

class I2cDevice {
 public:
  virtual ~I2cDevice() = default;
  // A start or repeated start naming this device; `address_byte` is address << 1 | read. Returns
  // the acknowledge.
  virtual bool start(uint8_t address_byte) = 0;
  // A byte from the master; returns the acknowledge.
  virtual bool write(uint8_t byte) = 0;
  // The next byte for the master.
  virtual uint8_t read() = 0;
  virtual void stop() {}
};

struct WireByte {
  uint8_t value = 0;
  bool address = false;  // the first byte after a start or repeated start
  bool acked = false;    // by the receiver: the device on writes, the master on reads
};

class I2cBus {
 public:
  void attach(uint16_t address, std::shared_ptr<I2cDevice> device);
  void detach(uint16_t address);

  // A device holding SDA low: every transaction fails as a bus error until reset() has clocked
  // the bus free.
  void set_stuck(bool stuck) { stuck_ = stuck; }
  bool stuck() const { return stuck_; }
  void reset();

  // Master side. start() returns the address acknowledge; false also when the bus is stuck.
  bool start(uint16_t address, bool read);
  bool write(uint8_t byte);
  uint8_t read(bool ack);
  void stop();

  // Transactions from start to stop, newest last (the latest 64).
  const std::deque<std::vector<WireByte>>& transactions() const { return log_; }
  // Bytes of the transaction under way, as they went over the wire.
  std::vector<uint8_t> current_bytes() const;
  uint64_t byte_count() const { return bytes_; }

 private:
  std::map<uint16_t, std::shared_ptr<I2cDevice>> devices_;
  I2cDevice* current_ = nullptr;
  bool stuck_ = false;
  bool open_ = false;
  uint64_t bytes_ = 0;
  std::deque<std::vector<WireByte>> log_;
};

// 24Cxx serial EEPROM: a word address of one or two bytes sets the pointer; written bytes wrap
// within their page, reads run on through the whole memory.
class Eeprom : public I2cDevice {
 public:
  Eeprom(size_t size, size_t page, int address_bytes);
  bool start(uint8_t address_byte) override;
  bool write(uint8_t byte) override;
  uint8_t read() override;
  std::vector<uint8_t>& memory() { return memory_; }

 private:
  std::vector<uint8_t> memory_;
  size_t page_;
  int address_bytes_;
  int address_seen_ = 0;
  size_t pointer_ = 0;
};

// An SMBus device with registers by command code: 0x00-0x0F bytes, 0x10-0x1F words (low byte
// first, as SMBus orders them), 0x20-0x2F blocks, 0x30 a process call that answers the
// complement of the word, 0x31 a block process call that answers the block reversed. A send byte
// sets the command a receive byte reads; 0x40-0x4F are commands without data that select byte
// register 0-15 for it. A byte after the data is a PEC: a wrong one is not
// acknowledged and the write is dropped; reads give a PEC to a master that reads on.
class SmbusDevice : public I2cDevice {
 public:
  bool start(uint8_t address_byte) override;
  bool write(uint8_t byte) override;
  uint8_t read() override;
  void stop() override;

  uint8_t byte_register(uint8_t code) const { return bytes_[code & 0x0F]; }
  uint16_t word_register(uint8_t code) const { return words_[code & 0x0F]; }
  std::vector<uint8_t>& block_register(uint8_t code) { return blocks_[code & 0x0F]; }
  // Flips the PEC of the next read, as a disturbed line would.
  void corrupt_next_pec() { corrupt_pec_ = true; }

 private:
  size_t expected_data() const;  // data bytes after the command, known once the count came
  void commit();
  void prepare_reply();

  uint8_t bytes_[16] = {};
  uint16_t words_[16] = {};
  std::vector<uint8_t> blocks_[16];
  uint8_t pointer_ = 0;
  std::vector<uint8_t> seen_;  // every byte of the transaction, for the PEC
  std::vector<uint8_t> rx_;    // command and data written in this transaction
  bool reading_ = false;
  bool pec_seen_ = false;
  bool refused_ = false;
  std::vector<uint8_t> tx_;
  size_t tx_at_ = 0;
  bool corrupt_pec_ = false;
};

}  // namespace sim
