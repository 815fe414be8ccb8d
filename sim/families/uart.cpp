// UART firmware of the virtual adapter: commands 0xA00-0xA0A. Writes are played on the device
// clock: the synchronous ones answer when their last byte has gone (the clock moved on by the
// time it took), the asynchronous ones at once, their bytes still due.
#include "sim/families/uart.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim/bus/serial_scene_text.h"
#include "sim/virtual_adapter.h"

namespace sim {

// ---- the channel as its wire sees it

void UartModel::Channel::deliver(uint8_t byte, uint64_t end_us) {
  std::lock_guard guard(model_->mutex());
  if (received.size() >= kReceiveBuffer) {
    ++overruns;
    return;
  }
  if (received.empty() || received.back().end_us <= end_us) {
    received.push_back(Byte{byte, end_us});  // the usual case: after everything queued
    return;
  }
  auto after = std::upper_bound(received.begin(), received.end(), end_us,
                                [](uint64_t t, const Byte& b) { return t < b.end_us; });
  received.insert(after, Byte{byte, end_us});
}

uint64_t UartModel::Channel::now_us() const {
  return model_->now_us();
}

std::array<uint8_t, 8> UartModel::Channel::config() const {
  std::lock_guard guard(model_->mutex());
  return configuration;
}

uint32_t UartModel::Channel::baud() const {
  uint32_t b;
  std::memcpy(&b, configuration.data(), 4);  // host order, as UART_Init sends it
  return b;
}

// Start bit, 8 data bits, a parity bit (byte 4: 1 odd, 2 even), one or two stop bits (byte 5).
uint32_t UartModel::Channel::bits_per_byte() const {
  return 10u + (configuration[4] != 0 ? 1u : 0u) + (configuration[5] == 2 ? 1u : 0u);
}

uint64_t UartModel::Channel::byte_time_us() const {
  std::lock_guard guard(model_->mutex());
  const uint32_t rate = baud();
  return rate ? uint64_t(bits_per_byte()) * 1000000u / rate : 0;
}

// ---- the model

UartModel::UartModel() {
  for (auto& c : channels_) c.model_ = this;
  const char* text = std::getenv("VARNEL_SIM_UART_TRAFFIC");
  if (!text || !*text) return;
  std::string bad;
  const auto traffic = scene_text::parse_uart_traffic(text, &bad);
  if (!traffic) {
    std::fprintf(stderr, "varnel-sim: VARNEL_SIM_UART_TRAFFIC: '%s' is not CH#HEX@MS\n",
                 bad.c_str());
    return;
  }
  for (const auto& t : *traffic)
    talkers_.push_back({t.channel, t.bytes, uint64_t(t.period_ms) * 1000, 0});
}

void UartModel::play_talkers() {
  const uint64_t now = now_us();
  for (Talker& t : talkers_) {
    Channel& c = channel(t.channel);
    if (!c.initialised) {
      t.next_us = 0;  // starts again with the channel
      continue;
    }
    if (t.next_us == 0) t.next_us = now;
    for (; t.next_us <= now; t.next_us += t.period_us) {
      const uint64_t byte_us = std::max<uint64_t>(c.byte_time_us(), 1);
      for (size_t i = 0; i < t.bytes.size(); ++i)
        c.deliver(t.bytes[i], t.next_us + (i + 1) * byte_us);
    }
  }
}

uint64_t UartModel::now_us() const {
  return clock_ ? clock_->now_us() : 0;
}

void UartModel::join(int a, int b) {
  std::lock_guard guard(mutex_);
  channel(a).partner = b;
  channel(b).partner = a;
  channel(a).echo = channel(b).echo = false;
}

void UartModel::set_echo(int index, bool on) {
  std::lock_guard guard(mutex_);
  channel(index).echo = on;
}

void UartModel::attach(int index, std::shared_ptr<UartPeer> peer) {
  std::lock_guard guard(mutex_);
  channel(index).peer = std::move(peer);
}

std::vector<uint8_t> UartModel::arrived(int index) {
  std::lock_guard guard(mutex_);
  const uint64_t now = now_us();
  std::vector<uint8_t> out;
  for (const auto& b : channel(index).received)
    if (b.end_us <= now) out.push_back(b.value);
  return out;
}

void UartModel::hear(int index, uint8_t byte, uint64_t end_us) {
  Channel& c = channel(index);
  if (c.echo) c.deliver(byte, end_us);
  if (c.partner >= 0) channel(c.partner).deliver(byte, end_us);
  if (c.peer) c.peer->on_transmit(c, byte, end_us);
}

uint64_t UartModel::transmit(int index, const std::vector<uint8_t>& bytes, uint8_t break_bits,
                             uint64_t gap_us) {
  std::lock_guard guard(mutex_);
  Channel& c = channel(index);
  const uint64_t start = std::max(now_us(), c.transmitter_free_us);
  const uint64_t rate = std::max<uint32_t>(c.baud(), 1);
  // Times count whole bits from the start so that rounding does not add up over a long write.
  uint64_t bits = 0, pauses = 0;
  auto at = [&] { return start + bits * 1000000u / rate + pauses; };
  if (break_bits) {
    bits = break_bits;
    if (c.peer) c.peer->on_break(c, start, at());
    bits += 1;  // the delimiter: the line high for a bit before the first start bit
  }
  const bool heard = c.echo || c.partner >= 0 || c.peer;
  if (!heard && !bytes.empty()) {  // nobody listens: only the end matters
    pauses += gap_us * (bytes.size() - 1);
    bits += uint64_t(c.bits_per_byte()) * bytes.size();
  }
  for (size_t i = 0; heard && i < bytes.size(); ++i) {
    if (i) pauses += gap_us;
    bits += c.bits_per_byte();
    hear(index, bytes[i], at());
  }
  c.transmitter_free_us = at();
  return c.transmitter_free_us;
}

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kInit = 0xA00, kWrite = 0xA01, kWriteAsync = 0xA02, kRead = 0xA03,
                   kClear = 0xA04, kWriteInterval = 0xA05, kWriteIntervalUs = 0xA06,
                   kWriteBreak = 0xA07, kWriteAsyncBreak = 0xA08, kWriteReadBreak = 0xA09,
                   kStop = 0xA0A;

std::optional<Packet> refused(uint32_t command, uint8_t status) {
  return reply_with(command, {status});
}

void advance_to(VirtualAdapter& adapter, uint64_t at_us) {
  const uint64_t now = adapter.clock().now_us();
  if (at_us > now) adapter.clock().advance_us(at_us - now);
}

// The bytes that have arrived by `until`, oldest first, at most `limit`.
Bytes take_arrived(UartModel::Channel& c, uint64_t until, size_t limit) {
  Bytes out;
  while (!c.received.empty() && c.received.front().end_us <= until && out.size() < limit) {
    out.push_back(c.received.front().value);
    c.received.pop_front();
  }
  return out;
}

std::optional<Packet> init(UartModel::Channel& c, const Bytes& p) {
  if (p.size() != 9) return refused(kInit, UartModel::kBadRequest);
  std::array<uint8_t, 8> record;
  std::copy(p.begin() + 1, p.end(), record.begin());
  uint32_t baud;
  std::memcpy(&baud, record.data(), 4);
  if (baud == 0 || record[4] > 2 || record[5] > 2) return refused(kInit, UartModel::kBadRequest);
  // Reconfiguring keeps what the buffer holds; UART_ClearData is there to drop it.
  c.configuration = record;
  c.initialised = true;
  if (c.peer) c.peer->on_init(c);
  return reply_with(kInit);
}

// Plain, paced and break writes: [field], data. Synchronous ones answer when the bytes are out.
std::optional<Packet> write(VirtualAdapter& adapter, UartModel& model, int ch,
                            const Packet& request) {
  const uint32_t command = request.command;
  const Bytes& p = request.payload;
  const bool has_field = command != kWrite && command != kWriteAsync;
  if (p.size() < (has_field ? 2u : 1u)) return refused(command, UartModel::kBadRequest);
  const uint8_t field = has_field ? p[1] : 0;
  const Bytes data(p.begin() + (has_field ? 2 : 1), p.end());
  const bool breaks = command == kWriteBreak || command == kWriteAsyncBreak;
  const uint64_t gap_us = command == kWriteInterval     ? uint64_t(field) * 1000
                          : command == kWriteIntervalUs ? field
                                                        : 0;
  const uint64_t end = model.transmit(ch, data, breaks ? field : 0, gap_us);
  if (command != kWriteAsync && command != kWriteAsyncBreak) advance_to(adapter, end);
  return reply_with(command);
}

// Break and bytes, then what arrives until the read length is reached or the time-out (from the
// end of the transmission) is over; the clock moves on to whichever came first.
std::optional<Packet> write_read(VirtualAdapter& adapter, UartModel& model, int ch,
                                 const Packet& request) {
  const Bytes& p = request.payload;
  if (p.size() < 6) return reply_with(kWriteReadBreak);
  const size_t wanted = size_t(p[2] << 8 | p[3]);
  const uint64_t timeout_us = uint64_t(p[4] << 8 | p[5]) * 1000;
  const uint64_t end = model.transmit(ch, Bytes(p.begin() + 6, p.end()), p[1], 0);
  UartModel::Channel& c = model.channel(ch);
  const uint64_t deadline = std::max(end, model.now_us()) + timeout_us;
  Bytes got;
  uint64_t finished = end;
  while (got.size() < wanted && !c.received.empty() && c.received.front().end_us <= deadline) {
    finished = std::max(finished, c.received.front().end_us);
    got.push_back(c.received.front().value);
    c.received.pop_front();
  }
  advance_to(adapter, got.size() == wanted ? finished : deadline);
  return reply_with(kWriteReadBreak, std::move(got));
}

std::optional<Packet> handle_uart(VirtualAdapter& adapter, const Packet& request) {
  UartModel& model = uart_model(adapter);
  std::lock_guard guard(model.mutex());
  model.play_talkers();
  const Bytes& p = request.payload;
  const uint32_t command = request.command;
  const bool carries_data = command == kRead || command == kWriteReadBreak;
  // A command that returns received bytes cannot be refused with a status byte (it would read as
  // data): an unknown or idle channel has received nothing.
  if (p.empty() || p[0] >= UartModel::kChannels)
    return carries_data ? reply_with(command) : refused(command, UartModel::kBadRequest);
  const int ch = p[0];
  UartModel::Channel& c = model.channel(ch);
  if (command == kInit) return init(c, p);
  if (command == kStop) {
    c.initialised = false;
    c.received.clear();
    return reply_with(kStop);
  }
  if (!c.initialised)
    return carries_data ? reply_with(command) : refused(command, UartModel::kNotInitialised);
  switch (command) {
    case kRead:
      return reply_with(kRead, take_arrived(c, model.now_us(), UartModel::kFetchLimit));
    case kClear:
      take_arrived(c, model.now_us(), SIZE_MAX);
      return reply_with(kClear);
    case kWriteReadBreak:
      return write_read(adapter, model, ch, request);
    default:
      return write(adapter, model, ch, request);
  }
}

}  // namespace

UartModel& uart_model(VirtualAdapter& adapter) {
  return adapter.state<UartModel>();
}

void install_uart(VirtualAdapter& adapter) {
  uart_model(adapter).bind_clock(adapter.clock());
  adapter.on(kInit, kStop, handle_uart);
}

VARNEL_SIM_FAMILY(install_uart)

}  // namespace sim
