// SPI commands (0x200 block) of the virtual adapter's firmware; multi-byte fields big-endian.
#include "sim/families/spi.h"

#include <algorithm>
#include <cstdlib>

#include "sim/virtual_adapter.h"

namespace sim {
namespace {

// Our firmware's reading of the flash description: which command byte does what. Bytes 8 to 11
// are the 4-byte-address forms of read, fast read, program and sector erase (0: none).
constexpr size_t kWriteEnable = 0, kRead = 1, kFastRead = 2, kProgram = 3, kReadId = 4,
                 kSectorErase = 6;
constexpr uint64_t kThreeByteSpan = uint64_t(1) << 24;
constexpr size_t kKeptSessions = 4096;

uint32_t be32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
uint16_t be16(const uint8_t* p) {
  return uint16_t(p[0] << 8 | p[1]);
}

Packet refused(uint32_t command) {
  return reply_with(command, {1});
}

// The command a range needs: the 4-byte form (bytes 8 to 11 for 1, 2, 3 and 6) when there is one
// and the flash is larger than 16 MiB or the range reaches past it; the 3-byte form while the range
// stays below 16 MiB; nothing (refused) past 16 MiB without a 4-byte form or past the flash.
std::optional<std::vector<uint8_t>> with_address(const SpiModel::Channel& ch, size_t slot,
                                                 uint64_t address, uint64_t length) {
  const uint64_t end = address + length, size = ch.flash.size();
  if (end > size) return std::nullopt;
  const uint8_t four_byte = ch.commands[slot == kSectorErase ? 11 : slot + 7];
  const bool past_three_bytes = address >= kThreeByteSpan || end > kThreeByteSpan;
  if (four_byte != 0 && (size > kThreeByteSpan || past_three_bytes))
    return std::vector<uint8_t>{four_byte, uint8_t(address >> 24), uint8_t(address >> 16),
                                uint8_t(address >> 8), uint8_t(address)};
  if (past_three_bytes) return std::nullopt;
  return std::vector<uint8_t>{ch.commands[slot], uint8_t(address >> 16), uint8_t(address >> 8),
                              uint8_t(address)};
}

// Every session the flash sees is kept for the tests, the newest few thousand.
void keep_session(SpiModel::Channel& ch, std::vector<uint8_t> session) {
  if (ch.sessions.size() >= kKeptSessions)
    ch.sessions.erase(ch.sessions.begin(), ch.sessions.begin() + kKeptSessions / 2);
  ch.sessions.push_back(std::move(session));
}

std::vector<uint8_t> run_session(VirtualAdapter& adapter, SpiModel::Channel& ch,
                                 std::vector<uint8_t> session, size_t read_length) {
  keep_session(ch, session);
  return ch.flash.transfer(session, read_length, adapter.clock().now_us());
}

// A program or erase on the flash, the device clock moved past its busy time.
void wait_idle(VirtualAdapter& adapter, SpiModel::Channel& ch) {
  const uint64_t now = adapter.clock().now_us(), until = ch.flash.busy_until_us();
  if (until > now) adapter.clock().advance_us(until - now);
}

void run_and_wait(VirtualAdapter& adapter, SpiModel::Channel& ch, std::vector<uint8_t> session) {
  wait_idle(adapter, ch);  // as the firmware polls the status before it starts
  run_session(adapter, ch, {ch.commands[kWriteEnable]}, 0);
  run_session(adapter, ch, std::move(session), 0);
  wait_idle(adapter, ch);
}

std::optional<Packet> flash_command(VirtualAdapter& adapter, SpiModel::Channel& ch,
                                    const Packet& request) {
  const auto& in = request.payload;
  const uint32_t command = request.command;
  if (command == 0x207) {
    if (in.size() != 49) return refused(command);
    std::copy(in.begin() + 5, in.begin() + 37, ch.commands.begin());
    ch.flash_known = true;
    return reply_with(command);
  }
  if (!ch.flash_known) return refused(command);
  const uint64_t now = adapter.clock().now_us();
  if (command == 0x208)
    return reply_with(command,
                      ch.flash.transfer(std::vector<uint8_t>{ch.commands[kReadId]}, 3, now));
  if (in.size() < 5) return refused(command);
  const uint32_t address = be32(&in[1]);
  switch (command) {
    case 0x209: {  // program page by page
      const size_t length = in.size() - 5;
      if (!with_address(ch, kProgram, address, length)) return refused(command);
      for (size_t done = 0; done < length;) {
        const size_t at = address + done;
        const size_t n = std::min(length - done, SpiNorFlash::kPage - at % SpiNorFlash::kPage);
        auto session = *with_address(ch, kProgram, at, n);
        session.insert(session.end(), in.begin() + 5 + ptrdiff_t(done),
                       in.begin() + 5 + ptrdiff_t(done + n));
        run_and_wait(adapter, ch, session);
        done += n;
      }
      return reply_with(command);
    }
    case 0x20A:
    case 0x20C: {
      if (in.size() != 9) return refused(command);
      const uint32_t length = be32(&in[5]);
      auto session = with_address(ch, command == 0x20A ? kRead : kFastRead, address, length);
      if (!session) return refused(command);
      if (command == 0x20C) session->push_back(0);  // the dummy byte
      return reply_with(command, run_session(adapter, ch, *session, length));
    }
    case 0x20B: {
      if (in.size() != 9) return refused(command);
      const uint64_t first = address / SpiNorFlash::kSector * SpiNorFlash::kSector;
      const uint64_t length = uint64_t(be32(&in[5])) * SpiNorFlash::kSector;
      if (!with_address(ch, kSectorErase, first, length)) return refused(command);
      for (uint64_t at = first; at < first + length; at += SpiNorFlash::kSector)
        run_and_wait(adapter, ch, *with_address(ch, kSectorErase, at, SpiNorFlash::kSector));
      return reply_with(command);
    }
    default:
      return std::nullopt;
  }
}

// Blocks (0x20D-0x20F) and event-started transfers (0x213-0x218): sizes big-endian, the event
// fields (pins, type, wait) after the block fields; each block is one session of the flash.
std::optional<Packet> blocks_and_events(VirtualAdapter& adapter, SpiModel::Channel& ch,
                                        const Packet& request) {
  const auto& in = request.payload;
  const uint32_t command = request.command;
  const bool event = command >= 0x213,
             block = command != 0x213 && command != 0x214 && command != 0x215;
  const bool write_read = command == 0x20F || command == 0x218;
  size_t at = 1, write_size = 0, read_size = 0, count = 1;
  uint32_t interval_us = 0;
  auto need = [&](size_t n) { return in.size() >= at + n; };
  if (block) {
    if (!need(write_read ? 10 : 8)) return refused(command);
    const size_t first = be16(&in[at]);
    write_size = command == 0x20E || command == 0x217 ? 0 : first;
    read_size = command == 0x20E || command == 0x217 ? first : 0;
    if (write_read) read_size = be16(&in[at + 2]), at += 2;
    count = be16(&in[at + 2]);
    interval_us = be32(&in[at + 4]);
    at += 8;
  } else if (command != 0x213) {  // read length (and the interval of a write-read)
    if (!need(command == 0x215 ? 8 : 4)) return refused(command);
    read_size = be32(&in[at]);
    if (command == 0x215) interval_us = be32(&in[at + 4]);
    at += command == 0x215 ? 8 : 4;
  }
  if (event) {
    if (!need(9)) return refused(command);
    at += 9;
  }
  const std::vector<uint8_t> data(in.begin() + ptrdiff_t(std::min(at, in.size())), in.end());
  if (!block) write_size = data.size();
  if (data.size() != write_size * count) return refused(command);
  std::vector<uint8_t> out;
  if (event) {
    out.push_back(ch.event_never ? 1 : 0);
    if (ch.event_never) return reply_with(command, out);
  }
  for (size_t i = 0; i < count; ++i) {
    const std::vector<uint8_t> piece(data.begin() + ptrdiff_t(i * write_size),
                                     data.begin() + ptrdiff_t((i + 1) * write_size));
    if (!piece.empty()) keep_session(ch, piece);
    auto got = ch.flash.transfer(piece, read_size, adapter.clock().now_us());
    out.insert(out.end(), got.begin(), got.end());
    adapter.clock().advance_us(interval_us);
  }
  return reply_with(command, out);
}

// The next `n` bytes of the master's running counter.
std::vector<uint8_t> counter_bytes(SpiModel::Channel& ch, size_t n) {
  std::vector<uint8_t> out(n);
  for (auto& b : out) b = uint8_t(ch.counter++);
  return out;
}

// The slave port (0x205, 0x222-0x227): fetches return what the master clocked in since the last
// one, at most 61440 bytes, as the device time passes.
std::optional<Packet> slave_command(VirtualAdapter& adapter, SpiModel::Channel& ch,
                                    const Packet& request) {
  const auto& in = request.payload;
  const uint32_t command = request.command;
  const uint64_t now = adapter.clock().now_us();
  switch (command) {
    case 0x205: {
      if (in.size() < 5) return refused(command);
      ch.slave_tx.assign(in.begin() + 5, in.end());
      const uint32_t n = uint32_t(ch.slave_tx.size());
      return reply_with(command, {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
    }
    case 0x222:
    case 0x224:
      if (in.size() < 9 || in.size() != 9 + be32(&in[5])) return refused(command);
      return reply_with(command, counter_bytes(ch, be32(&in[5])));
    case 0x223: {
      if (!ch.streaming) return reply_with(command);
      const uint64_t due = (now - ch.stream_start_us) * ch.feed_bytes_per_ms / 1000;
      const size_t n = size_t(std::min<uint64_t>(due - std::min(due, ch.fed), 61440));
      ch.fed += n;
      return reply_with(command, counter_bytes(ch, n));
    }
    case 0x225:
      ch.streaming = true;
      ch.stream_start_us = now;
      ch.fed = 0;
      return reply_with(command);
    case 0x226:
      ch.streaming = false;
      return reply_with(command);
    case 0x227:
      ch.slave_tx.insert(ch.slave_tx.end(), in.begin() + 1, in.end());
      return reply_with(command);
    default:
      return std::nullopt;
  }
}

std::vector<uint8_t> repeated(const std::vector<uint8_t>& pattern, size_t n) {
  std::vector<uint8_t> out(n);
  for (size_t i = 0; i < n; ++i) out[i] = pattern[i % pattern.size()];
  return out;
}

std::optional<Packet> handle_spi(VirtualAdapter& adapter, const Packet& request) {
  const auto& in = request.payload;
  const uint32_t command = request.command;
  if (in.empty() || in[0] >= SpiModel::kChannels) return refused(command);
  SpiModel& model = spi_model(adapter);
  std::lock_guard guard(model.mutex);
  SpiModel::Channel& ch = model.channels[in[0]];
  const uint64_t now = adapter.clock().now_us();
  const std::vector<uint8_t> rest(in.begin() + 1, in.end());
  switch (command) {
    case 0x200:
      if (in.size() != 11) return refused(command);
      ch.config = rest;
      return reply_with(command);
    case 0x201:
    case 0x202:
      keep_session(ch, rest);
      ch.flash.transfer(rest, 0, now);
      return reply_with(command);
    case 0x203:
      if (in.size() != 5) return refused(command);
      return reply_with(command, ch.flash.transfer({}, be32(&in[1]), now));
    case 0x204: {
      if (in.size() < 9) return refused(command);
      const std::vector<uint8_t> out(in.begin() + 9, in.end());
      keep_session(ch, out);
      return reply_with(command, ch.flash.transfer(out, be32(&in[1]), now));
    }
    case 0x210:
    case 0x211:
    case 0x212: {
      if (in.size() < 5) return refused(command);
      const uint32_t bits = be32(&in[1]);
      const size_t bytes = (bits + 7) / 8;
      if (command == 0x211) return reply_with(command, repeated(ch.read_pattern, bytes));
      if (in.size() != 5 + bytes) return refused(command);
      if (command == 0x210) return reply_with(command);
      return reply_with(command, std::vector<uint8_t>(in.begin() + 5, in.end()));  // loopback
    }
    default:
      if (command == 0x205 || (command >= 0x222 && command <= 0x227))
        return slave_command(adapter, ch, request);
      if (command >= 0x20D && command <= 0x218 && (command <= 0x20F || command >= 0x213))
        return blocks_and_events(adapter, ch, request);
      return flash_command(adapter, ch, request);
  }
}

}  // namespace

size_t configured_flash_size() {
  const char* text = std::getenv("VARNEL_SIM_SPI_FLASH_SIZE");
  return text ? size_t(std::strtoull(text, nullptr, 0)) : SpiNorFlash::kSize;
}

SpiModel& spi_model(VirtualAdapter& adapter) {
  return adapter.state<SpiModel>();
}

void install_spi(VirtualAdapter& adapter) {
  adapter.on(0x200, 0x227, handle_spi);
}

VARNEL_SIM_FAMILY(install_spi)

}  // namespace sim
