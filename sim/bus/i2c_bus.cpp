#include "sim/bus/i2c_bus.h"

#include <algorithm>

namespace sim {

uint8_t smbus_pec(std::span<const uint8_t> bytes) {
  uint8_t crc = 0;
  for (uint8_t b : bytes) {
    crc ^= b;
    for (int i = 0; i < 8; ++i) crc = uint8_t(crc & 0x80 ? (crc << 1) ^ 0x07 : crc << 1);
  }
  return crc;
}

void I2cBus::attach(uint16_t address, std::shared_ptr<I2cDevice> device) {
  devices_[address] = std::move(device);
}

void I2cBus::detach(uint16_t address) {
  devices_.erase(address);
}

void I2cBus::reset() {
  if (open_) stop();
  stuck_ = false;
}

bool I2cBus::start(uint16_t address, bool read) {
  if (!open_) log_.emplace_back();
  if (log_.size() > 64) log_.pop_front();
  open_ = true;
  if (stuck_) return false;
  // Ten-bit addresses go out as 11110xx0 and the low byte; devices here have 7-bit addresses.
  uint8_t address_byte = uint8_t((address << 1) | (read ? 1 : 0));
  if (address > 0x7F) address_byte = uint8_t(0xF0 | ((address >> 7) & 0x06) | (read ? 1 : 0));
  auto it = devices_.find(address);
  current_ = it == devices_.end() ? nullptr : it->second.get();
  bool ack = current_ && current_->start(address_byte);
  log_.back().push_back({address_byte, true, ack});
  ++bytes_;
  if (!ack) current_ = nullptr;
  return ack;
}

bool I2cBus::write(uint8_t byte) {
  bool ack = current_ && current_->write(byte);
  log_.back().push_back({byte, false, ack});
  ++bytes_;
  return ack;
}

uint8_t I2cBus::read(bool ack) {
  uint8_t byte = current_ ? current_->read() : 0xFF;  // nobody drives SDA: the pull-up reads 1
  log_.back().push_back({byte, false, ack});
  ++bytes_;
  return byte;
}

void I2cBus::stop() {
  if (current_) current_->stop();
  current_ = nullptr;
  open_ = false;
}

std::vector<uint8_t> I2cBus::current_bytes() const {
  std::vector<uint8_t> out;
  if (open_ && !log_.empty())
    for (auto& b : log_.back()) out.push_back(b.value);
  return out;
}

Eeprom::Eeprom(size_t size, size_t page, int address_bytes)
    : memory_(size, 0xFF), page_(page), address_bytes_(address_bytes) {}

bool Eeprom::start(uint8_t address_byte) {
  if (!(address_byte & 1)) address_seen_ = 0;
  return true;
}

bool Eeprom::write(uint8_t byte) {
  if (address_seen_ < address_bytes_) {
    pointer_ = address_seen_++ == 0 ? byte : (pointer_ << 8) | byte;
    pointer_ &= memory_.size() - 1;
    return true;
  }
  memory_[pointer_] = byte;
  // The page's address counter wraps: the byte after a page's last one lands on its first.
  pointer_ = (pointer_ & ~(page_ - 1)) | ((pointer_ + 1) & (page_ - 1));
  return true;
}

uint8_t Eeprom::read() {
  uint8_t byte = memory_[pointer_];
  pointer_ = (pointer_ + 1) & (memory_.size() - 1);
  return byte;
}

namespace {
enum Kind { kByte, kWord, kBlock, kProcessCall, kBlockProcessCall, kSendByte, kNone };
Kind kind_of(uint8_t code) {
  if (code < 0x10) return kByte;
  if (code < 0x20) return kWord;
  if (code < 0x30) return kBlock;
  if (code == 0x30) return kProcessCall;
  if (code == 0x31) return kBlockProcessCall;
  if (code >= 0x40 && code < 0x50) return kSendByte;
  return kNone;
}
}  // namespace

bool SmbusDevice::start(uint8_t address_byte) {
  reading_ = address_byte & 1;
  if (reading_) {
    seen_.push_back(address_byte);
    prepare_reply();
  } else {
    seen_.assign(1, address_byte);
    rx_.clear();
    pec_seen_ = refused_ = false;
  }
  return true;
}

size_t SmbusDevice::expected_data() const {
  switch (kind_of(rx_[0])) {
    case kByte:
      return 1;
    case kWord:
    case kProcessCall:
      return 2;
    case kBlock:
    case kBlockProcessCall:
      return rx_.size() < 2 ? 1 : size_t(1) + rx_[1];
    default:  // send byte: the command is all
      return 0;
  }
}

bool SmbusDevice::write(uint8_t byte) {
  if (refused_ || pec_seen_) return false;
  if (!rx_.empty() && rx_.size() == 1 + expected_data()) {
    // One byte beyond the data: the PEC over everything before it.
    pec_seen_ = true;
    if (byte != smbus_pec(seen_)) refused_ = true;
    seen_.push_back(byte);
    return !refused_;
  }
  seen_.push_back(byte);
  rx_.push_back(byte);
  // Blocks hold at most 32 bytes; a longer count is refused.
  if (rx_.size() == 2 && (kind_of(rx_[0]) == kBlock || kind_of(rx_[0]) == kBlockProcessCall) &&
      byte > 32) {
    refused_ = true;
    return false;
  }
  if (rx_.size() == 1) pointer_ = byte;
  return kind_of(rx_[0]) != kNone;
}

void SmbusDevice::commit() {
  if (refused_ || rx_.size() < 2 || rx_.size() < 1 + expected_data()) return;
  uint8_t code = rx_[0];
  switch (kind_of(code)) {
    case kByte:
      bytes_[code & 0x0F] = rx_[1];
      break;
    case kWord:
      words_[code & 0x0F] = uint16_t(rx_[1] | rx_[2] << 8);
      break;
    case kBlock:
      blocks_[code & 0x0F].assign(rx_.begin() + 2, rx_.end());
      break;
    default:
      break;
  }
}

void SmbusDevice::prepare_reply() {
  tx_.clear();
  tx_at_ = 0;
  uint8_t code = rx_.empty() ? pointer_ : rx_[0];
  switch (kind_of(code)) {
    case kByte:
    case kSendByte:
      tx_ = {bytes_[code & 0x0F]};
      break;
    case kWord:
      tx_ = {uint8_t(words_[code & 0x0F]), uint8_t(words_[code & 0x0F] >> 8)};
      break;
    case kBlock:
      tx_.push_back(uint8_t(blocks_[code & 0x0F].size()));
      tx_.insert(tx_.end(), blocks_[code & 0x0F].begin(), blocks_[code & 0x0F].end());
      break;
    case kProcessCall:
      if (rx_.size() >= 3) tx_ = {uint8_t(~rx_[1]), uint8_t(~rx_[2])};
      break;
    case kBlockProcessCall:
      if (rx_.size() >= 2) {
        tx_.push_back(uint8_t(rx_.size() - 2));
        tx_.insert(tx_.end(), rx_.rbegin(), rx_.rend() - 2);
      }
      break;
    default:
      break;
  }
}

uint8_t SmbusDevice::read() {
  uint8_t byte = 0xFF;
  if (tx_at_ < tx_.size()) {
    byte = tx_[tx_at_++];
  } else if (tx_at_++ == tx_.size()) {
    byte = smbus_pec(seen_);
    if (corrupt_pec_) byte ^= 0x01;
    corrupt_pec_ = false;
  }
  seen_.push_back(byte);
  return byte;
}

void SmbusDevice::stop() {
  // A write only (no read part) takes effect at the stop, with its PEC if it had one.
  if (!reading_) commit();
  seen_.clear();
  rx_.clear();  // a later receive byte reads by the command pointer alone
  tx_.clear();
  tx_at_ = 0;
}

}  // namespace sim
