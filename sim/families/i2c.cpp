// I2C and SMBus firmware of the virtual adapter: commands 0x0700-0x0710. Transfers answer with a
// status byte (0 done, see I2cModel::Status), followed by the data of a read when it is 0.
#include "sim/families/i2c.h"

#include <algorithm>

#include "sim/virtual_adapter.h"

namespace sim {

I2cModel::I2cModel() {
  for (auto& ch : channels_) {
    ch.small_eeprom = std::make_shared<Eeprom>(256, 8, 1);
    ch.large_eeprom = std::make_shared<Eeprom>(32768, 64, 2);
    ch.smbus = std::make_shared<SmbusDevice>();
    ch.bus.attach(kSmallEeprom, ch.small_eeprom);
    ch.bus.attach(kLargeEeprom, ch.large_eeprom);
    ch.bus.attach(kSmbusDevice, ch.smbus);
  }
}

std::vector<uint8_t> I2cModel::external_master_read(int index, size_t count) {
  std::lock_guard guard(mutex_);
  Channel& ch = channel(index);
  size_t n = std::min(count, ch.slave_tx.size() - ch.slave_tx_taken);
  std::vector<uint8_t> out(ch.slave_tx.begin() + long(ch.slave_tx_taken),
                           ch.slave_tx.begin() + long(ch.slave_tx_taken + n));
  ch.slave_tx_taken += n;
  return out;
}

void I2cModel::external_master_write(int index, std::vector<uint8_t> bytes) {
  std::lock_guard guard(mutex_);
  Channel& ch = channel(index);
  ch.slave_rx.insert(ch.slave_rx.end(), bytes.begin(), bytes.end());
  if (ch.slave_rx.size() > kSlaveBuffer) ch.slave_rx.resize(kSlaveBuffer);  // the rest is NACKed
}

namespace {

using Status = I2cModel::Status;
using Bytes = std::vector<uint8_t>;

uint16_t be16(const Bytes& p, size_t at) {
  return uint16_t(p[at] << 8 | p[at + 1]);
}

std::optional<Packet> status_reply(uint32_t command, uint8_t status, const Bytes& data = {}) {
  Bytes payload{status};
  if (status == I2cModel::kOk) payload.insert(payload.end(), data.begin(), data.end());
  return reply_with(command, std::move(payload));
}

// The bytes one transfer puts on the bus take their time on the device clock.
class BusTime {
 public:
  BusTime(VirtualAdapter& adapter, I2cModel::Channel& ch)
      : adapter_(adapter), ch_(ch), before_(ch.bus.byte_count()) {}
  ~BusTime() {
    uint64_t bits = (ch_.bus.byte_count() - before_) * 9 + 2;
    adapter_.clock().advance_us(bits * 1000000u / std::max<uint32_t>(ch_.clock_hz, 1));
  }

 private:
  VirtualAdapter& adapter_;
  I2cModel::Channel& ch_;
  uint64_t before_;
};

// Reads `count` bytes (and a PEC when asked), the last one NACKed, and checks the PEC over the
// whole transaction.
uint8_t read_part(I2cBus& bus, size_t count, bool pec, Bytes& out) {
  for (size_t i = 0; i < count; ++i) out.push_back(bus.read(pec || i + 1 < count));
  if (!pec) return I2cModel::kOk;
  uint8_t expected = smbus_pec(bus.current_bytes());
  return bus.read(false) == expected ? I2cModel::kOk : I2cModel::kPecError;
}

uint8_t write_part(I2cModel::Channel& ch, uint16_t address, const Bytes& data, bool pec) {
  if (!ch.bus.start(address, false))
    return ch.bus.stuck() ? I2cModel::kBusError : I2cModel::kAddressNack;
  for (uint8_t b : data)
    if (!ch.bus.write(b)) return I2cModel::kDataNack;
  if (pec) {
    uint8_t code = smbus_pec(ch.bus.current_bytes());
    if (ch.corrupt_next_pec) code ^= 0x01;
    ch.corrupt_next_pec = false;
    if (!ch.bus.write(code)) return I2cModel::kDataNack;
  }
  return I2cModel::kOk;
}

uint8_t check_target(const I2cModel::Channel& ch, uint16_t address) {
  if (!ch.master) return I2cModel::kNotMaster;
  if (address > (ch.address_bits == 10 ? 0x3FF : 0x7F)) return I2cModel::kBadRequest;
  if (ch.bus.stuck()) return I2cModel::kBusError;
  return I2cModel::kOk;
}

// A master transfer: a write (also of no data), a read, or a write, a repeated start and a read.
// With PEC the master appends it to a write-only transfer and checks the device's on a read.
uint8_t transfer(VirtualAdapter& adapter, I2cModel::Channel& ch, uint16_t address,
                 const Bytes& data, bool reads, size_t count, bool pec, Bytes& out) {
  if (uint8_t status = check_target(ch, address)) return status;
  BusTime time(adapter, ch);
  uint8_t status = I2cModel::kOk;
  if (!data.empty() || !reads) status = write_part(ch, address, data, pec && !reads);
  if (status == I2cModel::kOk && reads)
    status =
        !ch.bus.start(address, true) ? I2cModel::kAddressNack : read_part(ch.bus, count, pec, out);
  ch.bus.stop();
  return status;
}

// SMBus block protocols: the count travels before the data in both directions.
uint8_t smbus_block(VirtualAdapter& adapter, I2cModel::Channel& ch, uint16_t address, uint8_t code,
                    const Bytes* data, bool reads, bool pec, Bytes& out) {
  if (uint8_t status = check_target(ch, address)) return status;
  BusTime time(adapter, ch);
  Bytes request{code};
  if (data) {
    request.push_back(uint8_t(data->size()));
    request.insert(request.end(), data->begin(), data->end());
  }
  uint8_t status = write_part(ch, address, request, pec && !reads);
  if (status == I2cModel::kOk && reads) {
    if (!ch.bus.start(address, true)) {
      status = I2cModel::kAddressNack;
    } else {
      size_t count = ch.bus.read(true);
      status = read_part(ch.bus, count, pec, out);
      // The count byte was acknowledged; a block of none ends there.
    }
  }
  ch.bus.stop();
  return status;
}

std::optional<Packet> handle_i2c(VirtualAdapter& adapter, const Packet& request) {
  auto& model = adapter.state<I2cModel>();
  std::lock_guard guard(model.mutex());
  const Bytes& p = request.payload;
  const uint32_t command = request.command;
  auto refuse = [&] { return status_reply(command, I2cModel::kBadRequest); };
  if (p.empty() || p[0] >= I2cModel::kChannels) return refuse();
  I2cModel::Channel& ch = model.channel(p[0]);
  const size_t limit = adapter.reply_limit() - 1;
  Bytes out;
  auto tail = [&](size_t from) {
    return Bytes(p.begin() + long(std::min(from, p.size())), p.end());
  };
  switch (command) {
    case 0x0700:  // channel, width, master, own address, clock, option 1, option 2
      if (p.size() != 11 || be32(p, 5) == 0 || (p[1] != 7 && p[1] != 10))
        return reply_with(command, {I2cModel::kBadRequest});
      ch.address_bits = p[1];
      ch.master = p[2] != 0;
      ch.own_address = be16(p, 3);
      ch.clock_hz = be32(p, 5);
      return reply_with(command);
    case 0x0701:  // the event byte of a plain write is the SMBus PEC flag
      if (p.size() < 8) return refuse();
      return status_reply(command, transfer(adapter, ch, be16(p, 1), tail(8), false, 0, p[7], out));
    case 0x0702:
      if (p.size() != 12 || be32(p, 3) > limit) return refuse();
      return status_reply(command,
                          transfer(adapter, ch, be16(p, 1), {}, true, be32(p, 3), p[11], out), out);
    case 0x0703:
      if (p.size() < 12 || be32(p, 7) > limit) return refuse();
      return status_reply(
          command, transfer(adapter, ch, be16(p, 1), tail(12), true, be32(p, 7), p[11], out), out);
    // Event transfers: the virtual adapter's events have always already happened.
    case 0x070A:
      if (p.size() < 12) return refuse();
      return status_reply(command, transfer(adapter, ch, be16(p, 1), tail(12), false, 0, 0, out));
    case 0x070B:
      if (p.size() != 16 || be32(p, 3) > limit) return refuse();
      return status_reply(command, transfer(adapter, ch, be16(p, 1), {}, true, be32(p, 3), 0, out),
                          out);
    case 0x070C:
      if (p.size() < 16 || be32(p, 3) > limit) return refuse();
      return status_reply(
          command, transfer(adapter, ch, be16(p, 1), tail(16), true, be32(p, 3), 0, out), out);
    case 0x070D:
    case 0x070E: {  // block size, block count, interval in us
      if (p.size() < 15) return refuse();
      const uint64_t size = be32(p, 3), count = be32(p, 7);
      const bool reads = command == 0x070E;
      if (reads ? (p.size() != 15 || size * count > limit) : p.size() != 15 + size * count)
        return refuse();
      uint8_t status = I2cModel::kOk;
      for (uint64_t i = 0; i < count && status == I2cModel::kOk; ++i) {
        if (i) adapter.clock().advance_us(be32(p, 11));
        Bytes data =
            reads ? Bytes()
                  : Bytes(p.begin() + long(15 + i * size), p.begin() + long(15 + (i + 1) * size));
        status = transfer(adapter, ch, be16(p, 1), data, reads, size, false, out);
      }
      return status_reply(command, status, out);
    }
    case 0x070F:
      if (p.size() != 2) return reply_with(command, {I2cModel::kBadRequest});
      ch.stretch = p[1] != 0;
      return reply_with(command);
    case 0x0710:
      if (p.size() != 1) return reply_with(command, {I2cModel::kBadRequest});
      ch.bus.reset();
      return reply_with(command);
    default:
      return std::nullopt;
  }
}

// Slave calls: the firmware does not wait out the time-out when nothing is there; it answers
// with what it has.
std::optional<Packet> handle_slave(VirtualAdapter& adapter, const Packet& request) {
  auto& model = adapter.state<I2cModel>();
  std::lock_guard guard(model.mutex());
  const Bytes& p = request.payload;
  auto count_reply = [&](size_t n) {
    return reply_with(request.command, {uint8_t(n), uint8_t(n >> 8)});  // low byte first
  };
  if (p.empty() || p[0] >= I2cModel::kChannels) return count_reply(0);
  I2cModel::Channel& ch = model.channel(p[0]);
  switch (request.command) {
    case 0x0704: {  // a new slave write replaces what the master had not read of the last one
      if (p.size() < 5 || ch.master) return count_reply(0);
      size_t n = std::min(p.size() - 5, I2cModel::kSlaveBuffer);
      ch.slave_tx.assign(p.begin() + 5, p.begin() + 5 + long(n));
      ch.slave_tx_taken = 0;
      return count_reply(n);
    }
    case 0x0705: {
      if (p.size() != 5 || ch.master) return reply_with(request.command);
      Bytes data;
      data.swap(ch.slave_rx);
      return reply_with(request.command, std::move(data));
    }
    default:  // 0x0706
      return count_reply(ch.slave_tx.size() - ch.slave_tx_taken);
  }
}

std::optional<Packet> handle_smbus_block(VirtualAdapter& adapter, const Packet& request) {
  auto& model = adapter.state<I2cModel>();
  std::lock_guard guard(model.mutex());
  const Bytes& p = request.payload;
  const uint32_t command = request.command;
  if (p.size() < 9 || p[0] >= I2cModel::kChannels || (command == 0x0708 && p.size() != 9) ||
      p.size() > 9 + 255)
    return status_reply(command, I2cModel::kBadRequest);
  I2cModel::Channel& ch = model.channel(p[0]);
  Bytes data(p.begin() + 9, p.end()), out;
  const bool with_data = command != 0x0708, reads = command != 0x0707;
  uint8_t status =
      smbus_block(adapter, ch, be16(p, 1), p[7], with_data ? &data : nullptr, reads, p[8], out);
  return status_reply(command, status, out);
}

}  // namespace

void install_i2c(VirtualAdapter& adapter) {
  adapter.on(0x0700, 0x0710, handle_i2c);
  adapter.on(0x0704, 0x0706, handle_slave);
  adapter.on(0x0707, 0x0709, handle_smbus_block);
}

VARNEL_SIM_FAMILY(install_i2c)

}  // namespace sim
