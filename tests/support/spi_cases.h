// SPI over a USB layer (see wire_fixture.h): the bytes of each request against the written
// layout, bit texts packed most significant bit first, and the SPI NOR flash seen through the
// calls (page program wrap, erase sequences, a flash that stays busy).
#pragma once

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "sim/families/spi.h"
#include "support/wire_fixture.h"

namespace testing_support {

constexpr uint32_t kSpiHandle = 0x12345678;
using SpiBytes = std::vector<uint8_t>;

// The description of a common SPI NOR flash: write enable 06, read 03, fast read 0B, page program
// 02, identification 9F, write disable 04, 4 KiB sector erase 20, chip erase C7, status 05.
inline SPI_FLASH_CONFIG nor_flash() {
  SPI_FLASH_CONFIG f{};
  const uint8_t commands[14] = {0x06, 0x03, 0x0B, 0x02, 0x9F, 0x04, 0x20,
                                0xC7, 0,    0,    0,    0,    0,    0x05};
  std::copy(commands, commands + 14, f.Commands);
  f.Param64 = 1 << 20;
  f.Param32 = 256;
  return f;
}

template <class Layer>
class SpiCases : public WireTest<Layer> {
 protected:
  sim::SpiModel::Channel& channel(Adapter& adapter, int ch = 0) {
    return sim::spi_model(*adapter).channels[size_t(ch)];
  }
};
TYPED_TEST_SUITE_P(SpiCases);

// Each request: the command and its length big-endian, the channel, then the fields big-endian.
TYPED_TEST_P(SpiCases, EachCallSendsItsLayoutBigEndian) {
  constexpr uint32_t h = kSpiHandle;
  uint8_t w[2] = {0xA1, 0xB2}, w4[4] = {0xA1, 0xB2, 0xC3, 0xD4}, ids[2] = {0x9F, 0x9F}, in[16],
          id[VARNEL_SPI_FLASH_ID_SIZE];
  char text[16];
  SPI_CONFIG config{1, 1, 0, 1, 0, 0, {9, 9}, 1000000};
  SPI_FLASH_CONFIG flash = nor_flash();
  flash.Param64 = 0x0102030405060708;
  SpiBytes flash_init = {0, 0, 2, 7, 0, 0, 0, 49, 0, 0x01, 0x31, 0x2D, 0x00};  // 20 MHz
  flash_init.insert(flash_init.end(), flash.Commands, flash.Commands + 31);
  flash_init.insert(flash_init.end(), {1, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 1, 0});  // byte 31: 0 -> 1
  struct Case {
    std::function<int()> call;
    SpiBytes wire;
  } cases[] = {
      // clang-format off
      // the two reserved bytes stay home
      {[&] { return SPI_Init(h, 1, &config); },
       {0, 0, 2, 0, 0, 0, 0, 11, 1, 1, 1, 0, 1, 0, 0, 0x00, 0x0F, 0x42, 0x40}},
      {[&] { return SPI_WriteBytes(h, 0, w, 2); }, {0, 0, 2, 1, 0, 0, 0, 3, 0, 0xA1, 0xB2}},
      {[&] { return SPI_WriteBytesAsync(h, 1, w, 1); }, {0, 0, 2, 2, 0, 0, 0, 2, 1, 0xA1}},
      {[&] { return SPI_ReadBytes(h, 0, in, 4); }, {0, 0, 2, 3, 0, 0, 0, 5, 0, 0, 0, 0, 4}},
      {[&] { return SPI_WriteReadBytes(h, 0, w, 1, in, 2, 0x10); },
       {0, 0, 2, 4, 0, 0, 0, 10, 0, 0, 0, 0, 2, 0, 0, 0, 0x10, 0xA1}},
      {[&] { return SPI_WriteBits(h, 0, "0110"); }, {0, 0, 2, 0x10, 0, 0, 0, 6, 0, 0, 0, 0, 4, 0x60}},
      {[&] { return SPI_WriteBits(h, 0, "101010101"); },
       {0, 0, 2, 0x10, 0, 0, 0, 7, 0, 0, 0, 0, 9, 0xAA, 0x80}},
      {[&] { return SPI_ReadBits(h, 1, text, 12); }, {0, 0, 2, 0x11, 0, 0, 0, 5, 1, 0, 0, 0, 12}},
      {[&] { return SPI_FlashInit(h, 0, 20000000, &flash); }, flash_init},
      {[&] { return SPI_FlashRead(h, 0, 0x012345, in, 16); },
       {0, 0, 2, 0x0A, 0, 0, 0, 9, 0, 0, 0x01, 0x23, 0x45, 0, 0, 0, 16}},
      {[&] { return SPI_FlashReadFast(h, 0, 0x10, in, 2); },
       {0, 0, 2, 0x0C, 0, 0, 0, 9, 0, 0, 0, 0, 0x10, 0, 0, 0, 2}},
      {[&] { return SPI_FlashEraseSector(h, 0, 0x1000, 2, 500); },
       {0, 0, 2, 0x0B, 0, 0, 0, 9, 0, 0, 0, 0x10, 0, 0, 0, 0, 2}},
      {[&] { return SPI_FlashWrite(h, 0, 0x20, w, 2); },
       {0, 0, 2, 0x09, 0, 0, 0, 7, 0, 0, 0, 0, 0x20, 0xA1, 0xB2}},
      {[&] { return SPI_FlashReadID(h, 0, id); }, {0, 0, 2, 0x08, 0, 0, 0, 1, 0}},
      // block fields (sizes and count u16, interval u32) before the event fields (pins u32, type
      // u8, wait u32)
      {[&] { return SPI_BlockWriteBytes(h, 0, w4, 2, 2, 0x100); },
       {0, 0, 2, 0x0D, 0, 0, 0, 13, 0, 0, 2, 0, 2, 0, 0, 1, 0, 0xA1, 0xB2, 0xC3, 0xD4}},
      {[&] { return SPI_BlockReadBytes(h, 1, in, 3, 2, 5); },
       {0, 0, 2, 0x0E, 0, 0, 0, 9, 1, 0, 3, 0, 2, 0, 0, 0, 5}},
      {[&] { return SPI_BlockWriteReadBytes(h, 0, ids, 1, in, 3, 2, 0); },
       {0, 0, 2, 0x0F, 0, 0, 0, 13, 0, 0, 1, 0, 3, 0, 2, 0, 0, 0, 0, 0x9F, 0x9F}},
      {[&] { return SPI_WriteBytesOfEvent(h, 0, w, 1, 0x1, 1, 50); },
       {0, 0, 2, 0x13, 0, 0, 0, 11, 0, 0, 0, 0, 1, 1, 0, 0, 0, 50, 0xA1}},
      {[&] { return SPI_ReadBytesOfEvent(h, 0, in, 2, 0x10, 0, 7); },
       {0, 0, 2, 0x14, 0, 0, 0, 14, 0, 0, 0, 0, 2, 0, 0, 0, 0x10, 0, 0, 0, 0, 7}},
      {[&] { return SPI_WriteReadBytesOfEvent(h, 0, w, 1, in, 1, 3, 0x2, 2, 9); },
       {0, 0, 2, 0x15, 0, 0, 0, 19, 0, 0, 0, 0, 1, 0, 0, 0, 3, 0, 0, 0, 2, 2, 0, 0, 0, 9, 0xA1}},
      {[&] { return SPI_BlockWriteBytesOfEvent(h, 0, w, 1, 2, 0, 1, 0, 5); },
       {0, 0, 2, 0x16, 0, 0, 0, 20, 0, 0, 1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 5, 0xA1, 0xB2}},
      {[&] { return SPI_BlockReadBytesOfEvent(h, 0, in, 1, 2, 0, 1, 0, 5); },
       {0, 0, 2, 0x17, 0, 0, 0, 18, 0, 0, 1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 5}},
      {[&] { return SPI_BlockWriteReadBytesOfEvent(h, 0, w, 1, in, 1, 1, 0, 1, 0, 5); },
       {0, 0, 2, 0x18, 0, 0, 0, 21, 0, 0, 1, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 5, 0xA1}},
      // clang-format on
  };
  this->plug_and_open(h);
  for (auto& c : cases) {
    EXPECT_EQ(c.call(), 0) << testing::PrintToString(c.wire);
    EXPECT_EQ(this->take_request(kSpiHandle), c.wire);
  }
  EXPECT_EQ(SpiBytes(id, id + 3), (SpiBytes{0xEF, 0x40, 0x14}));  // JEDEC identification
  // each block reaches the flash as a session of its own
  ASSERT_EQ(SPI_BlockWriteReadBytes(h, 0, ids, 1, in, 3, 2, 0), 0);
  EXPECT_EQ(SpiBytes(in, in + 6), (SpiBytes{0xEF, 0x40, 0x14, 0xEF, 0x40, 0x14}));
}

// Text bits: 0 and 1 only; a read unpacks most significant bit first.
TYPED_TEST_P(SpiCases, BitTextsArePackedAndUnpackedMostSignificantFirst) {
  constexpr uint32_t h = kSpiHandle;
  Adapter adapter = this->plug_and_open(h);
  char out[32] = "unchanged";
  EXPECT_EQ(SPI_WriteBits(h, 0, "01x0"), -5);
  EXPECT_EQ(SPI_WriteReadBits(h, 0, "0102", out), -5);
  EXPECT_EQ(this->requests_sent(kSpiHandle), 0u);
  EXPECT_STREQ(out, "unchanged");
  this->channel(adapter).read_pattern = {0xA5, 0x0F};
  ASSERT_EQ(SPI_ReadBits(h, 0, out, 12), 0);
  EXPECT_STREQ(out, "101001010000");
  ASSERT_EQ(SPI_WriteReadBits(h, 0, "1100101", out), 0);  // the wire loops back
  EXPECT_STREQ(out, "1100101");
  ASSERT_EQ(SPI_ReadBits(h, 0, out, 0), 0);
  EXPECT_STREQ(out, "");
}

// A page program clears bits only and wraps within its 256-byte page; the firmware's flash
// write splits at page ends, so the same bytes land in order.
TYPED_TEST_P(SpiCases, FlashProgramsOnlyClearBitsAndWrapAtThePageEnd) {
  constexpr uint32_t h = kSpiHandle;
  Adapter adapter = this->plug_and_open(h);
  SPI_FLASH_CONFIG flash = nor_flash();
  ASSERT_EQ(SPI_FlashInit(h, 0, 1000000, &flash), 0);
  uint8_t enable = 0x06, program[8] = {0x02, 0x00, 0x00, 0xFE, 1, 2, 3, 4};
  ASSERT_EQ(SPI_WriteBytes(h, 0, &enable, 1), 0);
  ASSERT_EQ(SPI_WriteBytes(h, 0, program, 8), 0);
  auto flash_bytes = [&] { return this->channel(adapter).flash.contents(); };
  auto memory = flash_bytes();
  EXPECT_EQ(SpiBytes(memory.begin() + 0xFE, memory.begin() + 0x102), (SpiBytes{1, 2, 0xFF, 0xFF}));
  EXPECT_EQ(SpiBytes(memory.begin(), memory.begin() + 2), (SpiBytes{3, 4}));
  uint8_t data[4] = {0xF0, 0x0F, 0xAA, 0x55};
  ASSERT_EQ(SPI_FlashWrite(h, 0, 0x1FE, data, 4), 0);
  ASSERT_EQ(SPI_FlashWrite(h, 0, 0x1FE, data + 1, 1), 0);  // 0x0F over 0xF0: 0x00
  uint8_t back[4];
  ASSERT_EQ(SPI_FlashRead(h, 0, 0x1FE, back, 4), 0);
  EXPECT_EQ(SpiBytes(back, back + 4), (SpiBytes{0x00, 0x0F, 0xAA, 0x55}));
  ASSERT_EQ(SPI_FlashReadFast(h, 0, 0x200, back, 2), 0);
  EXPECT_EQ(SpiBytes(back, back + 2), (SpiBytes{0xAA, 0x55}));
}

// The sessions a call makes on the flash, status reads left out.
template <class Call>
std::vector<SpiBytes> flash_sessions(sim::SpiModel::Channel& ch, Call call, int expected = 0) {
  ch.sessions.clear();
  EXPECT_EQ(call(), expected);
  std::vector<SpiBytes> seen;
  for (auto& s : ch.sessions)
    if (s[0] != 0x05) seen.push_back(s);
  return seen;
}

// The host's erases: status (05) until idle, write enable (06), the erase, status until done.
TYPED_TEST_P(SpiCases, ErasesEnableWritingFirstAndPollTheBusyBit) {
  constexpr uint32_t h = kSpiHandle;
  Adapter adapter = this->plug_and_open(h);
  EXPECT_EQ(SPI_FlashEraseChip(h, 1, 1000), -5);  // no description for channel 1 yet
  SPI_FLASH_CONFIG flash = nor_flash();
  ASSERT_EQ(SPI_FlashInit(h, 0, 1000000, &flash), 0);
  uint8_t data[2] = {0, 0};
  ASSERT_EQ(SPI_FlashWrite(h, 0, 0x0FF0, data, 2), 0);
  ASSERT_EQ(SPI_FlashWrite(h, 0, 0x1010, data, 2), 0);
  auto& ch = this->channel(adapter);
  // touches sectors 0x0000 and 0x1000
  EXPECT_EQ(flash_sessions(ch, [&] { return SPI_FlashErase(h, 0, 0x0FF8, 0x20, 1000); }),
            (std::vector<SpiBytes>{{0x06}, {0x20, 0, 0, 0}, {0x06}, {0x20, 0, 0x10, 0}}));
  EXPECT_EQ(ch.sessions.front(), (SpiBytes{0x05}));
  EXPECT_EQ(ch.sessions.back(), (SpiBytes{0x05}));
  auto memory = ch.flash.contents();
  EXPECT_EQ(memory[0x0FF0], 0xFF);
  EXPECT_EQ(memory[0x1010], 0xFF);
  ASSERT_EQ(SPI_FlashEraseChip(h, 0, 1000), 0);
  ch.flash.set_stuck_busy(true);
  EXPECT_EQ(SPI_FlashEraseChip(h, 0, 50), -6);
  EXPECT_EQ(SPI_FlashErase(h, 0, 0, 1, 50), -6);
}

// Above 16 MiB the JEDEC 4-byte-address commands: 13 read, 0C fast read (a dummy byte), 12 page
// program, 21 4 KiB sector erase; a description without them is refused before anything is sent.
TYPED_TEST_P(SpiCases, FlashAbove16MiBTakesTheFourByteCommandsOrIsRefused) {
  constexpr uint32_t h = kSpiHandle;
  Adapter adapter = this->plug_and_open(h);
  auto& ch = this->channel(adapter);
  ch.flash.resize(32 << 20);
  SPI_FLASH_CONFIG flash;
  ASSERT_EQ(VARNEL_SPI_NorFlashConfig(&flash, 32 << 20), 0);
  ASSERT_EQ(SPI_FlashInit(h, 0, 1000000, &flash), 0);
  uint8_t zeros[2] = {0, 0}, in[4];
  ASSERT_EQ(SPI_FlashWrite(h, 0, 0x10, zeros, 2), 0);  // must survive the erases above 16 MiB
  using Sessions = std::vector<SpiBytes>;
  struct Case {
    std::function<int()> call;
    Sessions sessions;
  } cases[] = {
      // clang-format off
      {[&] { return SPI_FlashWrite(h, 0, 0x01FFFFFE, zeros, 2); },
       {{0x06}, {0x12, 0x01, 0xFF, 0xFF, 0xFE, 0, 0}}},
      {[&] { return SPI_FlashRead(h, 0, 0x01FFFFFC, in, 4); }, {{0x13, 0x01, 0xFF, 0xFF, 0xFC}}},
      {[&] { return SPI_FlashReadFast(h, 0, 0x01000000, in, 2); },
       {{0x0C, 0x01, 0x00, 0x00, 0x00, 0x00}}},
      {[&] { return SPI_FlashErase(h, 0, 0x01FFF000, 4096, 1000); },
       {{0x06}, {0x21, 0x01, 0xFF, 0xF0, 0x00}}},
      {[&] { return SPI_FlashEraseSector(h, 0, 0x01000000, 1, 500); },
       {{0x06}, {0x21, 0x01, 0x00, 0x00, 0x00}}},
      // clang-format on
  };
  for (auto& c : cases)
    EXPECT_EQ(flash_sessions(ch, c.call), c.sessions) << testing::PrintToString(c.sessions);
  auto memory = ch.flash.contents();
  EXPECT_EQ(SpiBytes(memory.begin() + 0x10, memory.begin() + 0x12), SpiBytes(2, 0));
  EXPECT_EQ(SpiBytes(memory.end() - 2, memory.end()), SpiBytes(2, 0xFF));  // written, then erased

  SPI_FLASH_CONFIG three_byte_only = nor_flash();
  three_byte_only.Param64 = 32 << 20;
  struct Refusal {
    SPI_FLASH_CONFIG* flash;
    std::function<int()> call;
  } refusals[] = {
      {&flash, [&] { return SPI_FlashErase(h, 0, 0x02000000, 1, 1000); }},  // past the flash
      {&flash, [&] { return SPI_FlashRead(h, 0, 0x01FFFFFE, in, 4); }},
      {&flash, [&] { return SPI_FlashEraseSector(h, 0, 0x01FFF000, 2, 500); }},
      {&three_byte_only, [&] { return SPI_FlashErase(h, 0, 0x00FFF000, 0x2000, 1000); }},
      {&three_byte_only, [&] { return SPI_FlashWrite(h, 0, 0x00FFFFFF, zeros, 2); }},
      {&three_byte_only, [&] { return SPI_FlashRead(h, 0, 0x01000000, in, 1); }},
  };
  for (auto& r : refusals) {
    ASSERT_EQ(SPI_FlashInit(h, 0, 1000000, r.flash), 0);
    TypeParam::clear_transfers(h);
    EXPECT_EQ(r.call(), -7) << &r - refusals;
    EXPECT_EQ(this->requests_sent(kSpiHandle), 0u) << &r - refusals;
  }
  EXPECT_EQ(flash_sessions(ch, [&] { return SPI_FlashErase(h, 0, 0x00FFF000, 1, 1000); }),
            (Sessions{{0x06}, {0x20, 0xFF, 0xF0, 0x00}}));
}

// Two threads erasing one flash: each erase keeps its write enable, erase and polling together,
// so every erase has its latch and every sector comes back erased.
TYPED_TEST_P(SpiCases, ErasesFromTwoThreadsDoNotInterleave) {
  constexpr uint32_t h = kSpiHandle;
  Adapter adapter = this->plug_and_open(h);
  SPI_FLASH_CONFIG flash = nor_flash();
  ASSERT_EQ(SPI_FlashInit(h, 0, 1000000, &flash), 0);
  constexpr uint32_t kSectors = 20;
  SpiBytes zeros(kSectors * 2 * 4096, 0);
  ASSERT_EQ(SPI_FlashWrite(h, 0, 0, zeros.data(), int32_t(zeros.size())), 0);
  auto& ch = this->channel(adapter);
  ch.flash.set_sector_erase_us(2000);  // both threads wait for the flash, then race
  ch.sessions.clear();
  std::atomic<int> ready{0};
  auto erase_every_other = [&](uint32_t first) {
    for (++ready; ready < 2;) {  // both start together
    }
    for (uint32_t i = 0; i < kSectors; ++i)
      EXPECT_EQ(SPI_FlashErase(h, 0, (first + 2 * i) * 4096, 4096, 1000), 0);
  };
  std::thread a(erase_every_other, 0), b(erase_every_other, 1);
  a.join();
  b.join();
  std::vector<uint8_t> order;
  for (auto& s : ch.sessions)
    if (s[0] != 0x05) order.push_back(s[0]);
  EXPECT_EQ(order.size(), 4 * kSectors);
  size_t split = 0;  // erases whose write enable and erase are not next to each other
  for (size_t i = 0; i + 1 < order.size(); i += 2)
    split += SpiBytes{order[i], order[i + 1]} != SpiBytes{0x06, 0x20};
  EXPECT_EQ(split, 0u);
  auto memory = ch.flash.contents();
  EXPECT_EQ(SpiBytes(memory.begin(), memory.begin() + ptrdiff_t(zeros.size())),
            SpiBytes(zeros.size(), 0xFF));
}

// An event that never comes is -6; a reply of the status byte and no data -4; neither touches
// the caller's buffer.
TYPED_TEST_P(SpiCases, MissingEventsAndShortRepliesGiveTheirCodes) {
  constexpr uint32_t h = kSpiHandle;
  Adapter adapter = this->plug_and_open(h);
  uint8_t w[1] = {0xA1}, in[2] = {7, 7};
  this->channel(adapter).event_never = true;
  EXPECT_EQ(SPI_ReadBytesOfEvent(h, 0, in, 2, 1, 0, 5), -6);
  EXPECT_EQ(SPI_BlockWriteBytesOfEvent(h, 0, w, 1, 1, 0, 1, 0, 5), -6);
  EXPECT_EQ(SpiBytes(in, in + 2), (SpiBytes{7, 7}));
  this->channel(adapter).event_never = false;
  adapter->faults().next_reply({sim::ReplyFault::Kind::kShort, 1, 0x214});
  EXPECT_EQ(SPI_ReadBytesOfEvent(h, 0, in, 2, 1, 0, 5), -4) << "the status byte and no data";
  EXPECT_EQ(SpiBytes(in, in + 2), (SpiBytes{7, 7}));
}

inline std::atomic<int64_t> spi_callback_bytes{0};
inline void count_spi_bytes(DevHandle, uint8_t, uint8_t*, int32_t n) {
  spi_callback_bytes += n;
}

// The virtual master clocks in a running counter: what the host gets must run on without a gap.
inline bool runs_on(const SpiBytes& bytes, uint8_t first) {
  for (size_t i = 0; i < bytes.size(); ++i)
    if (bytes[i] != uint8_t(first + i)) return false;
  return true;
}

TYPED_TEST_P(SpiCases, SlaveSideReadsTheMastersBytesInOrderOnceOrAsAStream) {
  constexpr uint32_t h = kSpiHandle;
  Adapter adapter = this->plug_and_open(h);
  uint8_t load[3] = {1, 2, 3};
  EXPECT_EQ(SPI_SlaveWriteBytes(h, 0, load, 3, 100), 3);
  EXPECT_EQ(this->take_request(kSpiHandle),
            (SpiBytes{0, 0, 2, 5, 0, 0, 0, 8, 0, 0, 0, 0, 100, 1, 2, 3}));
  SpiBytes once(5000);
  ASSERT_EQ(SPI_SlaveReadBytes(h, 0, once.data(), 5000, 0), 5000);  // 5 ms of the master's bytes
  EXPECT_TRUE(runs_on(once, once[0]));
  EXPECT_EQ(this->bulk_on(h, 0x01).back().data, (SpiBytes{0, 0, 2, 0x26, 0, 0, 0, 1, 0}));

  ASSERT_EQ(SPI_SlaveContinueRead(h, 1, nullptr), 0);
  SpiBytes got;
  uint8_t piece[4096];
  for (int i = 0; i < 400 && got.size() < 20000; ++i) {
    const int n = SPI_SlaveGetBytes(h, 1, piece, sizeof piece);
    got.insert(got.end(), piece, piece + std::max(n, 0));
    if (n <= 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_GE(got.size(), 20000u);
  EXPECT_TRUE(runs_on(got, got[0]));
  EXPECT_EQ(SPI_SlaveContinueReadStop(h, 1), 0);
  while (SPI_SlaveGetBytes(h, 1, piece, sizeof piece) > 0) {
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(SPI_SlaveGetBytes(h, 1, piece, sizeof piece), 0);  // stopped: nothing more comes
  EXPECT_EQ(VARNEL_SPI_SlaveDropped(h, 1), 0);

  spi_callback_bytes = 0;
  ASSERT_EQ(SPI_SlaveContinueRead(h, 0, count_spi_bytes), 0);
  for (int i = 0; i < 400 && spi_callback_bytes < 10000; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_GE(spi_callback_bytes.load(), 10000);
  EXPECT_EQ(SPI_SlaveGetBytes(h, 0, piece, sizeof piece), 0);  // the callback took them all
  // the adapter goes away mid-stream: the stream ends by itself, nothing is left running
  TypeParam::unplug(h);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const int64_t settled = spi_callback_bytes;
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(spi_callback_bytes.load(), settled);
}

TYPED_TEST_P(SpiCases, BadInputAndBadRepliesGiveTheirCodes) {
  constexpr uint32_t h = kSpiHandle;
  Adapter adapter = this->plug_and_open(h);
  uint8_t b[4] = {7, 7, 7, 7};
  std::function<int()> refused[] = {
      [&] { return SPI_Init(h, 0, nullptr); },
      [&] { return SPI_WriteBytes(h, 0, nullptr, 1); },
      [&] { return SPI_ReadBytes(h, 0, b, -1); },
      [&] { return SPI_ReadBytes(h, 0, b, VARNEL_SPI_MAX_LENGTH + 1); },
      [&] { return SPI_WriteReadBytes(h, 0, b, 1, nullptr, 1, 0); },
      [&] { return SPI_WriteBits(h, 0, nullptr); },
      [&] { return SPI_ReadBits(h, 0, nullptr, 8); },
      [&] { return SPI_FlashInit(h, 0, 1, nullptr); },
      [&] { return SPI_FlashReadID(h, 0, nullptr); },
      [&] { return SPI_FlashRead(h, 0, 0, nullptr, 4); },
      [&] { return SPI_FlashErase(h, 0, 0, -1, 10); },
      [&] { return SPI_FlashEraseSector(h, 0, 0, -1, 10); },
      [&] { return SPI_WriteReadBits(h, 0, "01", nullptr); },
  };
  for (auto& call : refused) EXPECT_EQ(call(), -7);
  EXPECT_EQ(this->requests_sent(kSpiHandle), 0u);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kAnnounceLength, 2, 0x203});
  EXPECT_EQ(SPI_ReadBytes(h, 0, b, 4), -4);
  EXPECT_EQ(SpiBytes(b, b + 4), SpiBytes(4, 7));
  EXPECT_EQ(SPI_WriteBytes(h, 2, b, 1), -4);       // no channel 2
  EXPECT_EQ(SPI_FlashRead(h, 0, 0, b, 4), -4);     // no flash description on the adapter yet
  EXPECT_EQ(SPI_WriteBytes(h, 0, nullptr, 0), 0);  // nothing to send needs no buffer
  SPI_FLASH_CONFIG from_library, expected = nor_flash();
  ASSERT_EQ(VARNEL_SPI_NorFlashConfig(&from_library, 1 << 20), 0);
  EXPECT_EQ(std::memcmp(&from_library, &expected, sizeof expected), 0);
  EXPECT_EQ(VARNEL_SPI_NorFlashConfig(nullptr, 1), -7);
  // identification: 1 to 8 bytes
  uint8_t id[VARNEL_SPI_FLASH_ID_SIZE];
  for (int length : {0, 9, 8}) {
    adapter->on(0x208, 0x208, [length](sim::VirtualAdapter&, const sim::Packet& request) {
      return std::optional<sim::Packet>(
          sim::reply_with(request.command, SpiBytes(size_t(length), 1)));
    });
    EXPECT_EQ(SPI_FlashReadID(h, 0, id), length == 8 ? 0 : -4) << length;
  }
  // an erase's answer may take the time-out and 3 s more
  SPI_FLASH_CONFIG flash = nor_flash();
  ASSERT_EQ(SPI_FlashInit(h, 0, 1000000, &flash), 0);
  adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 1000, 0x20B});
  EXPECT_EQ(SPI_FlashEraseSector(h, 0, 0, 1, 100), 0);
}

REGISTER_TYPED_TEST_SUITE_P(
    SpiCases, EachCallSendsItsLayoutBigEndian, BitTextsArePackedAndUnpackedMostSignificantFirst,
    FlashProgramsOnlyClearBitsAndWrapAtThePageEnd, ErasesEnableWritingFirstAndPollTheBusyBit,
    FlashAbove16MiBTakesTheFourByteCommandsOrIsRefused, ErasesFromTwoThreadsDoNotInterleave,
    MissingEventsAndShortRepliesGiveTheirCodes, SlaveSideReadsTheMastersBytesInOrderOnceOrAsAStream,
    BadInputAndBadRepliesGiveTheirCodes);

}  // namespace testing_support
