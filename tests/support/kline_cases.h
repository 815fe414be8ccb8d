// The K-line over a USB layer (see wire_fixture.h): request frames byte for byte with checksums
// summed here, the wake-up patterns as the virtual pin saw them, the virtual unit's answers and
// faults as result codes and status flags, time stamps, bad arguments.
#pragma once

#include <algorithm>
#include <functional>
#include <numeric>
#include <string>
#include <tuple>

#include "sim/families/gpio.h"
#include "sim/families/kline.h"
#include "support/wire_fixture.h"

namespace testing_support {

constexpr uint32_t kKlineHandle = 0x11223344;
using KBytes = std::vector<uint8_t>;

inline KBytes joined(KBytes head, const KBytes& tail) {
  head.insert(head.end(), tail.begin(), tail.end());
  return head;
}
inline KBytes with_checksum(const KBytes& bytes) {
  return joined(bytes, {uint8_t(std::accumulate(bytes.begin(), bytes.end(), 0u))});
}
inline KBytes counting(uint8_t first, size_t n) {
  KBytes out(n);
  std::iota(out.begin(), out.end(), first);
  return out;
}

template <class Record>
Record k_record(uint8_t fmt, uint8_t len, uint8_t sid, const KBytes& data) {
  Record r{};
  r.Fmt = fmt;
  r.Tgt = 0x10;
  r.Src = 0xF1;
  r.Len = len;
  r.SID = sid;
  std::copy_n(data.begin(), std::min(data.size(), sizeof r.Data), r.Data);
  return r;
}

template <class Layer>
class KlineCases : public WireTest<Layer> {
 protected:
  Adapter open() {
    Adapter adapter = this->plug_and_open(kKlineHandle);
    adapter->clear_received();
    return adapter;
  }
  // The payloads of one command, in order, since the last clear.
  static std::vector<KBytes> payloads(Adapter& adapter, uint32_t command) {
    std::vector<KBytes> out;
    for (auto& p : adapter->received())
      if (p.command == command) out.push_back(p.payload);
    return out;
  }
  static sim::KLineEcu& ecu(Adapter& adapter) { return sim::kline_ecu(*adapter, 0); }
  // The pin's levels and the unit's state, for a failure message.
  static std::string line_story(Adapter& adapter) {
    std::string story = "unit state " + std::to_string(int(ecu(adapter).state())) + ", pin:";
    for (auto [high, us] : held_levels(adapter, 0))
      story += std::string(high ? " high " : " low ") + std::to_string(us) + " us";
    return story;
  }
  // Fast init with StartCommunication; the unit on channel 0 is awake afterwards.
  static int fast_init(KWP_MSG& init, KWP_MSG& response) {
    KWP_MSG request = k_record<KWP_MSG>(0x81, 0, 0x81, {});
    return KWP_FastInit(kKlineHandle, 0, 10400, &init, &request, &response, 500);
  }
  // The levels pin `pin` was set to, and how long each was held (the last: 0).
  static std::vector<std::pair<bool, uint64_t>> held_levels(Adapter& adapter, int pin) {
    auto levels = adapter->state<sim::GpioModel>().levels_set(pin);
    std::vector<std::pair<bool, uint64_t>> out;
    for (size_t i = 0; i < levels.size(); ++i) {
      const uint64_t next = i + 1 < levels.size() ? levels[i + 1].at_us : levels[i].at_us;
      if (!out.empty() && out.back().first == levels[i].high) {
        out.back().second += next - levels[i].at_us;
      } else {
        out.push_back({levels[i].high, next - levels[i].at_us});
      }
    }
    return out;
  }
};
TYPED_TEST_SUITE_P(KlineCases);

constexpr uint32_t kUartInit = 0xA00, kUartWrite = 0xA01, kUartWriteInterval = 0xA05;

// Each row: the record, what goes out after the channel and interval bytes of the write command.
TYPED_TEST_P(KlineCases, RequestRecordsGoOutAsTheirFormatSays) {
  Adapter adapter = this->open();
  ASSERT_EQ(KWP_Init(kKlineHandle, 0, 10400, 1), 0);
  const KBytes d99 = counting(1, 99), d63 = counting(1, 63), d62 = counting(1, 62);
  struct Row {
    bool k_call;
    uint8_t fmt, len;
    KBytes data;
    KBytes frame;  // without the checksum
    uint8_t fmt_after;
  } rows[] = {
      {false, 0x82, 0, {0x90}, {0x82, 0x10, 0xF1, 0x1A, 0x90}, 0x82},
      {false, 0x80, 100, d99, joined({0x80, 0x10, 0xF1, 100, 0x31}, d99), 0x80},
      {false, 0x85, 64, d63, joined({0x80, 0x10, 0xF1, 64, 0x31}, d63), 0x80},  // above 63: no L
      {false, 0xBF, 63, d62, joined({0xBF, 0x10, 0xF1, 0x31}, d62), 0xBF},      // 63 fits in Fmt
      {false, 0x42, 0, {0x90}, {0x42, 0x1A, 0x90}, 0x42},  // address modes 0 and 1: no addresses
      {false, 0xC1, 0, {}, {0xC1, 0x10, 0xF1, 0x1A}, 0xC1},
      {false, 0x00, 3, {0x01, 0x02}, {0x00, 0x03, 0x1A, 0x01, 0x02}, 0x00},
      {true, 0x02, 0, {0x90}, {0x02, 0x10, 0xF1, 0x1A, 0x90}, 0x02},  // K_ always addresses
      {true, 0x80, 3, {0x01, 0x02}, {0x80, 0x10, 0xF1, 0x03, 0x1A, 0x01, 0x02}, 0x80},
  };
  for (const Row& row : rows) {
    const uint8_t sid = row.frame[row.frame.size() - row.data.size() - 1];
    adapter->clear_received();
    int rc;
    uint8_t fmt_after, checksum_field;
    if (row.k_call) {
      K_MSG request = k_record<K_MSG>(row.fmt, row.len, sid, row.data), response{};
      rc = K_Request(kKlineHandle, 0, &request, &response, 7, 10);
      fmt_after = request.Fmt;
      checksum_field = request.CheckSum;  // K_Request leaves the record alone
      EXPECT_EQ(rc, -5) << "the unit sleeps: nothing comes back";
      // the echo, then a poll at once and, unless the host was slow enough to let 10 ms pass
      // meanwhile, one after the 10 ms wait; never a third
      const size_t reads = this->payloads(adapter, 0xA03).size();
      EXPECT_TRUE(reads == 2 || reads == 3) << reads;
    } else {
      KWP_MSG request = k_record<KWP_MSG>(row.fmt, row.len, sid, row.data);
      request.P4 = 7;
      rc = KWP_Request(kKlineHandle, 0, &request);
      fmt_after = request.Fmt;
      checksum_field = request.CheckSum;
      EXPECT_EQ(rc, 0);
      EXPECT_EQ(request.Kind, KWP_KIND_REQUEST);
    }
    const KBytes frame = with_checksum(row.frame);
    EXPECT_EQ(this->payloads(adapter, kUartWriteInterval),
              std::vector<KBytes>{joined({0, 7}, frame)})
        << int(row.fmt) << (row.k_call ? " K" : " KWP");  // channel, P4, frame
    EXPECT_EQ(fmt_after, row.fmt_after);
    EXPECT_EQ(checksum_field, row.k_call ? 0 : frame.back());
  }
}

// KWP_Init's letter: 'R' for mode 0, 'Z' for 2, 'B' otherwise; the baud rate in host order.
TYPED_TEST_P(KlineCases, InitSendsTheConfigurationAndKInitPowersTheChannel) {
  Adapter adapter = this->open();
  const std::pair<uint8_t, uint8_t> modes[] = {{0, 'R'}, {1, 'B'}, {2, 'Z'}, {7, 'B'}};
  for (auto [mode, letter] : modes) {
    adapter->clear_received();
    ASSERT_EQ(KWP_Init(kKlineHandle, 3, 10400, mode), 0);
    // 10400 = 0x28A0
    EXPECT_EQ(this->payloads(adapter, kUartInit),
              (std::vector<KBytes>{{3, 0xA0, 0x28, 0, 0, 0, 0, 0, letter}}));
  }
  adapter->clear_received();
  ASSERT_EQ(K_Init(kKlineHandle, 2, 9600), 0);  // 0x2580
  EXPECT_EQ(this->payloads(adapter, kUartInit),
            (std::vector<KBytes>{{2, 0x80, 0x25, 0, 0, 0, 0, 0, 'B'}}));
  EXPECT_EQ(this->payloads(adapter, 0xF0A), (std::vector<KBytes>{{1, 2}})) << "power on, 12 V";
  adapter->clear_received();
  K_MSG start = k_record<K_MSG>(0x81, 0, 0x81, {}), answer{};
  EXPECT_EQ(K_FastInit(kKlineHandle, 2, &start, &answer, 0), 0);
  EXPECT_EQ(answer.SID, 0xC1);
  EXPECT_EQ(this->payloads(adapter, kUartInit),
            (std::vector<KBytes>{{2, 0x80, 0x25, 0, 0, 0, 0, 0, 'B'}}))
      << "the fast init configures the UART as K_Init stored it";
  adapter->clear_received();
  EXPECT_EQ(DIO_Init(kKlineHandle, 0x4), 0);
  EXPECT_EQ(DIO_SetPins(kKlineHandle, 0x4), 0);
  EXPECT_EQ(DIO_ResetPins(kKlineHandle, 0x4), 0);
  EXPECT_EQ(this->payloads(adapter, 0x0601), (std::vector<KBytes>{{0, 0, 0, 4, 0}}));
  EXPECT_EQ(this->payloads(adapter, 0x0603),
            (std::vector<KBytes>{{0, 0, 0, 4, 0, 0, 0, 4}, {0, 0, 0, 4, 0, 0, 0, 0}}));
}

// The fast init, then requests in each form the unit answers in; every answer checked against
// the frame built here from its message.
TYPED_TEST_P(KlineCases, FastInitWakesTheUnitThenAnswersFillTheRecord) {
  Adapter adapter = this->open();
  KWP_MSG init{}, response{};
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(this->fast_init(init, response), 0) << this->line_story(adapter);
  // the host holds idle 300 ms, low 25 ms and high 24 ms before the first byte; the unit
  // answers 40 ms after the request
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(389));
  EXPECT_EQ((KBytes{init.Kind, response.Kind}), (KBytes{KWP_KIND_FAST, KWP_KIND_RESPONSE}));
  EXPECT_EQ(this->payloads(adapter, 0xF0A), (std::vector<KBytes>{{1, 0}})) << "power on first";
  auto held = this->held_levels(adapter, 0);
  ASSERT_EQ(held.size(), 4u);  // the latch as the pin became an output, then high, low, high
  EXPECT_EQ((KBytes{held[0].first, held[1].first, held[2].first}), (KBytes{0, 1, 0}));
  EXPECT_GE(held[1].second, 300'000u);
  // The adapter sees the low phase move with the two pin commands' own delays (on a busy
  // machine by several ms), so only its order is checked here; the host's hold is above.
  EXPECT_GT(held[2].second, 0u);
  EXPECT_LT(held[2].second, 150'000u);
  const KBytes long_block = joined({0x61, 0x10}, counting(0, 100));
  enum : uint8_t { kPlain = 0, kAddressed = 0x80, kLengthByte = 0x01 };
  struct Row {
    uint8_t form;  // kAddressed or not, kLengthByte or not
    uint8_t target;
    KBytes request;  // SID, data; none: the next response to the last request
    int result;
    KBytes answer;  // SID, data
  } rows[] = {
      {kAddressed, 0x10, {0x21, 0x01}, 0, {0x61, 0x01, 0x0C, 0x1C, 0x00, 0x5A}},
      {kAddressed | kLengthByte, 0x10, {0x21, 0x01}, 0, {0x61, 0x01, 0x0C, 0x1C, 0x00, 0x5A}},
      {kAddressed, 0x10, {0x21, 0x77}, 0, {0x7F, 0x21, 0x31}},
      {kAddressed, 0x10, {0x22, 0x01}, 0, {0x7F, 0x22, 0x11}},  // a service it lacks
      {kAddressed, 0x10, {0x1A}, 0, {0x7F, 0x1A, 0x12}},        // too short
      {kAddressed, 0x33, {0x3E}, 0, {0x7E}},                    // the functional address
      {kPlain, 0x10, {0x3E}, 0, {0x7E}},                        // no addresses asked, none given
      {kPlain, 0x10, {0x21, 0x10}, 0, long_block},              // above 63 bytes: a length byte
      {kAddressed, 0x22, {0x3E}, -5, {}},                       // nobody there
      {kAddressed, 0x10, {0x3E, 0x02}, -5, {}},                 // no answer wanted
      {kAddressed, 0x10, {0x21, 0x02}, 0, {0x7F, 0x21, 0x78}},  // pending first ...
      {kAddressed, 0x10, {}, 0, {0x61, 0x02, 0x01, 0x02, 0x03, 0x04}},  // ... then the answer
  };
  auto expect_answer = [](const KWP_MSG& got, bool addressed, const KBytes& answer) {
    const auto n = uint8_t(answer.size());
    KBytes head = {uint8_t((addressed ? 0x80 : 0) | (n <= 63 ? n : 0))};
    if (addressed) head = joined(head, {0xF1, 0x10});
    if (n > 63) head.push_back(n);
    const KBytes frame = with_checksum(joined(head, answer));
    EXPECT_EQ((KBytes{got.Fmt, got.Tgt, got.Src}),
              (KBytes{frame[0], uint8_t(addressed ? 0xF1 : 0), uint8_t(addressed ? 0x10 : 0)}));
    EXPECT_EQ(joined({got.SID}, KBytes(got.Data, got.Data + got.Len)),
              joined(answer, {frame.back()}))
        << "the received checksum follows the data";
    EXPECT_EQ((KBytes{got.Len, got.CheckSum, got.Status}), (KBytes{n, frame.back(), 0}));
  };
  expect_answer(response, true, {0xC1, 0xEF, 0x8F});
  for (const Row& row : rows) {
    if (!row.request.empty()) {
      const auto n = uint8_t(row.request.size());
      KWP_MSG request =
          k_record<KWP_MSG>(uint8_t((row.form & kAddressed) | (row.form & kLengthByte ? 0 : n)), n,
                            row.request[0], {row.request.begin() + 1, row.request.end()});
      request.Tgt = row.target;
      ASSERT_EQ(KWP_Request(kKlineHandle, 0, &request), 0);
    }
    KWP_MSG got{};
    ASSERT_EQ(KWP_Response(kKlineHandle, 0, &got, row.result ? 100 : 1000), row.result)
        << testing::PrintToString(row.request);
    if (row.result == 0) expect_answer(got, row.form & kAddressed, row.answer);
  }
  // The K_ calls read the same unit.
  K_MSG k_request = k_record<K_MSG>(0x82, 0, 0x21, {0x01}), k_response{};
  ASSERT_EQ(K_Request(kKlineHandle, 0, &k_request, &k_response, 0, 500), 0);
  EXPECT_EQ((KBytes{k_response.Fmt, k_response.SID, k_response.Data[0], k_response.Data[5]}),
            (KBytes{0x86, 0x61, 0x01, 0x6B}));  // 86+F1+10+61+01+0C+1C+00+5A = 26B
}

// Each row spoils the unit's next answers one way; the request is 21 01.
TYPED_TEST_P(KlineCases, FaultsOfTheUnitGiveTheirCodesAndFlags) {
  Adapter adapter = this->open();
  KWP_MSG init{}, response{};
  ASSERT_EQ(this->fast_init(init, response), 0) << this->line_story(adapter);
  this->ecu(adapter).config.p2_us = 300'000;  // the echo read in time even on a busy host
  using Echo = sim::KlineEcho;
  struct Row {
    const char* what;
    std::function<void(sim::KLineEcu&)> fault;
    int request_result, response_result;
    uint8_t status;
    int k_result;
  } rows[] = {
      {"bad checksum", [](auto& e) { e.faults.bad_checksum = true; }, 0, -8, 0x01, -8},
      {"late", [](auto& e) { e.faults.late_ms = 5000; }, 0, -5, 0x02, -5},
      {"cut short", [](auto& e) { e.faults.cut_after = 4; }, 0, -6, 0x04, -6},
      {"no echo", [&](auto&) { sim::set_kline_echo(*adapter, 0, Echo::kMissing); }, -7, 0, 0x10,
       -7},
      {"echo of other bytes", [&](auto&) { sim::set_kline_echo(*adapter, 0, Echo::kFlipped); }, -7,
       0, 0x10, -7},
  };
  for (const Row& row : rows) {
    row.fault(this->ecu(adapter));
    KWP_MSG request = k_record<KWP_MSG>(0x82, 0, 0x21, {0x01}), got{};
    EXPECT_EQ(KWP_Request(kKlineHandle, 0, &request), row.request_result) << row.what;
    if (row.request_result == 0) {
      EXPECT_EQ(KWP_Response(kKlineHandle, 0, &got, 500), row.response_result) << row.what;
    } else {
      got = request;
    }
    EXPECT_EQ(got.Status, row.status) << row.what;
    if (row.status == 0x01) {  // still filled: 86 F1 10 61 01 0C 1C 00 5A, sum 26B, sent ~6B
      EXPECT_EQ((KBytes{got.SID, got.Data[0], got.Data[4], got.Data[5], got.CheckSum}),
                (KBytes{0x61, 0x01, 0x5A, 0x94, 0x6B}));
    }
    adapter->clock().advance_us(6'000'000);  // a late answer arrives, and the next clear drops it
    K_MSG k_request = k_record<K_MSG>(0x82, 0, 0x21, {0x01}), k_response{};
    EXPECT_EQ(K_Request(kKlineHandle, 0, &k_request, &k_response, 0, 500), row.k_result)
        << row.what;
    adapter->clock().advance_us(6'000'000);
    this->ecu(adapter).faults = {};
    sim::set_kline_echo(*adapter, 0, Echo::kClean);
  }
}

TYPED_TEST_P(KlineCases, RecordsCarryTheDeviceTimeAtTheStartOfTheCall) {
  Adapter adapter = this->open();
  adapter->clock().advance_us(0x12'3456'7800ull * 1000);
  KWP_MSG got{};
  EXPECT_EQ(KWP_Response(kKlineHandle, 0, &got, 0), -5);
  EXPECT_EQ(got.TimeStampHi, 0x12);
  EXPECT_GE(got.TimeStamp, 0x34567800u);
  EXPECT_LT(got.TimeStamp, 0x34567800u + 60'000);
  EXPECT_EQ((KBytes{got.Kind, got.Status, got.Len}), (KBytes{KWP_KIND_RESPONSE, 0x02, 0}));
  adapter->faults().next_reply({sim::ReplyFault::Kind::kShort, 4, 0x15});
  EXPECT_EQ(KWP_Response(kKlineHandle, 0, &got, 0), -5);
  EXPECT_EQ((KBytes{got.TimeStampHi, uint8_t(got.TimeStamp)}), (KBytes{0xFF, 0xFF}))
      << "all ones when the time's reply could not be read";
}

// The wake-up patterns draw on the pin the adapter's table names; the virtual unit hears the pin
// it is wired to, and only that one.
TYPED_TEST_P(KlineCases, WakeupPatternsDriveThePinTheTableNames) {
  Adapter adapter = this->open();
  struct Unmap {  // the table outlives the test: channel 0 goes back to pin 0 whatever happens
    ~Unmap() { VARNEL_KLINE_SetWakeupPin(kKlineHandle, 0, 0); }
  } unmap;
  EXPECT_EQ(VARNEL_KLINE_GetWakeupPin(kKlineHandle, 5), 5) << "bit (channel) until set";
  ASSERT_EQ(VARNEL_KLINE_SetWakeupPin(kKlineHandle, 0, 9), 0);
  EXPECT_EQ(VARNEL_KLINE_GetWakeupPin(kKlineHandle, 0), 9);
  KWP_MSG init{}, response{};
  EXPECT_EQ(this->fast_init(init, response), -5) << "the unit is still wired to pin 0";
  EXPECT_EQ(this->payloads(adapter, 0x0601), (std::vector<KBytes>{{0, 0, 0x02, 0, 0}}));
  EXPECT_TRUE(this->held_levels(adapter, 0).empty());
  auto held = this->held_levels(adapter, 9);
  ASSERT_EQ(held.size(), 4u);  // the latch, then high, low, high
  EXPECT_EQ((KBytes{held[1].first, held[2].first, held[3].first}), (KBytes{1, 0, 1}));
  sim::set_kline_wakeup_pin(*adapter, 0, 9);
  EXPECT_EQ(this->fast_init(init, response), 0) << this->line_story(adapter);
  EXPECT_EQ(response.SID, 0xC1);
  const std::tuple<uint32_t, uint8_t, uint8_t, int> refused[] = {
      {kKlineHandle, 8, 1, -7}, {kKlineHandle, 0, 32, -7}, {0x0BADBEEF, 0, 1, -200}};
  for (auto [handle, channel, pin, code] : refused)
    EXPECT_EQ(VARNEL_KLINE_SetWakeupPin(handle, channel, pin), code) << int(channel) << int(pin);
  EXPECT_EQ(VARNEL_KLINE_GetWakeupPin(kKlineHandle, 8), -7);
  EXPECT_EQ(VARNEL_KLINE_GetWakeupPin(kKlineHandle, 0), 9) << "a refused call changes nothing";
}

// Each poll of a slow adapter takes 40 ms: a 100 ms time-out ends on the clock after three
// polls at most (at 0, 50 and 100 ms), not after the eleven 10 ms steps it holds.
TYPED_TEST_P(KlineCases, ResponsePollingEndsOnTheClockOnASlowAdapter) {
  Adapter adapter = this->open();
  ASSERT_EQ(KWP_Init(kKlineHandle, 0, 10400, 1), 0);
  for (int i = 0; i < 16; ++i)
    adapter->faults().next_reply({sim::ReplyFault::Kind::kLate, 40, 0xA03});
  K_MSG request = k_record<K_MSG>(0x82, 0, 0x21, {0x01}), response{};
  EXPECT_EQ(K_Request(kKlineHandle, 0, &request, &response, 0, 100), -5);
  EXPECT_LE(this->payloads(adapter, 0xA03).size(), 4u) << "the echo and at most three polls";
  adapter->faults().clear();
}

TYPED_TEST_P(KlineCases, BadArgumentsAreRefusedBeforeAnythingIsSent) {
  Adapter adapter = this->open();
  KWP_MSG m{};
  K_MSG k{};
  const uint32_t unknown = 0x0BADBEEF;
  const uint32_t by_low_byte = 0xFF0000FF;  // an index of 255 by its bits, and no adapter
  std::function<int()> unknown_handle[] = {
      [&] { return KWP_Init(unknown, 0, 10400, 1); },
      [&] { return KWP_5BaudInit(unknown, 0, 10400, &m, 10); },
      [&] { return KWP_FastInit(unknown, 0, 10400, &m, &m, &m, 10); },
      [&] { return KWP_Init(by_low_byte, 0, 10400, 1); },
      [&] { return KWP_FastInit(by_low_byte, 0, 10400, &m, &m, &m, 10); },
  };
  std::function<int()> refused[] = {
      [&] { return KWP_Init(kKlineHandle, 8, 10400, 1); },
      [&] { return KWP_5BaudInit(kKlineHandle, 0, 10400, nullptr, 10); },
      [&] { return KWP_FastInit(kKlineHandle, 0, 10400, &m, nullptr, &m, 10); },
      [&] { return KWP_FastInit(kKlineHandle, 8, 10400, &m, &m, &m, 10); },
      [&] { return KWP_Request(kKlineHandle, 0, nullptr); },
      [&] { return KWP_Request(kKlineHandle, 8, &m); },
      [&] { return KWP_Response(kKlineHandle, 8, &m, 10); },
      [&] { return K_Init(kKlineHandle, 8, 10400); },
      [&] { return K_5BaudInit(kKlineHandle, 8, 0x33, nullptr, nullptr); },
      [&] { return K_FastInit(kKlineHandle, 8, &k, &k, 0); },
      [&] { return K_Request(kKlineHandle, 0, &k, nullptr, 0, 10); },
  };
  for (size_t i = 0; i < std::size(unknown_handle); ++i) EXPECT_EQ(unknown_handle[i](), -200) << i;
  for (size_t i = 0; i < std::size(refused); ++i) EXPECT_EQ(refused[i](), -7) << "refused " << i;
  EXPECT_TRUE(adapter->received().empty());
  EXPECT_EQ(K_Init(unknown, 0, 10400), -2) << "the UART's code for a handle it cannot reach";
}

REGISTER_TYPED_TEST_SUITE_P(KlineCases, RequestRecordsGoOutAsTheirFormatSays,
                            InitSendsTheConfigurationAndKInitPowersTheChannel,
                            FastInitWakesTheUnitThenAnswersFillTheRecord,
                            FaultsOfTheUnitGiveTheirCodesAndFlags,
                            RecordsCarryTheDeviceTimeAtTheStartOfTheCall,
                            WakeupPatternsDriveThePinTheTableNames,
                            ResponsePollingEndsOnTheClockOnASlowAdapter,
                            BadArgumentsAreRefusedBeforeAnythingIsSent);

// The 5-baud cases take 2.5 s each; the pin commands they send are the same on every layer, so
// they run on the usbsim only.
template <class Layer>
class KlineFiveBaudCases : public KlineCases<Layer> {};
TYPED_TEST_SUITE_P(KlineFiveBaudCases);

TYPED_TEST_P(KlineFiveBaudCases, FiveBaudInitSendsTheAddressAndTradesKeyBytes) {
  Adapter adapter = this->open();
  KWP_MSG m{};
  m.Tgt = 0x33;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(KWP_5BaudInit(kKlineHandle, 0, 10400, &m, 500), 0) << this->line_story(adapter);
  // idle 300 ms, start bit, 8 bits, 200 ms each, 10 ms after the stop bit, 35 ms before ~KB2
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2145));
  EXPECT_EQ((KBytes{m.Kind, m.Status, m.Fmt, m.Len}), (KBytes{KWP_KIND_5BAUD, 0, 0, 5}));
  EXPECT_EQ(KBytes(m.Data, m.Data + 5), (KBytes{0x55, 0x08, 0x08, 0xF7, 0xCC}));
  // 0x33 least significant bit first: 1 1 0 0 1 1 0 0, after a start bit (low), then the stop
  // bit (high). Neighbouring equal bits merge into one held level.
  auto held = this->held_levels(adapter, 0);
  const std::vector<std::pair<bool, int>> bits = {{false, 0}, {true, 0}, {false, 1}, {true, 2},
                                                  {false, 2}, {true, 2}, {false, 2}, {true, 0}};
  ASSERT_EQ(held.size(), bits.size());
  for (size_t i = 0; i < bits.size(); ++i) EXPECT_EQ(held[i].first, bits[i].first) << i;
  EXPECT_GE(held[1].second, 300'000u) << "idle high";
  // 200 ms a bit as the adapter sees it, less what the pin commands' own delays may move an
  // edge by on a busy machine (the unit reads each bit in its middle)
  for (size_t i = 2; i + 1 < bits.size(); ++i)
    EXPECT_GE(held[i].second, uint64_t(bits[i].second) * 200'000u - 50'000u) << "level " << i;
  EXPECT_EQ(this->payloads(adapter, kUartWrite), (std::vector<KBytes>{{0, 0xF7}}));
}

TYPED_TEST_P(KlineFiveBaudCases, FiveBaudInitRefusesAWrongSyncByte) {
  Adapter adapter = this->open();
  this->ecu(adapter).faults.wrong_sync = true;
  KWP_MSG m{};
  m.Tgt = 0x10;
  EXPECT_EQ(KWP_5BaudInit(kKlineHandle, 0, 10400, &m, 500), -6);
  EXPECT_EQ(m.Status, KWP_STATUS_FRAME);
  EXPECT_EQ(KBytes(m.Data, m.Data + m.Len), (KBytes{0x54, 0x08, 0x08}));
  EXPECT_TRUE(this->payloads(adapter, kUartWrite).empty()) << "no inverted key byte sent";
}

TYPED_TEST_P(KlineFiveBaudCases, FiveBaudInitRefusesAWrongInvertedAddress) {
  Adapter adapter = this->open();
  ASSERT_EQ(K_Init(kKlineHandle, 0, 10400), 0);
  auto& unit = this->ecu(adapter);
  unit.faults.wrong_inverted_address = true;
  unit.config.kb1 = 0x94;
  unit.config.kb2 = 0x8F;
  uint8_t kb1 = 0, kb2 = 0;
  EXPECT_EQ(K_5BaudInit(kKlineHandle, 0, 0x10, &kb1, &kb2), -6);
  EXPECT_EQ((KBytes{kb1, kb2}), (KBytes{0x94, 0x8F}));
  EXPECT_EQ(this->payloads(adapter, kUartWrite), (std::vector<KBytes>{{0, 0x70}}));  // ~8F
}

// The inverted key byte's echo is checked like a request's, by both calls.
TYPED_TEST_P(KlineFiveBaudCases, FiveBaudInitChecksTheEchoOfTheInvertedKeyByte) {
  Adapter adapter = this->open();
  sim::set_kline_echo(*adapter, 0, sim::KlineEcho::kFlipped);
  KWP_MSG m{};
  m.Tgt = 0x10;
  EXPECT_EQ(KWP_5BaudInit(kKlineHandle, 0, 10400, &m, 500), -7);
  EXPECT_EQ((KBytes{m.Status, m.Len, m.Data[3]}), (KBytes{KWP_STATUS_ECHO, 4, 0xF7}));
  sim::set_kline_echo(*adapter, 0, sim::KlineEcho::kMissing);
  EXPECT_EQ(K_5BaudInit(kKlineHandle, 0, 0x10, nullptr, nullptr), -7);
}

REGISTER_TYPED_TEST_SUITE_P(KlineFiveBaudCases, FiveBaudInitSendsTheAddressAndTradesKeyBytes,
                            FiveBaudInitRefusesAWrongSyncByte,
                            FiveBaudInitRefusesAWrongInvertedAddress,
                            FiveBaudInitChecksTheEchoOfTheInvertedKeyByte);

}  // namespace testing_support
