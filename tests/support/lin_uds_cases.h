// Diagnostic messages over LIN (see wire_fixture.h) against the virtual LIN control unit with NAD
// 10 on channel 0's bus: the request frames as the LIN diagnostic transport lays them out (NAD,
// PCI, data, FF padding), written out by hand; long messages both ways; each fault's code.
#pragma once

#include <future>
#include <numeric>

#include "sim/families/lin.h"
#include "support/lin_cases.h"

namespace testing_support {

// A fast bit rate keeps 700 frames in the adapter's real-time bus time short.
constexpr uint32_t kFastBaud = 1000000;

template <class Layer>
class LinUdsCases : public WireTest<Layer> {
 protected:
  LIN_UDS_ADDR addr{0x3C, 0x3D, 0x10, LIN_EX_CHECK_STD, 0};
  std::shared_ptr<sim::LinDiagnosticEcu> ecu;

  Adapter open() {
    Adapter adapter = this->plug_and_open(kLinHandle);
    EXPECT_EQ(LIN_EX_Init(kLinHandle, 0, kFastBaud, 1), 0);
    ecu = sim::lin_model(*adapter).ecus[0].front();
    Layer::clear_transfers(kLinHandle);
    return adapter;
  }
  // The Data bytes of every frame record in the requests of `command`, in order.
  std::vector<LinBytes> frames_sent(uint16_t command) {
    std::vector<LinBytes> out;
    for (auto& t : this->bulk_on(kLinHandle, 0x01)) {
      if ((t.data[2] << 8 | t.data[3]) != command) continue;
      for (size_t at = 9; at + 20 <= t.data.size(); at += 20)
        if (t.data[at + 4] == LIN_EX_MSG_TYPE_MW)  // master requests, not response reads
          out.emplace_back(t.data.begin() + long(at) + 9, t.data.begin() + long(at) + 17);
    }
    return out;
  }
  int commands(uint16_t command) {
    int n = 0;
    for (auto& t : this->bulk_on(kLinHandle, 0x01)) n += (t.data[2] << 8 | t.data[3]) == command;
    return n;
  }
  std::vector<uint8_t> exchange(std::vector<uint8_t> request, int32_t timeout_ms = 5000) {
    EXPECT_EQ(LIN_UDS_Request(kLinHandle, 0, &addr, request.data(), int32_t(request.size())), 0);
    std::vector<uint8_t> out(8192);
    const int n = VARNEL_LIN_UDS_ResponseN(kLinHandle, 0, &addr, out.data(), 8192, timeout_ms);
    out.resize(size_t(std::max(n, 0)));
    return out;
  }
};
TYPED_TEST_SUITE_P(LinUdsCases);

TYPED_TEST_P(LinUdsCases, RequestsBecomeTheFramesOfTheirLength) {
  this->open();
  EXPECT_EQ(this->exchange({0x22, 0xF1, 0x90, 1, 2, 3}).size(), 3u) << "7F 22 13: a bad length";
  EXPECT_EQ(this->frames_sent(0xF07),
            (std::vector<LinBytes>{{0x10, 0x06, 0x22, 0xF1, 0x90, 1, 2, 3}}));
  EXPECT_EQ(this->exchange({0x10, 0x03}), (LinBytes{0x50, 0x03, 0x00, 0x32, 0x01, 0xF4}))
      << "six bytes: the longest single frame";
  this->addr.CheckType = LIN_EX_CHECK_EXT;  // the frame comes back judged enhanced: as sent
  EXPECT_EQ(this->exchange({0x3E, 0x00}), (LinBytes{0x7E, 0x00}));
  this->addr.CheckType = LIN_EX_CHECK_STD;
  TypeParam::clear_transfers(kLinHandle);
  this->exchange({0x2E, 0x01, 0x00, 1, 2, 3, 4});
  EXPECT_EQ(this->frames_sent(0xF0C),
            (std::vector<LinBytes>{{0x10, 0x10, 7, 0x2E, 0x01, 0x00, 1, 2},
                                   {0x10, 0x21, 3, 4, 0xFF, 0xFF, 0xFF, 0xFF}}));
  LIN_EX_MSG raw[8];  // the request's two frames, then the read of its single-frame answer
  ASSERT_EQ(LIN_UDS_GetMsgFromUDSBuffer(kLinHandle, 0, raw, 8), 3);
  EXPECT_EQ(raw[1].Data[1], 0x21);
  EXPECT_EQ(raw[1].Tag, 0x10);
  EXPECT_EQ(raw[2].Data[1], 0x03);
  EXPECT_EQ(raw[2].Tag, 0x20);
  EXPECT_EQ(this->ecu->requests().back(), (LinBytes{0x2E, 0x01, 0x00, 1, 2, 3, 4}));

  // 5 + 69 x 6 bytes: 70 frames, a schedule of 64 and one of 6, the run count set once.
  TypeParam::clear_transfers(kLinHandle);
  std::vector<uint8_t> long_request(419);
  long_request[0] = 0x2E, long_request[1] = 0x01, long_request[2] = 0x00;
  this->exchange(long_request);
  EXPECT_EQ(this->frames_sent(0xF0C).size(), 70u);
  EXPECT_EQ(this->commands(0xF0C), 2);
  EXPECT_EQ(this->commands(0xF10), 1);
}

// 4095 bytes each way: a 12-bit first frame of FFF and consecutive frames numbered round and
// round; beyond 4095 the answer's first frame carries a 32-bit length.
TYPED_TEST_P(LinUdsCases, LongMessagesGoBothWaysWhole) {
  this->open();
  std::vector<uint8_t> write(5000);
  std::iota(write.begin(), write.end(), uint8_t(0));
  write[0] = 0x2E, write[1] = 0x01, write[2] = 0x00;
  EXPECT_EQ(this->exchange(write), (LinBytes{0x6E, 0x01, 0x00})) << "cut to 4095 bytes";
  EXPECT_EQ(this->ecu->requests().back(), LinBytes(write.begin(), write.begin() + 4095));
  uint8_t read_0100[] = {0x22, 0x01, 0x00};
  ASSERT_EQ(LIN_UDS_Request(kLinHandle, 0, &this->addr, read_0100, 3), 0);
  std::vector<uint8_t> read(4100, 0xEE);
  ASSERT_EQ(VARNEL_LIN_UDS_ResponseN(kLinHandle, 0, &this->addr, read.data(), 4100, 5000), 4095);
  EXPECT_EQ(read[4095], 0xEE) << "the last frame's padding stays out of the caller's buffer";
  read.resize(4095);
  EXPECT_EQ(LinBytes(read.begin() + 3, read.end()),
            LinBytes(write.begin() + 3, write.begin() + 4095));
  EXPECT_EQ(this->exchange(write), (LinBytes{0x6E, 0x01, 0x00}))
      << "the long answer's frames are not taken for the next request's";
  this->exchange({0x2E, 0x01, 0x01, 0xAB});
  read = this->exchange({0x22, 0x01, 0x00, 0x01, 0x01});
  ASSERT_EQ(read.size(), 4095u + 3) << "two identifiers: 4098 bytes";
  EXPECT_EQ(LinBytes(read.end() - 3, read.end()), (LinBytes{0x01, 0x01, 0xAB}));
}

TYPED_TEST_P(LinUdsCases, FaultsGiveTheirCodes) {
  Adapter adapter = this->open();
  std::vector<uint8_t> vin = {0x22, 0xF1, 0x90}, out(64);
  struct Case {
    void (*fault)(sim::LinDiagnosticEcu::Faults&);
    int result;
  } cases[] = {
      {[](auto& f) { f.wrong_sequence = true; }, -103},
      // a first frame with a bad checksum is not taken, and consecutive frames without one are
      // the tail of something else: nothing complete comes
      {[](auto& f) { f.bad_checksum = true; }, -101},
      {[](auto& f) { f.lose_frame = true; }, -101},  // the first frame never comes
      {[](auto& f) { f.silent = true; }, -101},
  };
  for (auto& c : cases) {
    this->ecu->faults = {};
    ASSERT_EQ(LIN_UDS_Request(kLinHandle, 0, &this->addr, vin.data(), 3), 0);
    c.fault(this->ecu->faults);
    EXPECT_EQ(VARNEL_LIN_UDS_ResponseN(kLinHandle, 0, &this->addr, out.data(), 64, 200), c.result);
  }
  this->ecu->faults = {};
  ASSERT_EQ(LIN_UDS_Request(kLinHandle, 0, &this->addr, vin.data(), 3), 0);
  EXPECT_EQ(VARNEL_LIN_UDS_ResponseN(kLinHandle, 0, &this->addr, out.data(), 10, 200), -109);
  EXPECT_EQ(LIN_UDS_Request(kLinHandle, 6, &this->addr, vin.data(), 3), -5);
  EXPECT_EQ(LIN_UDS_Request(kLinHandle, 0, nullptr, vin.data(), 3), -7);
  EXPECT_EQ(LIN_UDS_Request(kLinHandle, 0, &this->addr, vin.data(), 0), -7) << "no service";
  LIN_UDS_ADDR sleep = this->addr;
  sleep.NAD = 0;
  EXPECT_EQ(LIN_UDS_Request(kLinHandle, 0, &sleep, vin.data(), 3), -7) << "NAD 0 is for sleep";
  // The unit starts a long answer (20 bytes), gives it up and answers 7F 22 31: a new message.
  this->ecu->faults.stray_frames = {{0x10, 0x10, 0x14, 0x62, 0xF1, 0x90, 0x56, 0x41}};
  const std::vector<uint8_t> refused = this->exchange({0x22, 0x01, 0xFF}, 200);
  EXPECT_EQ(refused, (LinBytes{0x7F, 0x22, 0x31}));
  adapter->faults().next_reply({sim::ReplyFault::Kind::kShort, 10, 0xF07});
  EXPECT_EQ(LIN_UDS_Request(kLinHandle, 0, &this->addr, vin.data(), 3), -98);
}

// The boot loader with NAD 20 on channel 0's bus takes an Intel HEX file of this repository
// segment by segment; its flash must then hold the image's bytes and nothing else.
TYPED_TEST_P(LinUdsCases, BootLoaderReprogramsTheUnitFromAnImageFile) {
  Adapter adapter = this->open();
  auto boot = sim::lin_model(*adapter).ecus[0][1];
  ASSERT_EQ(USDLINBoot_Init(kLinHandle, 0, kFastBaud), 0);
  EXPECT_EQ(USDLINBoot_Start(kLinHandle, 0, 0x20, 0x1111, 1000), -10) << "a wrong key constant";
  ASSERT_EQ(USDLINBoot_Start(kLinHandle, 0, 0x20, 0xBEEF, 1000), 0);
  EXPECT_EQ(boot->boot().session(), 2);
  // the first seed, 1234, rotated left by 5 bits is 4682; XOR the wrong constant 1111: 5793
  EXPECT_EQ(boot->requests()[2], (LinBytes{0x27, 0x02, 0x57, 0x93}));

  std::vector<char> text(4096);
  const int length = VARNEL_hexfile_load_file_n(VARNEL_SOURCE_DIR "/tests/cli/data/gapped.hex",
                                                text.data(), text.size());
  ASSERT_GT(length, 0);
  HEXFILE_SEGMENT segments[4];
  const int n = hexfile_convert_ihx(text.data(), length, segments, 4, 1);
  ASSERT_EQ(n, 2);
  std::vector<uint8_t> expected(sim::LinBootServer::kFlashSize, 0xFF);
  for (int i = 0; i < n; ++i) {
    const HEXFILE_SEGMENT& seg = segments[i];
    ASSERT_EQ(USDLINBoot_Erase(kLinHandle, 0, 0x20, seg.StartAddr, seg.DataLen), 0) << i;
    ASSERT_EQ(USDLINBoot_WriteData(kLinHandle, 0, 0x20, seg.StartAddr, seg.pData, seg.DataLen), 0);
    std::copy_n(seg.pData, seg.DataLen, expected.begin() + seg.StartAddr);
  }
  hexfile_free_data(segments, 4);
  EXPECT_EQ(boot->boot().flash(), expected);

  // block length 12: 10 data bytes a transfer, so 25 bytes go as 10, 10 and 5 with counters 1-3
  boot->boot().block_length = 12;
  std::vector<uint8_t> data(25, 0x5A);
  ASSERT_EQ(USDLINBoot_Erase(kLinHandle, 0, 0x20, 0x1000, 25), 0);
  ASSERT_EQ(USDLINBoot_WriteData(kLinHandle, 0, 0x20, 0x1000, data.data(), 25), 0);
  const auto& heard = boot->requests();
  ASSERT_GE(heard.size(), 4u);
  for (size_t i = 0; i < 3; ++i) {
    const LinBytes& t = heard[heard.size() - 4 + i];
    EXPECT_EQ(t.size(), 2u + (i < 2 ? 10 : 5)) << i;
    EXPECT_EQ(t[1], i + 1);
  }
  // the last transfer, 36 03 and 5 bytes: 5 in the first frame, 2 and FF padding in the next
  const auto frames = this->frames_sent(0xF07);
  const auto first = std::find(frames.begin(), frames.end(),
                               LinBytes{0x20, 0x10, 0x07, 0x36, 0x03, 0x5A, 0x5A, 0x5A});
  ASSERT_NE(first, frames.end());
  EXPECT_EQ(first[1], (LinBytes{0x20, 0x21, 0x5A, 0x5A, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(USDLINBoot_MemCheck(kLinHandle, 0, 0x20, 0x12345678), 0);
  EXPECT_EQ(USDLINBoot_Erase(kLinHandle, 0, 0x20, 0x1FFF0, 0x100), -10) << "beyond the flash";
  ASSERT_EQ(USDLINBoot_ResetECU(kLinHandle, 0, 0x20), 0);
  EXPECT_EQ(boot->boot().session(), 1);
  boot->faults.silent = true;
  EXPECT_EQ(USDLINBoot_ResetECU(kLinHandle, 0, 0x20), -9);
  EXPECT_EQ(USDLINBoot_WriteData(kLinHandle, 0, 0x20, 0, data.data(), 25), -9)
      << "the silent unit does not answer the download";
}

// Every wait of the boot loader ends on the clock: a unit that answers each header with filler or
// flow control, an answer with a bad checksum (no answer), a unit silent after the switch to the
// programming session.
TYPED_TEST_P(LinUdsCases, BootLoaderWaitsEndOnTheClock) {
  Adapter adapter = this->open();
  auto boot = sim::lin_model(*adapter).ecus[0][1];
  ASSERT_EQ(USDLINBoot_Init(kLinHandle, 0, kFastBaud), 0);
  // Any NAD goes out as given: the wildcard 7F (the boot loader alone on the bus) and 00 too.
  auto& units = sim::lin_model(*adapter).ecus[0];
  units.erase(units.begin());
  TypeParam::clear_transfers(kLinHandle);
  EXPECT_EQ(USDLINBoot_ResetECU(kLinHandle, 0, 0x7F), 0) << "the boot loader answers";
  EXPECT_EQ(USDLINBoot_ResetECU(kLinHandle, 0, 0x00), -9) << "nobody answers 00";
  EXPECT_EQ(this->frames_sent(0xF07),
            (std::vector<LinBytes>{{0x7F, 0x02, 0x11, 0x01, 0xFF, 0xFF, 0xFF, 0xFF},
                                   {0x00, 0x02, 0x11, 0x01, 0xFF, 0xFF, 0xFF, 0xFF}}));

  for (uint8_t pci : {0xFF, 0x30}) {
    boot->faults.stuck_pci = pci;
    auto reset =
        std::async(std::launch::async, [] { return USDLINBoot_ResetECU(kLinHandle, 0, 0x20); });
    const bool ended = reset.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    boot->faults.stuck_pci.reset();  // a call that hangs ends now: the test fails, not hangs
    EXPECT_TRUE(ended) << int(pci);
    EXPECT_EQ(reset.get(), -9) << int(pci);
  }
  boot->faults.bad_checksum = true;  // on 51 01
  EXPECT_EQ(USDLINBoot_ResetECU(kLinHandle, 0, 0x20), -9);

  // A read after 10 02 takes the record's 14 ms on the bus and the wait between reads 10 ms: in a
  // time-out of 50 ms the reply to 10 02 and at most two more reads fit.
  boot->boot().silent_after_switch = 1000;
  TypeParam::clear_transfers(kLinHandle);
  EXPECT_EQ(USDLINBoot_Start(kLinHandle, 0, 0x20, 0xBEEF, 50), -11);
  int reads_after_switch = -1;
  for (auto& t : this->bulk_on(kLinHandle, 0x01)) {
    if ((t.data[2] << 8 | t.data[3]) != 0xF07) continue;
    const bool switch_request =
        t.data[9 + 9 + 1] == 0x02 && t.data[9 + 9 + 2] == 0x10 && t.data[9 + 9 + 3] == 0x02;
    if (switch_request)
      reads_after_switch = 0;
    else if (reads_after_switch >= 0 && t.data[9 + 4] == LIN_EX_MSG_TYPE_MR)
      ++reads_after_switch;
  }
  EXPECT_GE(reads_after_switch, 1);
  EXPECT_LE(reads_after_switch, 3);
}

// Security access with the target's own key routine, set per adapter and channel.
TYPED_TEST_P(LinUdsCases, BootLoaderUsesTheKeyRoutineSetForTheChannel) {
  Adapter adapter = this->open();
  auto boot = sim::lin_model(*adapter).ecus[0][1];
  const VARNEL_LIN_BOOT_KEY_ROUTINE by_sum = [](uint16_t seed, uint16_t constant) {
    return uint16_t(seed + constant);
  };
  boot->boot().key_routine = by_sum;
  ASSERT_EQ(USDLINBoot_Init(kLinHandle, 0, kFastBaud), 0);
  EXPECT_EQ(USDLINBoot_Start(kLinHandle, 0, 0x20, 0xBEEF, 1000), -10) << "the default routine";
  ASSERT_EQ(VARNEL_USDLINBoot_SetKeyRoutine(kLinHandle, 1, by_sum), 0);
  EXPECT_EQ(USDLINBoot_Start(kLinHandle, 0, 0x20, 0xBEEF, 1000), -10) << "set for channel 1";
  ASSERT_EQ(VARNEL_USDLINBoot_SetKeyRoutine(kLinHandle, 0, by_sum), 0);
  boot->boot().next_seed = 0x1234;
  EXPECT_EQ(USDLINBoot_Start(kLinHandle, 0, 0x20, 0xBEEF, 1000), 0);
  // the second unlock's seed is 1234 x 31 + 7 = 3453 (16 bits); 3453 + BEEF = F342
  EXPECT_EQ(boot->requests().back(), (LinBytes{0x27, 0x02, 0xF3, 0x42}));
  ASSERT_EQ(VARNEL_USDLINBoot_SetKeyRoutine(kLinHandle, 0, nullptr), 0);
  EXPECT_EQ(USDLINBoot_Start(kLinHandle, 0, 0x20, 0xBEEF, 1000), -10) << "the default again";
  EXPECT_EQ(VARNEL_USDLINBoot_SetKeyRoutine(kLinHandle, 8, by_sum), -7);
  ASSERT_EQ(VARNEL_USDLINBoot_SetKeyRoutine(kLinHandle, 1, nullptr), 0);
}

REGISTER_TYPED_TEST_SUITE_P(LinUdsCases, RequestsBecomeTheFramesOfTheirLength,
                            LongMessagesGoBothWaysWhole, FaultsGiveTheirCodes,
                            BootLoaderReprogramsTheUnitFromAnImageFile,
                            BootLoaderWaitsEndOnTheClock,
                            BootLoaderUsesTheKeyRoutineSetForTheChannel);

}  // namespace testing_support
