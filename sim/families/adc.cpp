// ADC commands (0x500 block) of the virtual adapter's firmware; request fields big-endian.
#include "sim/families/adc.h"

#include <bit>

#include "sim/virtual_adapter.h"

namespace sim {
namespace {

enum : uint32_t { kInit = 0x500, kRead = 0x501, kStreamStart = 0x502 };
constexpr uint8_t kRequestStreamStop = 0x40;

Packet refused(uint32_t command) {
  return reply_with(command, {1});
}

// The stream's next packet once the sample clock has reached its end, else nothing.
std::vector<uint8_t> due_packet(VirtualAdapter& adapter) {
  AdcModel& model = adc_model(adapter);
  std::lock_guard guard(model.mutex);
  AdcModel::Stream& s = model.stream;
  if (!s.running) return {};
  const uint64_t elapsed_us = adapter.clock().now_us() - s.start_us;
  const auto samples_due = static_cast<unsigned __int128>(elapsed_us) * s.rate *
                           unsigned(std::popcount(s.mask)) / 1000000u;
  if (samples_due < static_cast<unsigned __int128>(s.samples) + s.packet_samples) return {};
  std::vector<uint8_t> packet =
      adc_samples(model.signals, s.mask, s.rate, s.samples, s.packet_samples);
  s.samples += s.packet_samples;
  ++s.packets;
  return packet;
}

Packet start_stream(VirtualAdapter& adapter, const Packet& request) {
  const auto& p = request.payload;
  if (p.size() != 9) return refused(kStreamStart);
  AdcModel& model = adc_model(adapter);
  {
    std::lock_guard guard(model.mutex);
    AdcModel::Stream& s = model.stream;
    s = {};
    s.mask = p[0];
    s.rate = be32(p, 1);
    s.packet_samples = be32(p, 5);
    if (s.mask == 0 || s.rate == 0 || s.packet_samples == 0 ||
        uint64_t(s.packet_samples) * 2 > adapter.reply_limit())
      return refused(kStreamStart);
    s.running = true;
    s.start_us = adapter.clock().now_us();
  }
  adapter.set_stream_source([&adapter] { return due_packet(adapter); });
  return reply_with(kStreamStart);
}

void stop_stream(VirtualAdapter& adapter) {
  AdcModel& model = adc_model(adapter);
  {
    std::lock_guard guard(model.mutex);
    model.stream.running = false;
    ++model.stops;
  }
  adapter.set_stream_source(nullptr);
}

Packet block_read(VirtualAdapter& adapter, const Packet& request) {
  if (request.payload.size() != 4) return refused(kRead);
  const uint64_t per_input = be32(request.payload, 0);
  AdcModel& model = adc_model(adapter);
  std::lock_guard guard(model.mutex);
  const unsigned inputs = unsigned(std::popcount(model.mask));
  if (per_input * inputs * 2 > adapter.reply_limit()) return refused(kRead);
  Packet reply = reply_with(kRead, adc_samples(model.signals, model.mask, model.rate,
                                               model.next_instant * inputs, per_input * inputs));
  model.next_instant += per_input;
  // The conversion takes its time on the device; the clock moves instead of the handler waiting.
  if (model.rate > 0) adapter.clock().advance_us(per_input * 1000000 / model.rate);
  return reply;
}

std::optional<Packet> handle_adc(VirtualAdapter& adapter, const Packet& request) {
  AdcModel& model = adc_model(adapter);
  switch (request.command) {
    case kInit: {
      if (request.payload.size() != 5) return refused(kInit);
      std::lock_guard guard(model.mutex);
      model.mask = request.payload[0];
      model.rate = be32(request.payload, 1);
      model.next_instant = 0;  // a new configuration starts the conversion over
      return reply_with(kInit);
    }
    case kRead:
      return block_read(adapter, request);
    case kStreamStart:
      return start_stream(adapter, request);
    default:
      return refused(request.command);
  }
}

}  // namespace

std::vector<uint8_t> adc_samples(const AdcSignals& signals, uint8_t mask, uint32_t rate,
                                 uint64_t first, uint64_t count) {
  int inputs[AdcSignals::kInputs];
  int n = 0;
  for (int input = 0; input < AdcSignals::kInputs; ++input)
    if (mask >> input & 1) inputs[n++] = input;
  std::vector<uint8_t> bytes;
  if (n == 0) return bytes;
  bytes.reserve(size_t(count) * 2);
  for (uint64_t i = first; i < first + count; ++i) {
    const uint16_t value = signals.sample(inputs[i % unsigned(n)], i / unsigned(n), rate);
    bytes.push_back(uint8_t(value));
    bytes.push_back(uint8_t(value >> 8));
  }
  return bytes;
}

AdcModel& adc_model(VirtualAdapter& adapter) {
  return adapter.state<AdcModel>();
}

void install_adc(VirtualAdapter& adapter) {
  adapter.on(kInit, kStreamStart, handle_adc);
  adapter.on_control(kRequestStreamStop, stop_stream);
}

VARNEL_SIM_FAMILY(install_adc)

}  // namespace sim
