// UART over a USB layer (see wire_fixture.h): the bytes of each request against the written
// layout, the polling read, bytes played on the device clock (seen by a peer on the wire), the
// write-read, refusals, failed transfers and bad input.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "sim/families/uart.h"
#include "support/wire_fixture.h"

namespace testing_support {

constexpr uint32_t kUartHandle = 0x12345678;
using UartBytes = std::vector<uint8_t>;

// 8N1 at `baud` in the adapter's layout: the rate as it lies in memory, then parity, stop bits,
// a reserved byte and the mode letter.
inline UART_CONFIG uart_config(uint32_t baud, uint8_t mode = 0) {
  UART_CONFIG c{};
  c.BaudRate = baud;
  c.Mode = mode;
  return c;
}

// A peer on the wire that writes down what the adapter sends, in device time.
struct RecordingPeer : sim::UartPeer {
  struct Event {
    int byte;  // -1: a break
    uint64_t start_us, end_us;
  };
  std::vector<Event> events;
  void on_transmit(sim::UartLine&, uint8_t byte, uint64_t end_us) override {
    events.push_back({byte, 0, end_us});
  }
  void on_break(sim::UartLine&, uint64_t start_us, uint64_t end_us) override {
    events.push_back({-1, start_us, end_us});
  }
};

template <class Layer>
class UartCases : public WireTest<Layer> {
 protected:
  // An open adapter whose channels 0-3 run 8N1 at `baud`; the transfer log starts empty.
  Adapter open_channels(uint32_t baud = 115200) {
    Adapter adapter = this->plug_and_open(kUartHandle);
    UART_CONFIG config = uart_config(baud);
    for (uint8_t ch = 0; ch < 4; ++ch) EXPECT_EQ(UART_Init(kUartHandle, ch, &config), 0);
    Layer::clear_transfers(kUartHandle);
    return adapter;
  }
  // Everything the channel has received, read until a poll comes back empty.
  static UartBytes read_all(uint8_t channel, int32_t timeout_ms = 0) {
    UartBytes got;
    uint8_t buffer[VARNEL_UART_READ_SIZE];
    for (int n; (n = UART_ReadBytes(kUartHandle, channel, buffer, timeout_ms)) > 0;)
      got.insert(got.end(), buffer, buffer + n);
    return got;
  }
};
TYPED_TEST_SUITE_P(UartCases);

// Command and length big-endian, the channel, the call's fields (16-bit ones big-endian), data.
TYPED_TEST_P(UartCases, EachCallSendsItsLayout) {
  constexpr uint32_t h = kUartHandle;
  this->open_channels();
  uint8_t w[2] = {0xA1, 0xB2}, in[VARNEL_UART_READ_SIZE];
  UART_CONFIG kline = uart_config(10400, 'B');  // 0x28A0
  struct Case {
    std::function<int()> call;
    int result;
    UartBytes wire;
  } cases[] = {
      // clang-format off
      {[&] { return UART_Init(h, 2, &kline); }, 0,
       {0, 0, 0x0A, 0, 0, 0, 0, 9, 2, 0xA0, 0x28, 0, 0, 0, 0, 0, 'B'}},
      {[&] { return UART_WriteBytes(h, 1, w, 2); }, 0, {0, 0, 0x0A, 1, 0, 0, 0, 3, 1, 0xA1, 0xB2}},
      {[&] { return UART_WriteBytesAsync(h, 2, w, 1); }, 0, {0, 0, 0x0A, 2, 0, 0, 0, 2, 2, 0xA1}},
      {[&] { return UART_ClearData(h, 3); }, 0, {0, 0, 0x0A, 4, 0, 0, 0, 1, 3}},
      {[&] { return UART_ReadBytes(h, 3, in, 0); }, 0, {0, 0, 0x0A, 3, 0, 0, 0, 1, 3}},
      {[&] { return UART_WriteBytesInterval(h, 0, w, 2, 10); }, 0,
       {0, 0, 0x0A, 5, 0, 0, 0, 4, 0, 10, 0xA1, 0xB2}},
      {[&] { return UART_WriteBytesIntervalUs(h, 1, w, 1, 200); }, 0,
       {0, 0, 0x0A, 6, 0, 0, 0, 3, 1, 200, 0xA1}},
      {[&] { return UART_WriteBytesWithBreak(h, 0, 13, w, 2); }, 0,
       {0, 0, 0x0A, 7, 0, 0, 0, 4, 0, 13, 0xA1, 0xB2}},
      {[&] { return UART_WriteBytesAsyncWithBreak(h, 3, 0, w, 1); }, 0,
       {0, 0, 0x0A, 8, 0, 0, 0, 3, 3, 0, 0xA1}},
      // the loopback gives back the asynchronous byte and this one: 2 of the 0x0102 asked for
      {[&] { return UART_WriteReadBytesWithBreak(h, 2, 13, w, 1, in, 0x0102, 0x0304); }, 2,
       {0, 0, 0x0A, 9, 0, 0, 0, 7, 2, 13, 0x01, 0x02, 0x03, 0x04, 0xA1}},
      {[&] { return UART_Stop(h, 7); }, 0, {0, 0, 0x0A, 0x0A, 0, 0, 0, 1, 7}},
      // clang-format on
  };
  for (auto& c : cases) {
    EXPECT_EQ(c.call(), c.result) << testing::PrintToString(c.wire);
    EXPECT_EQ(this->take_request(kUartHandle), c.wire);
  }
}

// The loopback plug of power-up gives back what was sent, in order; a sent byte stays until read
// or cleared, and a channel joined to another by a cable hears that one instead.
TYPED_TEST_P(UartCases, BytesComeBackOnTheLoopbackOrOnTheJoinedChannel) {
  constexpr uint32_t h = kUartHandle;
  Adapter adapter = this->open_channels();
  const UartBytes hello{'h', 'e', 'l', 'l', 'o'};
  ASSERT_EQ(UART_WriteBytes(h, 0, hello.data(), 5), 0);
  ASSERT_EQ(UART_WriteBytesWithBreak(h, 0, 13, hello.data(), 2), 0);  // the break is not a byte
  EXPECT_EQ(this->read_all(0), (UartBytes{'h', 'e', 'l', 'l', 'o', 'h', 'e'}));
  ASSERT_EQ(UART_WriteBytes(h, 0, hello.data(), 3), 0);
  ASSERT_EQ(UART_ClearData(h, 0), 0);
  EXPECT_EQ(this->read_all(0), UartBytes{});
  sim::uart_model(*adapter).join(1, 2);
  ASSERT_EQ(UART_WriteBytesIntervalUs(h, 1, hello.data(), 5, 50), 0);
  EXPECT_EQ(this->read_all(1), UartBytes{});
  EXPECT_EQ(this->read_all(2), hello);
  // more than one reply carries comes in pieces of VARNEL_UART_READ_SIZE
  UartBytes big(VARNEL_UART_READ_SIZE + 10);
  for (size_t i = 0; i < big.size(); ++i) big[i] = uint8_t(i * 7);
  ASSERT_EQ(UART_WriteBytes(h, 3, big.data(), int32_t(big.size())), 0);
  uint8_t in[VARNEL_UART_READ_SIZE];
  EXPECT_EQ(UART_ReadBytes(h, 3, in, 0), VARNEL_UART_READ_SIZE);
  EXPECT_EQ(UART_ReadBytes(h, 3, in, 0), 10);
  EXPECT_EQ(UartBytes(in, in + 10), UartBytes(big.end() - 10, big.end()));
}

// Nothing received: a time-out of 0 or below polls exactly once; a longer one polls until it has
// passed, letting go of the adapter between polls: a write from another thread gets through while
// it waits, and the read returns what that write brought.
TYPED_TEST_P(UartCases, ReadPollsUntilItsTimeOutLettingOtherCallsThrough) {
  constexpr uint32_t h = kUartHandle;
  Adapter adapter = this->open_channels();
  uint8_t in[VARNEL_UART_READ_SIZE];
  for (int32_t timeout_ms : {0, -5}) {
    EXPECT_EQ(UART_ReadBytes(h, 0, in, timeout_ms), 0);
    EXPECT_EQ(this->requests_sent(kUartHandle), 1u);
    TypeParam::clear_transfers(h);
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(UART_ReadBytes(h, 0, in, 30), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
  sim::uart_model(*adapter).join(0, 1);
  TypeParam::clear_transfers(h);
  int got = -100;
  std::thread reader([&] { got = UART_ReadBytes(h, 0, in, 5000); });
  while (this->requests_sent(kUartHandle) < 3) std::this_thread::yield();  // it is polling
  const uint8_t w[3] = {7, 8, 9};
  EXPECT_EQ(UART_WriteBytes(h, 1, w, 3), 0);
  reader.join();
  EXPECT_EQ(got, 3);
  EXPECT_EQ(UartBytes(in, in + 3), (UartBytes{7, 8, 9}));
}

// Device time: 10 bits a byte at the baud rate (rounded down from the start of the write), the
// pause between bytes, a break of its bit times and a one-bit delimiter before the first byte.
TYPED_TEST_P(UartCases, WritesArePlayedOnTheDeviceClock) {
  constexpr uint32_t h = kUartHandle;
  Adapter adapter = this->open_channels(9600);
  auto peer = std::make_shared<RecordingPeer>();
  sim::uart_model(*adapter).attach(0, peer);
  const uint8_t w[3] = {1, 2, 3};
  auto gaps = [&] {
    std::vector<uint64_t> out;
    for (size_t i = 1; i < peer->events.size(); ++i)
      out.push_back(peer->events[i].end_us - peer->events[i - 1].end_us);
    peer->events.clear();
    return out;
  };
  // 10 / 9600 s = 1041.67 us: ends at 1041, 2083, 3125 us
  ASSERT_EQ(UART_WriteBytes(h, 0, w, 3), 0);
  EXPECT_EQ(gaps(), (std::vector<uint64_t>{1042, 1042}));
  ASSERT_EQ(UART_WriteBytesInterval(h, 0, w, 3, 10), 0);
  EXPECT_EQ(gaps(), (std::vector<uint64_t>{11042, 11042}));
  ASSERT_EQ(UART_WriteBytesIntervalUs(h, 0, w, 2, 250), 0);
  EXPECT_EQ(gaps(), (std::vector<uint64_t>{1292}));
  // 13 bits of break: 1354.17 us; the byte ends 13 + 1 + 10 bits = 2500 us after the break began
  ASSERT_EQ(UART_WriteBytesWithBreak(h, 0, 13, w, 1), 0);
  ASSERT_EQ(peer->events.size(), 2u);
  EXPECT_EQ(peer->events[0].byte, -1);
  EXPECT_EQ(peer->events[0].end_us - peer->events[0].start_us, 1354u);
  EXPECT_EQ(peer->events[1].end_us - peer->events[0].start_us, 2500u);
  // a synchronous write answers when its bytes are out: the device clock has passed the last
  const uint64_t last_end = peer->events[1].end_us;
  EXPECT_GE(adapter->clock().now_us(), last_end);
  peer->events.clear();
  UART_CONFIG even_two_stop = uart_config(9600);  // 12 bits a byte: 1250 us
  even_two_stop.Parity = 2;
  even_two_stop.StopBits = 2;
  ASSERT_EQ(UART_Init(h, 0, &even_two_stop), 0);
  ASSERT_EQ(UART_WriteBytes(h, 0, w, 2), 0);
  EXPECT_EQ(gaps(), (std::vector<uint64_t>{1250}));
  // an asynchronous one answers at once; its bytes arrive as the device clock gets there
  peer->events.clear();
  UART_CONFIG slow = uart_config(300);  // 33.3 ms a byte
  ASSERT_EQ(UART_Init(h, 0, &slow), 0);
  (void)this->read_all(0);
  ASSERT_EQ(UART_WriteBytesAsync(h, 0, w, 3), 0);
  ASSERT_EQ(peer->events.size(), 3u);
  EXPECT_LT(adapter->clock().now_us(), peer->events[2].end_us);
  EXPECT_EQ(this->read_all(0, 500), (UartBytes{1, 2, 3}));
  EXPECT_GE(adapter->clock().now_us(), peer->events[2].end_us);
}

// What a peer puts on the line is read once the device clock reaches its time; the write-read
// takes what arrives within its time-out, up to the length asked for, and leaves the rest.
TYPED_TEST_P(UartCases, WriteReadTakesWhatArrivesWithinItsTimeOut) {
  constexpr uint32_t h = kUartHandle;
  Adapter adapter = this->open_channels(19200);
  auto& model = sim::uart_model(*adapter);
  model.set_echo(0, false);
  struct Answering : sim::UartPeer {
    void on_transmit(sim::UartLine& line, uint8_t byte, uint64_t end_us) override {
      // two bytes back, 20 ms and 60 ms after each request byte
      line.deliver(uint8_t(byte + 1), end_us + 20000);
      line.deliver(uint8_t(byte + 2), end_us + 60000);
    }
  };
  model.attach(0, std::make_shared<Answering>());
  uint8_t w = 0x10, in[8] = {};
  EXPECT_EQ(UART_WriteReadBytesWithBreak(h, 0, 0, &w, 1, in, 4, 40), 1);  // the first in time
  EXPECT_EQ(in[0], 0x11);
  EXPECT_EQ(UART_WriteReadBytesWithBreak(h, 0, 0, &w, 1, in, 1, 1000), 1);
  EXPECT_EQ(in[0], 0x12);  // the late one of the first request
  EXPECT_EQ(UART_WriteReadBytesWithBreak(h, 0, 0, &w, 1, in, 0, 1000), 0);
  // the answers to the last two requests and to this one, sent within 2 ms: in order of time
  EXPECT_EQ(UART_WriteReadBytesWithBreak(h, 0, 0, &w, 1, in, 8, 100), 6);
  EXPECT_EQ(UartBytes(in, in + 6), (UartBytes{0x11, 0x11, 0x11, 0x12, 0x12, 0x12}));
  // in order of time; of equal times, in the order delivered
  const uint64_t at = model.now_us() + 50000;
  model.line(0).deliver(0x77, at + 10);
  model.line(0).deliver(0x55, at);
  model.line(0).deliver(0x66, at);
  EXPECT_EQ(this->read_all(0), UartBytes{});  // not arrived yet
  EXPECT_EQ(this->read_all(0, 300), (UartBytes{0x55, 0x66, 0x77}));
}

// The firmware refuses what an idle channel cannot do; reads of an idle channel find nothing.
TYPED_TEST_P(UartCases, IdleChannelsAndBadRepliesGiveTheirCodes) {
  constexpr uint32_t h = kUartHandle;
  Adapter adapter = this->plug_and_open(h);
  uint8_t w[2] = {1, 2}, in[VARNEL_UART_READ_SIZE];
  EXPECT_EQ(UART_WriteBytes(h, 0, w, 2), -4);
  EXPECT_EQ(UART_WriteBytesIntervalUs(h, 0, w, 2, 1), -4);
  EXPECT_EQ(UART_ClearData(h, 0), -4);
  EXPECT_EQ(UART_ReadBytes(h, 0, in, 0), 0);
  EXPECT_EQ(UART_WriteReadBytesWithBreak(h, 0, 0, w, 2, in, 2, 10), 0);
  UART_CONFIG zero_baud = uart_config(0), two_stop = uart_config(9600);
  two_stop.StopBits = 3;
  EXPECT_EQ(UART_Init(h, 0, &zero_baud), -4);
  EXPECT_EQ(UART_Init(h, 0, &two_stop), -4);
  UART_CONFIG config = uart_config(115200);
  ASSERT_EQ(UART_Init(h, 0, &config), 0);
  ASSERT_EQ(UART_Stop(h, 0), 0);
  EXPECT_EQ(UART_WriteBytes(h, 0, w, 2), -4);  // stopped
  ASSERT_EQ(UART_Init(h, 0, &config), 0);

  using Kind = sim::ReplyFault::Kind;
  struct Case {
    sim::ReplyFault fault;
    std::function<int()> call;
  } cases[] = {
      // the UART's own checks (acknowledgements are the transport's): 2 bytes announced, 1 sent
      {{Kind::kShort, 1, 0xA09},
       [&] { return UART_WriteReadBytesWithBreak(h, 0, 0, w, 2, in, 2, 10); }},
      {{Kind::kAnnounceLength, VARNEL_UART_READ_SIZE + 1, 0xA03},
       [&] { return UART_ReadBytes(h, 0, in, 0); }},
      {{Kind::kAnnounceLength, 3, 0xA09},
       [&] { return UART_WriteReadBytesWithBreak(h, 0, 0, w, 2, in, 2, 10); }},
  };
  for (auto& c : cases) {
    adapter->faults().next_reply(c.fault);
    EXPECT_EQ(c.call(), -4) << int(c.fault.kind);
  }
  TypeParam::fail_next_read(h);
  EXPECT_EQ(UART_ReadBytes(h, 0, in, 0), -4);
  // gone: the write is retried for its 3 s, then the read gives up at once, whatever its time-out
  TypeParam::unplug(h);
  EXPECT_EQ(UART_ReadBytes(h, 0, in, 60000), -2);
}

TYPED_TEST_P(UartCases, BadArgumentsAreRefusedBeforeAnythingIsSent) {
  constexpr uint32_t h = kUartHandle;
  this->open_channels();
  uint8_t w[2] = {1, 2}, in[VARNEL_UART_READ_SIZE];
  UART_CONFIG config = uart_config(9600);
  std::function<int()> refused[] = {
      [&] { return UART_Init(h, 0, nullptr); },
      [&] { return UART_Init(h, 8, &config); },
      [&] { return UART_WriteBytes(h, 0, nullptr, 1); },
      [&] { return UART_WriteBytes(h, 0, w, -1); },
      [&] { return UART_WriteBytes(h, 0, w, VARNEL_UART_MAX_LENGTH + 1); },
      [&] { return UART_WriteBytesAsync(h, 8, w, 1); },
      [&] { return UART_ReadBytes(h, 0, nullptr, 0); },
      [&] { return UART_ReadBytes(h, 255, in, 0); },
      [&] { return UART_ClearData(h, 8); },
      [&] { return UART_WriteBytesInterval(h, 0, nullptr, 2, 1); },
      [&] { return UART_WriteBytesIntervalUs(h, 9, w, 2, 1); },
      [&] { return UART_WriteBytesWithBreak(h, 0, 13, nullptr, 1); },
      [&] { return UART_WriteBytesAsyncWithBreak(h, 0, 13, w, -2); },
      [&] { return UART_WriteReadBytesWithBreak(h, 0, 0, w, 1, nullptr, 1, 10); },
      [&] { return UART_WriteReadBytesWithBreak(h, 0, 0, nullptr, 1, in, 1, 10); },
      [&] { return UART_WriteReadBytesWithBreak(h, 8, 0, w, 1, in, 1, 10); },
      [&] { return UART_Stop(h, 8); },
  };
  for (auto& call : refused) EXPECT_EQ(call(), -7);
  EXPECT_EQ(this->requests_sent(kUartHandle), 0u);
  // nothing to send needs no buffer; nothing to read neither
  EXPECT_EQ(UART_WriteBytes(h, 0, nullptr, 0), 0);
  EXPECT_EQ(UART_WriteReadBytesWithBreak(h, 1, 0, w, 1, nullptr, 0, 10), 0);
  EXPECT_EQ(UART_Init(h, VARNEL_UART_MAX_CHANNELS - 1, &config), 0);
  const std::vector<uint8_t> longest(VARNEL_UART_MAX_LENGTH);  // 65536: the most one write takes
  EXPECT_EQ(UART_WriteBytesAsync(h, 2, longest.data(), int32_t(longest.size())), 0);
}

REGISTER_TYPED_TEST_SUITE_P(UartCases, EachCallSendsItsLayout,
                            BytesComeBackOnTheLoopbackOrOnTheJoinedChannel,
                            ReadPollsUntilItsTimeOutLettingOtherCallsThrough,
                            WritesArePlayedOnTheDeviceClock,
                            WriteReadTakesWhatArrivesWithinItsTimeOut,
                            IdleChannelsAndBadRepliesGiveTheirCodes,
                            BadArgumentsAreRefusedBeforeAnythingIsSent);

}  // namespace testing_support
