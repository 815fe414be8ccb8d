// Diagnostic messages over ISO 15765-2 against the virtual diagnostic ECU: the frames a request
// becomes (written out by hand from the frame definitions), flow control, reassembly and the
// result codes of each failure.
#include <numeric>

#include "sim/ecu/can_diag_ecu.h"
#include "wire/can_fixture.h"

using testing_support::CanTest;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint32_t kClassic = 0x12345670;
constexpr uint32_t kFd = 0x55000011;

class Uds : public CanTest {
 protected:
  // An adapter on a 500 kbit/s bus (2 Mbit/s data phase) with the ECU on it.
  void start(uint32_t handle, sim::CanDiagnosticEcu::Config ecu = {}, CAN_UDS_CONFIG config = {}) {
    handle_ = handle;
    adapter_ = open(handle);
    if (handle == kFd)
      ASSERT_EQ(CANFD_Init2(handle, 0, 500000, 2000000, 0, 1), 0);
    else
      ASSERT_EQ(CAN_Init2(handle, 0, 500000), 0);
    ecu_ = sim::CanDiagnosticEcu::create(bus_, ecu);
    ASSERT_EQ(CAN_UDS_Config(handle, 0, &config), 0);
    ASSERT_EQ(VARNEL_CAN_UDS_SetIsoTiming(handle, 0, iso_timing_), 0);
  }
  int request(const Bytes& message) {
    Bytes copy = message;
    return CAN_UDS_Request(handle_, 0, &addr_, copy.data(), int32_t(copy.size()));
  }
  // The response, or the call's error code as a one-element vector marked by `result`.
  Bytes response(int* result, int32_t timeout_ms = 2000) {
    Bytes out(70000, 0xEE);
    *result =
        VARNEL_CAN_UDS_ResponseN(handle_, 0, &addr_, out.data(), uint32_t(out.size()), timeout_ms);
    out.resize(size_t(std::max(*result, 0)));
    return out;
  }
  void restart() {
    TearDown();
    SetUp();
  }
  std::vector<Bytes> heard_frames() {
    std::vector<Bytes> out;
    for (auto& h : ecu_->heard())
      out.emplace_back(h.frame.data.begin(), h.frame.data.begin() + h.frame.len);
    return out;
  }

  uint32_t handle_ = 0;
  int iso_timing_ = 0;
  std::shared_ptr<sim::VirtualAdapter> adapter_;
  std::shared_ptr<sim::CanDiagnosticEcu> ecu_;
  CAN_UDS_ADDR addr_{0x7E0, 0x7E8, 0, 0, 0, 8};
};

// A receiver's reassembly (ISO 15765-2) of the frames heard, each as long as it was on the bus:
// a first frame (12-bit length) and consecutive frames numbered from 1.
Bytes reassembled(const std::vector<Bytes>& frames) {
  const size_t length = size_t(frames.at(0)[0] & 0x0F) << 8 | frames[0][1];
  Bytes out(frames[0].begin() + 2, frames[0].end());
  for (size_t i = 1; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i][0], 0x20 | (i & 0x0F));
    out.insert(out.end(), frames[i].begin() + 1, frames[i].end());
  }
  EXPECT_GE(out.size(), length);
  out.resize(length);
  return out;
}

Bytes counting(size_t n) {
  Bytes b(n);
  std::iota(b.begin(), b.end(), uint8_t(0));
  return b;
}

// Writing n - 3 bytes to identifier 0x0100 is a request of n bytes.
Bytes write_request(size_t n) {
  Bytes b = counting(n);
  b[0] = 0x2E, b[1] = 0x01, b[2] = 0x00;
  return b;
}

}  // namespace

// A message of n bytes on 8-byte frames: single frame up to 7; a first frame with 6 bytes (12-bit
// length) or 2 bytes (32-bit length above 4095) and consecutive frames of 7, numbered from 1 and
// wrapping from F to 0; the last one filled with the fill byte.
TEST_F(Uds, RequestsBecomeTheFramesOfTheirLength) {
  struct Case {
    uint32_t handle;  // CAN FD: 64-byte frames, 62 bytes in a first frame, 63 in the others
    size_t length;
    Bytes first;  // the first frame's protocol bytes
    size_t frames;
  } cases[] = {
      {kClassic, 7, {0x07}, 1},
      {kClassic, 8, {0x10, 0x08}, 2},                          // 6 + 2
      {kClassic, 4095, {0x1F, 0xFF}, 1 + (4095 - 6 + 6) / 7},  // 6 + 584 x 7 + 1
      {kClassic,
       5000,
       {0x10, 0x00, 0x00, 0x00, 0x13, 0x88},
       1 + (5000 - 2 + 6) / 7},  // 2 + 714 x 7
      {kFd, 7, {0x00, 0x07}, 1},
      {kFd, 8, {0x00, 0x08}, 1},
      {kFd, 4095, {0x1F, 0xFF}, 1 + (4095 - 62 + 62) / 63},
      {kFd,
       5000,
       {0x10, 0x00, 0x00, 0x00, 0x13, 0x88},
       1 + (5000 - 58 + 62) / 63},  // 58 + 78 x 63 + 28
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.length);
    start(c.handle, {}, {0, 0, 0x55, 0, 0});
    const size_t frame_length = c.handle == kFd ? 64 : 8;
    addr_ = {0x7E0, 0x7E8, uint8_t(c.handle == kFd ? 0x02 : 0), 0, 0, uint8_t(frame_length)};
    const Bytes message = write_request(c.length);
    ASSERT_EQ(request(message), 0);
    int r = 0;
    EXPECT_EQ(response(&r), (Bytes{0x6E, 0x01, 0x00}));
    const auto frames = heard_frames();
    ASSERT_EQ(frames.size(), c.frames);
    EXPECT_EQ(Bytes(frames[0].begin(), frames[0].begin() + c.first.size()), c.first);
    Bytes joined(frames[0].begin() + c.first.size(), frames[0].end());
    for (size_t i = 1; i < frames.size(); ++i) {
      ASSERT_EQ(frames[i].size(), frame_length);
      EXPECT_EQ(frames[i][0], 0x20 | (i & 0x0F)) << i;  // ... 2E 2F 20 21 ...
      joined.insert(joined.end(), frames[i].begin() + 1, frames[i].end());
    }
    ASSERT_GE(joined.size(), message.size());
    EXPECT_EQ(Bytes(joined.begin(), joined.begin() + ptrdiff_t(message.size())), message);
    EXPECT_EQ(Bytes(joined.begin() + ptrdiff_t(message.size()), joined.end()),
              Bytes(joined.size() - message.size(), 0x55));
    EXPECT_EQ(ecu_->requests().back(), message);
    restart();
  }
}

// CAN FD: a single frame over 8 bytes has the 00 escape; "smallest frame" (flag 0x80) picks the
// first length that holds it; without flag bit 1 the frame is a classic one of 8 bytes.
TEST_F(Uds, CanFdSingleFramesTakeTheSmallestLength) {
  start(kFd);
  addr_ = {0x7E0, 0x7E8, 0x02, 0, 0, 64};
  ASSERT_EQ(request(write_request(4095)), 0);
  int r = 0;
  EXPECT_EQ(response(&r), (Bytes{0x6E, 0x01, 0x00}));
  addr_.Flags = 0x82;  // reading it back: 62 01 00 and the 4092 bytes, 4095 in all
  ASSERT_EQ(request({0x22, 0x01, 0x00}), 0);
  EXPECT_EQ(heard_frames().back(), (Bytes{0x03, 0x22, 0x01, 0x00, 0, 0, 0, 0}));
  EXPECT_EQ(response(&r).size(), 4095u);
  struct Case {
    uint8_t flags, address;  // address: extended addressing with this byte
    size_t length;
    Bytes head;  // then the message, then the fill byte up to `on_bus`
    size_t on_bus;
  } cases[] = {{0x82, 0, 10, {0x00, 0x0A}, 12},
               {0x82, 0, 7, {0x07}, 8},  // the longest 8-byte single frame
               {0x82, 0x10, 7, {0x10, 0x00, 0x07}, 12},
               {0x00, 0, 2, {0x02}, 8}};
  for (const auto& c : cases) {
    addr_ = {0x7E0, 0x7E8, c.flags, uint8_t(c.address != 0), c.address, uint8_t(c.flags ? 64 : 8)};
    ASSERT_EQ(request(Bytes(c.length, 0x3E)), 0);
    Bytes want = c.head;
    want.resize(c.head.size() + c.length, 0x3E);
    want.resize(c.on_bus, 0x00);
    EXPECT_EQ(heard_frames().back(), want) << c.length << " " << int(c.flags);
    EXPECT_EQ(ecu_->heard().back().frame.fd, c.flags != 0);
  }
}

// Answers longer than a frame come back whole, over 12-bit and 32-bit lengths, with or without
// the receive poller running.
TEST_F(Uds, LongAnswersAreReassembled) {
  for (bool poller : {false, true}) {
    start(kClassic);
    if (poller) {
      ASSERT_EQ(CAN_StartGetMsg(kClassic, 0), 0);
    }
    for (size_t n : {4095u, 5000u}) {
      Bytes write = write_request(n);
      ASSERT_EQ(request(write), 0);
      int r = 0;
      response(&r);
      ASSERT_EQ(request({0x22, 0x01, 0x00}), 0);
      Bytes want = write;
      want[0] = 0x62;
      EXPECT_EQ(response(&r), want) << n << " poller " << poller;
    }
    restart();
  }
}

TEST_F(Uds, FailuresGiveTheirCodes) {
  using Faults = sim::CanDiagnosticEcu::Faults;
  const Bytes two_ids = {0x22, 0xF1, 0x90, 0xF1, 0x87};  // 33 bytes: a first and four consecutive
  struct Case {
    const char* name;
    Faults faults;
    Bytes message;
    int request_result, response_result;
  } cases[] = {
      {"overflow", {.flow_overflow = true}, write_request(20), CAN_UDS_ERR_OVERFLOW, 0},
      {"no flow control", {.silent = true}, write_request(20), CAN_UDS_ERR_TIMEOUT, 0},
      {"two waits, then continue", {.flow_waits = 2}, write_request(20), 0, 3},
      {"lost consecutive frame", {.lose_frame = true}, two_ids, 0, CAN_UDS_ERR_SEQUENCE},
      {"wrong sequence number", {.wrong_sequence = true}, two_ids, 0, CAN_UDS_ERR_SEQUENCE},
      {"silent", {.silent = true}, {0x3E, 0x00}, 0, CAN_UDS_ERR_TIMEOUT},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    start(kClassic, {}, {0, 0, 0, 0, 200});
    ecu_->set_faults(c.faults);
    EXPECT_EQ(request(c.message), c.request_result);
    if (c.request_result == 0) {
      int r = 0;
      response(&r, 200);
      EXPECT_EQ(r, c.response_result);
    }
    restart();
  }
}

// Frames the ECU would never send, put on the bus by a scripted node.
TEST_F(Uds, MalformedAnswersAndBadArguments) {
  start(kClassic);
  auto node = sim::CanPeer::create(bus_, {500000, 0});
  struct Case {
    Bytes frame;
    int result;
  } cases[] = {
      {{0x08, 1, 2, 3, 4, 5, 6, 7}, CAN_UDS_ERR_FRAME},     // 8 bytes claimed, 7 carried
      {{0x40, 0, 0, 0, 0, 0, 0, 0}, CAN_UDS_ERR_FRAME},     // no such frame type
      {{0x21, 0, 0, 0, 0, 0, 0, 0}, CAN_UDS_ERR_SEQUENCE},  // consecutive without a first
      {{0x05, 0x62, 1, 2, 3, 4, 0, 0}, 5},  // after a frame of 0x7E9, which is not ours
      {{0x10, 0x0A, 1, 2, 3, 4, 5, 6}, VARNEL_CAN_UDS_ERR_SIZE},  // 10 bytes, room for 8
  };
  for (const auto& c : cases) {
    sim::CanFrame frame;
    frame.id = 0x7E8;
    frame.len = 8;
    std::copy(c.frame.begin(), c.frame.end(), frame.data.begin());
    if (c.result == 5) {
      sim::CanFrame other = frame;
      other.id = 0x7E9;
      other.data[0] = 0x02;
      node->send(other);
    }
    node->send(frame);
    Bytes out(8, 0xEE);
    EXPECT_EQ(VARNEL_CAN_UDS_ResponseN(kClassic, 0, &addr_, out.data(), 8, 100), c.result);
    if (c.result == VARNEL_CAN_UDS_ERR_SIZE) {
      EXPECT_EQ(out, Bytes(8, 0xEE));
    }
  }
  uint8_t byte = 0x3E;
  CAN_UDS_CONFIG config{};
  EXPECT_EQ(CAN_UDS_Request(0x0BADF00D, 0, &addr_, &byte, 1), CAN_UDS_ERR_DEVICE);
  EXPECT_EQ(CAN_UDS_Config(0x0BADF00D, 0, &config), CAN_UDS_ERR_DEVICE);
  EXPECT_EQ(CAN_UDS_Request(kClassic, 0, nullptr, &byte, 1), -7);
  EXPECT_EQ(CAN_UDS_Request(kClassic, 0, &addr_, &byte, 0), -7);
  EXPECT_EQ(CAN_UDS_Response(kClassic, 0, &addr_, nullptr, 10), -7);
}

// Extended addressing: the address byte leads every frame both ways, so a single frame holds 6.
TEST_F(Uds, ExtendedAddressingPutsTheAddressFirst) {
  start(kClassic, {.address = 0x10});
  addr_.ExtAddr = 1;
  addr_.AddrByte = 0x10;
  ASSERT_EQ(request({0x22, 0xF1, 0x90}), 0);
  EXPECT_EQ(heard_frames()[0], (Bytes{0x10, 0x03, 0x22, 0xF1, 0x90, 0, 0, 0}));
  int r = 0;
  Bytes vin = response(&r);
  EXPECT_EQ(std::string(vin.begin() + 3, vin.end()), "VARNELSIMECU00001");
  EXPECT_EQ(heard_frames()[1], (Bytes{0x10, 0x30, 0, 0, 0, 0, 0, 0}));  // our flow control
  ASSERT_EQ(request(write_request(7)), 0);  // 7 bytes: first frame 10 07 and 5 bytes
  EXPECT_EQ(heard_frames()[2], (Bytes{0x10, 0x10, 0x07, 0x2E, 0x01, 0x00, 3, 4}));
}

// A frame length that is not a CAN FD length goes on the bus as the next one, so it is rounded up
// and every frame packed full: a receiver that reads the length off the bus gets the message.
TEST_F(Uds, RoundsFrameLenUpToTheNextFdLength) {
  struct Case {
    uint8_t frame_len, on_bus;
  } cases[] = {{9, 12}, {10, 12}, {13, 16}, {21, 24}, {25, 32}, {33, 48}, {49, 64}, {63, 64}};
  for (const auto& c : cases) {
    SCOPED_TRACE(int(c.frame_len));
    start(kFd, {}, {0, 0, 0x55, 0, 0});
    addr_ = {0x7E0, 0x7E8, 0x02, 0, 0, c.frame_len};
    const Bytes message = write_request(100);
    ASSERT_EQ(request(message), 0);
    EXPECT_EQ(addr_.FrameLen, c.on_bus);
    const auto frames = heard_frames();
    for (size_t i = 0; i + 1 < frames.size(); ++i) EXPECT_EQ(frames[i].size(), c.on_bus) << i;
    EXPECT_EQ(reassembled(frames), message);
    restart();
  }
}

// The receiver's block size and STmin: by default (above 127: no gap), overridden by the
// configuration, or read as ISO 15765-2 reads it (F1-F9 hundreds of microseconds, reserved codes
// 127 ms). Block size 2 makes the tester wait for flow control after every two frames: one send
// per block. Checked: the gap each timed record asks the adapter for, and the gaps on the bus.
TEST_F(Uds, BlockSizeAndEveryStminCode) {
  struct Case {
    uint8_t block_size, stmin, config_stmin;
    int iso;
    uint32_t gap_us;
  } cases[] = {{2, 5, 0, 0, 5000},      {2, 5, 2, 0, 2000},      {2, 0x80, 0, 0, 0},
               {0, 0xF5, 0, 0, 0},      {0, 0xF5, 0, 1, 500},    {0, 0xF1, 0, 1, 100},
               {0, 0xF9, 0, 1, 900},    {0, 0x80, 0, 0, 0},      {0, 0x80, 0, 1, 127000},
               {0, 0xF0, 0, 1, 127000}, {0, 0xFA, 0, 1, 127000}, {0, 0x7F, 0, 1, 127000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << int(c.stmin) << " iso " << c.iso << " bs "
                                    << int(c.block_size) << " config " << int(c.config_stmin));
    iso_timing_ = c.iso;
    start(kClassic, {.block_size = c.block_size, .stmin = c.stmin}, {c.config_stmin, 0, 0, 0, 0});
    ASSERT_EQ(request(write_request(40)), 0);  // first frame + 5 consecutive frames
    const auto timed = packets(*adapter_, 0x0C0C);
    EXPECT_EQ(packets(*adapter_, 0x0C02).size() + timed.size(), c.block_size ? 4u : 2u);
    EXPECT_EQ(timed.empty(), c.gap_us == 0);
    for (const auto& t : timed)  // the channel, then records with the gap at 4
      for (const uint8_t* p = t.payload.data() + 5; p + 16 <= &t.payload.back() + 1; p += 20)
        EXPECT_EQ(uint32_t(p[0] | p[1] << 8 | p[2] << 16 | p[3] << 24), c.gap_us);
    const auto heard = ecu_->heard();
    ASSERT_EQ(heard.size(), 6u);
    for (size_t i = 2; i < heard.size(); i += c.block_size ? 2 : 1)  // within a block
      EXPECT_GE(heard[i].end_us - heard[i - 1].end_us, c.gap_us) << i;
    restart();
  }
  iso_timing_ = 0;
}

// "Wait" frames 100 ms apart against a flow control wait of 300 ms: counted from the first, the
// wait runs out before "continue" comes; with ISO timing each "wait" starts it again.
TEST_F(Uds, IsoTimingRestartsTheWaitOnEveryWaitFrame) {
  for (int iso : {0, 1}) {
    iso_timing_ = iso;
    start(kClassic, {}, {0, 0, 0, 0, 300});
    ecu_->set_faults({.flow_waits = 4, .wait_spacing_us = 100000});
    EXPECT_EQ(request(write_request(20)), iso ? 0 : CAN_UDS_ERR_TIMEOUT) << iso;
    restart();
  }
  iso_timing_ = 0;
}

// 0x7FF is still an 11-bit identifier: an answer on it, in a standard frame, is taken.
TEST_F(Uds, AnswerOnTheHighestStandardIdentifierIsTaken) {
  start(kClassic, {.request_id = 0x7F0, .response_id = 0x7FF});
  addr_ = {0x7F0, 0x7FF, 0, 0, 0, 8};
  ASSERT_EQ(request({0x3E, 0x00}), 0);
  int r = 0;
  EXPECT_EQ(response(&r, 500), (Bytes{0x7E, 0x00}));
}

// Without the receive poller, an answer that came after its request gave up waits in the
// adapter; the next request drops it, so its response is its own.
TEST_F(Uds, ALateAnswerIsNotTakenForTheNextOne) {
  for (uint32_t handle : {kClassic, kFd}) {
    start(handle, {.answer_delay_us = 300000});
    int r = 0;
    ASSERT_EQ(request({0x10, 0x03}), 0);
    response(&r, 20);
    ASSERT_EQ(r, CAN_UDS_ERR_TIMEOUT);
    bus_->advance_us(400000);  // the answer 50 03 ... is due now
    ASSERT_EQ(request({0x3E, 0x00}), 0);
    bus_->advance_us(400000);
    EXPECT_EQ(response(&r), (Bytes{0x7E, 0x00})) << std::hex << handle;
    restart();
  }
}

// A tester that abandons a transfer (no flow control for the ECU's long answer, or a request's
// consecutive frames coming after N_Cr) does not stop the ECU: once its time-outs have passed
// in bus time it serves the next request.
TEST_F(Uds, TheEcuDropsAnAbandonedTransferAndServesTheNext) {
  struct Case {
    const char* name;
    std::vector<Bytes> early, late;  // frames of 0x7E0 before and after 1.1 s
    size_t understood;               // whole requests among them
  } cases[] = {
      {"answer without flow control", {{0x03, 0x22, 0xF1, 0x90}}, {}, 1},
      {"request cut off",
       {{0x10, 0x14, 0x2E, 0x01, 0x00, 3, 4, 5}},  // 20 bytes: a first frame + 2 consecutive
       {{0x21, 6, 7, 8, 9, 10, 11, 12}, {0x22, 13, 14, 15, 16, 17, 18, 19}},
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    start(kClassic);
    auto tester = sim::CanPeer::create(bus_, {500000, 0});
    auto send = [&](const Bytes& bytes) {
      sim::CanFrame frame{0x7E0, false, false, false, false, false, 8};
      std::copy(bytes.begin(), bytes.end(), frame.data.begin());
      tester->send(frame);
    };
    for (const auto& f : c.early) send(f);
    bus_->advance_us(1000);
    bus_->catch_up();  // the ECU's first frame or flow control goes out
    bus_->advance_us(1100000);
    for (const auto& f : c.late) send(f);
    bus_->catch_up();
    EXPECT_EQ(ecu_->requests().size(), c.understood);
    ASSERT_EQ(request({0x3E, 0x00}), 0);
    int r = 0;
    EXPECT_EQ(response(&r), (Bytes{0x7E, 0x00}));
    restart();
  }
}
