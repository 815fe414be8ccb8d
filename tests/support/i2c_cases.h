// I2C and SMBus over a USB layer (see wire_fixture.h): the bytes of each request against the
// written layout, status bytes and reply lengths, the bus devices seen through the real calls
// (EEPROM page wrap, SMBus registers and PEC) and bad input.
#pragma once

#include <functional>
#include <numeric>

#include "sim/families/i2c.h"
#include "support/wire_fixture.h"

namespace testing_support {

constexpr uint32_t kI2cHandle = 0x12345678;
using I2cBytes = std::vector<uint8_t>;

// CRC-8 with polynomial x^8 + x^2 + x + 1, shifted through bit by bit, most significant first.
inline uint8_t crc8_by_bits(const I2cBytes& message) {
  uint8_t crc = 0;
  for (uint8_t byte : message)
    for (int bit = 7; bit >= 0; --bit) {
      bool feedback = ((crc >> 7) ^ (byte >> bit)) & 1;
      crc = uint8_t(crc << 1);
      if (feedback) crc ^= 0x07;  // x^2 + x + 1; the x^8 term is the bit shifted out
    }
  return crc;
}

// Wire bytes of the newest bus transaction on a channel of the virtual adapter.
inline I2cBytes last_on_bus(sim::VirtualAdapter& adapter, int channel = 0) {
  I2cBytes out;
  for (auto& b : adapter.state<sim::I2cModel>().channel(channel).bus.transactions().back())
    out.push_back(b.value);
  return out;
}

// Replaces the firmware's answer to `command` with a fixed payload.
inline void always_reply(sim::VirtualAdapter& adapter, uint32_t command, I2cBytes payload) {
  adapter.on(command, command, [payload](sim::VirtualAdapter&, const sim::Packet& request) {
    return std::optional<sim::Packet>(sim::reply_with(request.command, payload));
  });
}

template <class Layer>
class I2cCases : public WireTest<Layer> {};
TYPED_TEST_SUITE_P(I2cCases);

TYPED_TEST_P(I2cCases, EachCallSendsItsLayoutBigEndian) {
  constexpr uint32_t h = kI2cHandle;
  uint8_t in[8] = {}, w[3] = {0xA1, 0xB2, 0xC3}, byte = 0;
  uint16_t word = 0;
  uint32_t count = 0;
  IIC_CONFIG config{400000, 0x0123, 1, 8, 0xA5, 0x5A, {0xEE, 0xEE}};
  struct Case {
    std::function<int()> call;
    int result;
    I2cBytes wire;
  } cases[] = {
      // clang-format off
      // width 8 goes out as 7; the two reserved bytes stay home
      {[&] { return IIC_Init(h, 1, &config); }, 0,
       {0, 0, 7, 0, 0, 0, 0, 11, 1, 7, 1, 0x01, 0x23, 0x00, 0x06, 0x1A, 0x80, 0xA5, 0x5A}},
      {[&] { return IIC_WriteBytes(h, 0, 0x50, w, 2, 100); }, 0,
       {0, 0, 7, 1, 0, 0, 0, 10, 0, 0, 0x50, 0, 0, 0, 100, 0, 0xA1, 0xB2}},
      {[&] { return IIC_ReadBytes(h, 0, 0x50, in, 4, 0x01020304); }, 0,
       {0, 0, 7, 2, 0, 0, 0, 12, 0, 0, 0x50, 0, 0, 0, 4, 1, 2, 3, 4, 0}},
      {[&] { return IIC_WriteReadBytes(h, 0, 0x50, w, 1, in, 2, 20); }, 0,
       {0, 0, 7, 3, 0, 0, 0, 13, 0, 0, 0x50, 0, 0, 0, 20, 0, 0, 0, 2, 0, 0xA1}},
      {[&] { return IIC_WriteBytesOfEvent(h, 0, 0x50, w, 1, 7, 0x33, 0x01000002); }, 0,
       {0, 0, 7, 0x0A, 0, 0, 0, 13, 0, 0, 0x50, 0, 0, 0, 7, 0x33, 1, 0, 0, 2, 0xA1}},
      {[&] { return IIC_ReadBytesOfEvent(h, 0, 0x50, in, 3, 7, 0x33, 9); }, 0,
       {0, 0, 7, 0x0B, 0, 0, 0, 16, 0, 0, 0x50, 0, 0, 0, 3, 0, 0, 0, 7, 0x33, 0, 0, 0, 9}},
      {[&] { return IIC_WriteReadBytesOfEvent(h, 0, 0x50, w, 1, in, 3, 7, 0x33, 9); }, 0,
       {0, 0, 7, 0x0C, 0, 0, 0, 17, 0, 0, 0x50, 0, 0, 0, 3, 0, 0, 0, 7, 0x33, 0, 0, 0, 9, 0xA1}},
      {[&] { return IIC_BlockWriteBytes(h, 0, 0x50, w, 1, 2, 300); }, 0,
       {0, 0, 7, 0x0D, 0, 0, 0, 17, 0, 0, 0x50, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 1, 0x2C, 0xA1, 0xB2}},
      {[&] { return IIC_BlockReadBytes(h, 0, 0x50, in, 2, 3, 300); }, 0,
       {0, 0, 7, 0x0E, 0, 0, 0, 15, 0, 0, 0x50, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 1, 0x2C}},
      {[&] { return IIC_SetStretchClock(h, 1, 1); }, 0, {0, 0, 7, 0x0F, 0, 0, 0, 2, 1, 1}},
      {[&] { return IIC_BusReset(h, 1); }, 0, {0, 0, 7, 0x10, 0, 0, 0, 1, 1}},
      // channel 1 is a master: its slave buffers take nothing
      {[&] { return IIC_SlaveWriteBytes(h, 1, w, 3, 0x200); }, 0,
       {0, 0, 7, 4, 0, 0, 0, 8, 1, 0, 0, 2, 0, 0xA1, 0xB2, 0xC3}},
      {[&] { return IIC_SlaveReadBytes(h, 1, in, 0x200); }, 0, {0, 0, 7, 5, 0, 0, 0, 5, 1, 0, 0, 2, 0}},
      {[&] { return IIC_SlaveWriteRemain(h, 1); }, 0, {0, 0, 7, 6, 0, 0, 0, 1, 1}},
      // SMBus: clock 100 kHz, own address 0, master, 7 bits, the option in option byte 1
      {[&] { return SMBUS_Init(h, 0, 100000, 3); }, 0,
       {0, 0, 7, 0, 0, 0, 0, 11, 0, 7, 1, 0, 0, 0, 1, 0x86, 0xA0, 3, 0}},
      {[&] { return SMBUS_QuickCommand(h, 0, 0x48, 1); }, 0,
       {0, 0, 7, 1, 0, 0, 0, 8, 0, 0, 0x48, 0, 0, 0, 10, 0}},
      {[&] { return SMBUS_QuickCommand(h, 0, 0x48, 0); }, 0,
       {0, 0, 7, 2, 0, 0, 0, 12, 0, 0, 0x48, 0, 0, 0, 0, 0, 0, 0, 10, 0}},
      {[&] { return SMBUS_WriteByte(h, 0, 0x48, 0x42, 0); }, 0,  // selects byte register 2
       {0, 0, 7, 1, 0, 0, 0, 9, 0, 0, 0x48, 0, 0, 0, 10, 0, 0x42}},
      {[&] { return SMBUS_ReadByte(h, 0, 0x48, &byte, 1); }, 0,
       {0, 0, 7, 2, 0, 0, 0, 12, 0, 0, 0x48, 0, 0, 0, 1, 0, 0, 0, 10, 1}},
      {[&] { return SMBUS_WriteByteProtocol(h, 0, 0x48, 0x01, 0x5A, 0); }, 0,
       {0, 0, 7, 1, 0, 0, 0, 10, 0, 0, 0x48, 0, 0, 0, 10, 0, 0x01, 0x5A}},
      {[&] { return SMBUS_ReadByteProtocol(h, 0, 0x48, 0x01, &byte, 1); }, 0,
       {0, 0, 7, 3, 0, 0, 0, 13, 0, 0, 0x48, 0, 0, 0, 10, 0, 0, 0, 1, 1, 0x01}},
      {[&] { return SMBUS_WriteWordProtocol(h, 0, 0x48, 0x10, 0x1234, 1); }, 0,
       {0, 0, 7, 1, 0, 0, 0, 11, 0, 0, 0x48, 0, 0, 0, 10, 1, 0x10, 0x12, 0x34}},
      {[&] { return SMBUS_ReadWordProtocol(h, 0, 0x48, 0x10, &word, 0); }, 0,
       {0, 0, 7, 3, 0, 0, 0, 13, 0, 0, 0x48, 0, 0, 0, 10, 0, 0, 0, 2, 0, 0x10}},
      {[&] { return SMBUS_ProcessCall(h, 0, 0x48, 0x30, 0x0F0F, &word, 1); }, 0,
       {0, 0, 7, 3, 0, 0, 0, 15, 0, 0, 0x48, 0, 0, 0, 10, 0, 0, 0, 2, 1, 0x30, 0x0F, 0x0F}},
      {[&] { return SMBUS_BlockWrite(h, 0, 0x48, 0x21, w, 3, 1); }, 0,
       {0, 0, 7, 7, 0, 0, 0, 12, 0, 0, 0x48, 0, 0, 0, 10, 0x21, 1, 0xA1, 0xB2, 0xC3}},
      {[&] { return SMBUS_BlockRead(h, 0, 0x48, 0x21, in, &count, 0); }, 0,
       {0, 0, 7, 8, 0, 0, 0, 9, 0, 0, 0x48, 0, 0, 0, 10, 0x21, 0}},
      {[&] { return SMBUS_BlockProcessCall(h, 0, 0x48, 0x31, w, 2, in, &count, 0); }, 0,
       {0, 0, 7, 9, 0, 0, 0, 11, 0, 0, 0x48, 0, 0, 0, 10, 0x31, 0, 0xA1, 0xB2}},
      // clang-format on
  };
  this->plug_and_open(h);
  for (auto& c : cases) {
    EXPECT_EQ(c.call(), c.result) << testing::PrintToString(c.wire);
    EXPECT_EQ(this->take_request(kI2cHandle), c.wire);
  }
  EXPECT_EQ(byte, 0x5A);
  EXPECT_EQ(word, 0xF0F0);  // the process call answers the complement
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(in[0], 0xB2);  // ... and the block process call the block reversed
}

// 24C02 pages are 8 bytes, 24C256 pages 64 with a two-byte word address: a write running past the
// page's end lands on its start, and a read runs on across pages.
TYPED_TEST_P(I2cCases, EepromPageWriteWrapsWithinItsPage) {
  constexpr uint32_t h = kI2cHandle;
  this->plug_and_open(h);
  I2cBytes small{0x06, 1, 2, 3, 4}, large{0x0F, 0xFE, 1, 2, 3, 4};
  ASSERT_EQ(IIC_WriteBytes(h, 0, 0x50, small.data(), 5, 10), 0);
  ASSERT_EQ(IIC_WriteBytes(h, 0, 0x54, large.data(), 6, 10), 0);
  uint8_t from = 0x00, from_large[2] = {0x0F, 0xC0}, in[10] = {};
  ASSERT_EQ(IIC_WriteReadBytes(h, 0, 0x50, &from, 1, in, 10, 10), 0);
  EXPECT_EQ(I2cBytes(in, in + 10), (I2cBytes{3, 4, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 0xFF, 0xFF}));
  ASSERT_EQ(IIC_WriteReadBytes(h, 0, 0x54, from_large, 2, in, 2, 10), 0);
  EXPECT_EQ(I2cBytes(in, in + 2), (I2cBytes{3, 4}));   // 0x0FC0 and 0x0FC1
  ASSERT_EQ(IIC_ReadBytes(h, 0, 0x54, in, 2, 10), 0);  // the pointer ran on from 0x0FC2
  EXPECT_EQ(I2cBytes(in, in + 2), (I2cBytes{0xFF, 0xFF}));
  from_large[1] = 0xFE;
  ASSERT_EQ(IIC_WriteReadBytes(h, 0, 0x54, from_large, 2, in, 2, 10), 0);
  EXPECT_EQ(I2cBytes(in, in + 2), (I2cBytes{1, 2}));
}

// The adapter's status byte is the result; reads copy nothing unless it is 0.
TYPED_TEST_P(I2cCases, StatusBytesPassThroughAndStopTheCopy) {
  constexpr uint32_t h = kI2cHandle;
  Adapter adapter = this->plug_and_open(h);
  uint8_t in[4] = {9, 9, 9, 9}, out[2] = {0, 1};
  EXPECT_EQ(IIC_WriteBytes(h, 0, 0x23, out, 2, 10), VARNEL_IIC_STATUS_ADDRESS_NACK);
  EXPECT_EQ(IIC_ReadBytes(h, 0, 0x23, in, 4, 10), VARNEL_IIC_STATUS_ADDRESS_NACK);
  EXPECT_EQ(SMBUS_QuickCommand(h, 0, 0x23, 1), VARNEL_IIC_STATUS_ADDRESS_NACK);
  EXPECT_EQ(SMBUS_WriteByteProtocol(h, 0, 0x48, 0x3F, 1, 0), VARNEL_IIC_STATUS_DATA_NACK);
  adapter->state<sim::I2cModel>().channel(0).bus.set_stuck(true);
  EXPECT_EQ(IIC_ReadBytes(h, 0, 0x50, in, 4, 10), VARNEL_IIC_STATUS_BUS_ERROR);
  EXPECT_EQ(IIC_BusReset(h, 0), 0);
  EXPECT_EQ(IIC_ReadBytes(h, 0, 0x50, in, 0, 10), 0);
  EXPECT_EQ(I2cBytes(in, in + 4), (I2cBytes{9, 9, 9, 9}));
  struct Case {
    I2cBytes reply;
    int result;
  } replies[] = {{{0}, 0}, {{2}, 2}, {{4, 1, 2, 3, 4}, 4}, {{0, 1, 2}, -4}, {{}, -4}};
  for (auto& c : replies) {
    always_reply(*adapter, 0x0702, c.reply);
    EXPECT_EQ(IIC_ReadBytes(h, 0, 0x50, in, 4, 10), c.result) << testing::PrintToString(c.reply);
    EXPECT_EQ(I2cBytes(in, in + 4), (I2cBytes{9, 9, 9, 9}));
  }
}

// A 7-bit channel is probed over 128 addresses with empty 5 ms writes; a width of 8 is stored as
// given and scans all 1024.
TYPED_TEST_P(I2cCases, ScanFindsTheDevicesAndProbesByTheStoredWidth) {
  constexpr uint32_t h = kI2cHandle;
  Adapter adapter = this->plug_and_open(h);
  EXPECT_EQ(IIC_GetSlaveAddr(h, 0, nullptr), -5);
  IIC_CONFIG config{100000, 0, 1, 7, 0, 0, {}};
  ASSERT_EQ(IIC_Init(h, 0, &config), 0);
  TypeParam::clear_transfers(h);
  uint16_t found[1024] = {};
  ASSERT_EQ(IIC_GetSlaveAddr(h, 0, found), 3);
  EXPECT_EQ(I2cBytes(found, found + 4), (I2cBytes{0x48, 0x50, 0x54, 0}));
  auto probes = this->bulk_on(h, 0x01);
  ASSERT_EQ(probes.size(), 128u);
  EXPECT_EQ(probes[0x7F].data, (I2cBytes{0, 0, 7, 1, 0, 0, 0, 8, 0, 0, 0x7F, 0, 0, 0, 5, 0}));
  config.AddrBits = 8;
  ASSERT_EQ(IIC_Init(h, 0, &config), 0);
  TypeParam::clear_transfers(h);
  EXPECT_EQ(IIC_GetSlaveAddr(h, 0, found), 3);
  EXPECT_EQ(this->requests_sent(kI2cHandle), 1024u);
  // The store holds 12 channels: an adapter that takes channel 12 leaves it unremembered.
  always_reply(*adapter, 0x0700, {});
  config.AddrBits = 7;
  ASSERT_EQ(IIC_Init(h, 12, &config), 0);
  TypeParam::clear_transfers(h);
  IIC_GetSlaveAddr(h, 12, found);
  EXPECT_EQ(this->requests_sent(kI2cHandle), 1024u);
  // the adapter is gone: the first probe that cannot be sent ends the scan with its code
  TypeParam::unplug(h);
  EXPECT_EQ(IIC_GetSlaveAddr(h, 0, found), -2);
}

// The PEC the adapter appends is the CRC-8 of every byte of the transaction, address included; a
// device's wrong PEC is status 5 and a corrupted one from the master is not acknowledged.
TYPED_TEST_P(I2cCases, PecIsCheckedInBothDirections) {
  constexpr uint32_t h = kI2cHandle;
  ASSERT_EQ(crc8_by_bits({'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0xF4);  // CRC-8 check
  Adapter adapter = this->plug_and_open(h);
  auto& channel = adapter->state<sim::I2cModel>().channel(0);
  ASSERT_EQ(SMBUS_WriteWordProtocol(h, 0, 0x48, 0x12, 0xABCD, 1), 0);
  EXPECT_EQ(last_on_bus(*adapter),
            (I2cBytes{0x90, 0x12, 0xAB, 0xCD, crc8_by_bits({0x90, 0x12, 0xAB, 0xCD})}));
  EXPECT_EQ(channel.smbus->word_register(0x12), 0xCDAB);  // the device reads SMBus order

  uint16_t word = 0;
  ASSERT_EQ(SMBUS_ReadWordProtocol(h, 0, 0x48, 0x12, &word, 1), 0);
  EXPECT_EQ(word, 0xABCD);  // high byte first back again
  EXPECT_EQ(last_on_bus(*adapter),
            (I2cBytes{0x90, 0x12, 0x91, 0xAB, 0xCD, crc8_by_bits({0x90, 0x12, 0x91, 0xAB, 0xCD})}));

  channel.corrupt_next_pec = true;
  EXPECT_EQ(SMBUS_WriteWordProtocol(h, 0, 0x48, 0x12, 0x1111, 1), VARNEL_IIC_STATUS_DATA_NACK);
  EXPECT_EQ(channel.smbus->word_register(0x12), 0xCDAB);
  channel.smbus->corrupt_next_pec();
  word = 0x5555;
  EXPECT_EQ(SMBUS_ReadWordProtocol(h, 0, 0x48, 0x12, &word, 1), VARNEL_IIC_STATUS_PEC_ERROR);
  EXPECT_EQ(word, 0x5555);
  EXPECT_EQ(SMBUS_ReadWordProtocol(h, 0, 0x48, 0x12, &word, 0), 0);  // no PEC: none checked
  EXPECT_EQ(word, 0xABCD);
}

// Blocks of 0 and 32 bytes go through; 33 is refused before sending, and a device's 33-byte block
// is -4 with nothing written past the 32 bytes a caller provides.
TYPED_TEST_P(I2cCases, SmbusBlocksOfZeroThirtyTwoAndThirtyThreeBytes) {
  constexpr uint32_t h = kI2cHandle;
  Adapter adapter = this->plug_and_open(h);
  I2cBytes data(33);
  std::iota(data.begin(), data.end(), uint8_t(1));
  uint8_t in[40];
  std::fill(std::begin(in), std::end(in), 0xEE);
  uint32_t count = 99;
  for (uint32_t n : {0u, 32u}) {
    ASSERT_EQ(SMBUS_BlockWrite(h, 0, 0x48, 0x22, data.data(), n, 1), 0);
    ASSERT_EQ(SMBUS_BlockRead(h, 0, 0x48, 0x22, in, &count, 1), 0);
    EXPECT_EQ(count, n);
    EXPECT_EQ(I2cBytes(in, in + n), I2cBytes(data.begin(), data.begin() + n));
  }
  TypeParam::clear_transfers(h);
  EXPECT_EQ(SMBUS_BlockWrite(h, 0, 0x48, 0x22, data.data(), 33, 0), -7);
  EXPECT_EQ(SMBUS_BlockProcessCall(h, 0, 0x48, 0x31, data.data(), 33, in, &count, 0), -7);
  EXPECT_EQ(this->requests_sent(kI2cHandle), 0u);
  adapter->state<sim::I2cModel>().channel(0).smbus->block_register(0x22) = data;
  std::fill(std::begin(in), std::end(in), 0xEE);
  EXPECT_EQ(SMBUS_BlockRead(h, 0, 0x48, 0x22, in, &count, 0), -4);
  EXPECT_EQ(count, 32u);
  EXPECT_EQ(I2cBytes(in, in + 40), I2cBytes(40, 0xEE));
}

TYPED_TEST_P(I2cCases, BadInputIsRefusedBeforeAnythingIsSent) {
  constexpr uint32_t h = kI2cHandle;
  this->plug_and_open(h);
  uint8_t b[4] = {};
  uint16_t word = 0;
  uint32_t count = 0;
  std::function<int()> refused[] = {
      [&] { return IIC_Init(h, 0, nullptr); },
      [&] { return IIC_WriteBytes(h, 0, 0x50, nullptr, 1, 10); },
      [&] { return IIC_WriteBytes(h, 0, 0x50, b, -1, 10); },
      [&] { return IIC_WriteBytes(h, 0, 0x400, b, 1, 10); },
      [&] { return IIC_ReadBytes(h, 0, 0x50, nullptr, 4, 10); },
      [&] { return IIC_ReadBytes(h, 0, 0x50, b, VARNEL_IIC_MAX_LENGTH + 1, 10); },
      [&] { return IIC_WriteReadBytes(h, 0, 0x50, b, 1, nullptr, 1, 10); },
      [&] { return IIC_ReadBytesOfEvent(h, 0, 0x50, b, -4, 10, 0, 0); },
      [&] { return IIC_WriteBytesOfEvent(h, 0, 0x400, b, 1, 10, 0, 0); },
      [&] { return IIC_WriteReadBytesOfEvent(h, 0, 0x400, b, 1, b, 1, 10, 0, 0); },
      [&] { return IIC_BlockWriteBytes(h, 0, 0x50, b, 0x10000, 0x10000, 0); },
      [&] { return IIC_BlockWriteBytes(h, 0, 0x50, b, -1, 0, 0); },  // no bytes, still a bad size
      [&] { return IIC_BlockReadBytes(h, 0, 0x50, b, 0, -1, 0); },
      [&] { return IIC_BlockReadBytes(h, 0, 0x50, nullptr, 2, 2, 0); },
      [&] { return IIC_SlaveWriteBytes(h, 0, nullptr, 2, 0); },
      [&] { return IIC_SlaveReadBytes(h, 0, nullptr, 0); },
      [&] { return SMBUS_WriteByte(h, 0, 0x80, 1, 0); },
      [&] { return SMBUS_ReadByte(h, 0, 0x48, nullptr, 0); },
      [&] { return SMBUS_ReadWordProtocol(h, 0, 0x48, 0x10, nullptr, 0); },
      [&] { return SMBUS_ProcessCall(h, 0, 0x48, 0x30, 1, nullptr, 0); },
      [&] { return SMBUS_BlockRead(h, 0, 0x48, 0x20, b, nullptr, 0); },
      [&] { return SMBUS_BlockWrite(h, 0, 0x48, 0x20, nullptr, 1, 0); },
  };
  for (auto& call : refused) EXPECT_EQ(call(), -7);
  EXPECT_EQ(this->requests_sent(kI2cHandle), 0u);
  EXPECT_EQ(SMBUS_ReadWordProtocol(0x0BADF00D, 0, 0x48, 0x10, &word, 0), -2);
  EXPECT_EQ(SMBUS_BlockRead(0x0BADF00D, 0, 0x48, 0x20, b, &count, 0), -2);
  EXPECT_EQ(IIC_SlaveWriteRemain(0x0BADF00D, 0), -2);
}

// Replies of the wrong length, of another command or refused give -4 and leave the caller's memory
// alone; a refused IIC_Init keeps the stored width.
TYPED_TEST_P(I2cCases, FailedRepliesGiveMinus4) {
  constexpr uint32_t h = kI2cHandle;
  using Kind = sim::ReplyFault::Kind;
  uint8_t in[2] = {7, 7};
  uint16_t word = 7;
  uint32_t count = 7;
  IIC_CONFIG seven{100000, 0, 1, 7, 0, 0, {}}, ten = seven;
  ten.AddrBits = 10;
  struct Case {
    sim::ReplyFault fault;
    std::function<int()> call;
  } cases[] = {
      {{Kind::kAnnounceLength, 2, 0x702}, [&] { return IIC_ReadBytes(h, 0, 0x50, in, 2, 10); }},
      {{Kind::kOtherCommand, 0x701, 0x703},
       [&] { return SMBUS_ReadWordProtocol(h, 0, 0x48, 0x10, &word, 0); }},
      {{Kind::kAnnounceLength, 0, 0x708},
       [&] { return SMBUS_BlockRead(h, 0, 0x48, 0x20, in, &count, 0); }},
      {{Kind::kAnnounceLength, 3, 0x706}, [&] { return IIC_SlaveWriteRemain(h, 0); }},
      {{Kind::kAnnounceLength, 1, 0x700}, [&] { return IIC_Init(h, 0, &ten); }},
  };
  for (auto& c : cases) {
    Adapter adapter = this->fresh_adapter(h);
    if (c.fault.command == 0x700) {
      ASSERT_EQ(IIC_Init(h, 0, &seven), 0);
    }
    adapter->faults().next_reply(c.fault);
    EXPECT_EQ(c.call(), -4) << std::hex << c.fault.command;
  }
  EXPECT_EQ(I2cBytes(in, in + 2), (I2cBytes{7, 7}));
  EXPECT_EQ(word, 7);
  EXPECT_EQ(count, 7u);
  TypeParam::clear_transfers(h);
  uint16_t found[1024];
  IIC_GetSlaveAddr(h, 0, found);
  EXPECT_EQ(this->requests_sent(kI2cHandle), 128u);
}

// A slave channel: what the host loads a master reads, what a master writes the host reads.
TYPED_TEST_P(I2cCases, SlaveBuffersMeetAMasterOnTheBus) {
  constexpr uint32_t h = kI2cHandle;
  Adapter adapter = this->plug_and_open(h);
  auto& model = adapter->state<sim::I2cModel>();
  IIC_CONFIG slave{100000, 0x33, 0, 7, 0, 0, {}};
  ASSERT_EQ(IIC_Init(h, 1, &slave), 0);
  I2cBytes load{1, 2, 3, 4, 5};
  EXPECT_EQ(IIC_SlaveWriteBytes(h, 1, load.data(), 5, 100), 5);
  EXPECT_EQ(model.external_master_read(1, 2), (I2cBytes{1, 2}));
  EXPECT_EQ(IIC_SlaveWriteRemain(h, 1), 3);
  model.external_master_write(1, {0xCA, 0xFE, 0x01});
  uint8_t in[VARNEL_IIC_SLAVE_BUFFER_SIZE] = {};
  EXPECT_EQ(IIC_SlaveReadBytes(h, 1, in, 100), 3);
  EXPECT_EQ(I2cBytes(in, in + 3), (I2cBytes{0xCA, 0xFE, 0x01}));
  EXPECT_EQ(IIC_SlaveReadBytes(h, 1, in, 0), 0);
  EXPECT_EQ(IIC_WriteBytes(h, 1, 0x50, in, 1, 10), VARNEL_IIC_STATUS_NOT_MASTER);
}

// Transfers wait 5 s for the adapter's answer, not the ordinary 3 s: 3.3 s late is in time; the
// slave calls wait their time-out and 100 ms more.
TYPED_TEST_P(I2cCases, SlowAnswersAreWaitedForAsLongAsTheCallAllows) {
  constexpr uint32_t h = kI2cHandle;
  Adapter adapter = this->plug_and_open(h);
  uint8_t in[32];
  uint32_t count = 0;
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 3300, 0x0703});
  EXPECT_EQ(IIC_WriteReadBytes(h, 0, 0x50, in, 1, in, 2, 10), 0);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 3300, 0x0708});
  EXPECT_EQ(SMBUS_BlockRead(h, 0, 0x48, 0x20, in, &count, 0), 0);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 3050, 0x0704});
  EXPECT_EQ(IIC_SlaveWriteBytes(h, 0, in, 1, 3000), 0);  // channel 0 is a master: takes nothing
}

REGISTER_TYPED_TEST_SUITE_P(I2cCases, SlowAnswersAreWaitedForAsLongAsTheCallAllows,
                            EachCallSendsItsLayoutBigEndian, EepromPageWriteWrapsWithinItsPage,
                            StatusBytesPassThroughAndStopTheCopy,
                            ScanFindsTheDevicesAndProbesByTheStoredWidth,
                            PecIsCheckedInBothDirections,
                            SmbusBlocksOfZeroThirtyTwoAndThirtyThreeBytes,
                            BadInputIsRefusedBeforeAnythingIsSent, FailedRepliesGiveMinus4,
                            SlaveBuffersMeetAMasterOnTheBus);

}  // namespace testing_support
