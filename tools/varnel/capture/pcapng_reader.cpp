#include "capture/pcapng_reader.h"

#include <fstream>
#include <iterator>

namespace varnel_cli::capture {
namespace {

constexpr uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescriptionBlock = 0x00000001;
constexpr uint32_t kEnhancedPacketBlock = 0x00000006;
constexpr uint16_t kIfName = 2, kIfDescription = 3, kIfTsresol = 9;

}  // namespace

std::optional<uint64_t> time_stamp_us(uint64_t ticks, uint8_t resolution) {
  const unsigned exponent = resolution & 0x7F;
  if (resolution & 0x80) {  // 2^-n s
    if (exponent > 63) return std::nullopt;
    return uint64_t((unsigned __int128)ticks * 1000000 >> exponent);
  }
  if (exponent > 19) return std::nullopt;  // beyond what 64 bits count
  uint64_t scale = 1;
  for (unsigned i = 0; i < (exponent > 6 ? exponent - 6 : 6 - exponent); ++i) scale *= 10;
  if (exponent >= 6) return ticks / scale;
  const unsigned __int128 us = (unsigned __int128)ticks * scale;
  if (us >> 64) return std::nullopt;
  return uint64_t(us);
}

uint32_t PcapngReader::word(size_t at) const {
  const uint8_t* p = file_.data() + at;
  return big_endian_ ? uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]
                     : uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
}

uint16_t PcapngReader::half(size_t at) const {
  const uint8_t* p = file_.data() + at;
  return big_endian_ ? uint16_t(p[0] << 8 | p[1]) : uint16_t(p[1] << 8 | p[0]);
}

bool PcapngReader::fail(const std::string& why) {
  error_ = why + " at offset " + std::to_string(at_);
  at_ = file_.size();
  return false;
}

bool PcapngReader::read_section_header(size_t at, size_t total) {
  if (total < 28) return fail("a section header block too short");
  const uint8_t* magic = file_.data() + at + 8;
  if (magic[0] == 0x1A && magic[1] == 0x2B && magic[2] == 0x3C && magic[3] == 0x4D)
    big_endian_ = true;
  else if (magic[3] == 0x1A && magic[2] == 0x2B && magic[1] == 0x3C && magic[0] == 0x4D)
    big_endian_ = false;
  else
    return fail("not a pcapng byte-order magic");
  if (half(at + 12) != 1) return fail("a pcapng major version other than 1");
  in_section_ = true;
  interfaces_.clear();  // interface numbers start again in each section
  return true;
}

bool PcapngReader::read_interface(size_t at, size_t total) {
  if (total < 20) return fail("an interface description block too short");
  CaptureInterface interface;
  interface.link_type = half(at + 8);
  // options: code, length, value padded to a word, until the end of options or of the block
  for (size_t option = at + 16; option + 4 <= at + total - 4;) {
    const uint16_t code = half(option), length = half(option + 2);
    const size_t value = option + 4, next = value + ((size_t(length) + 3) & ~size_t(3));
    if (code == 0) break;
    if (next > at + total - 4) return fail("an interface option beyond its block");
    const char* text = reinterpret_cast<const char*>(file_.data() + value);
    if (code == kIfName) interface.name.assign(text, length);
    if (code == kIfDescription) interface.description.assign(text, length);
    if (code == kIfTsresol && length >= 1) interface.time_resolution = file_[value];
    option = next;
  }
  interfaces_.push_back(std::move(interface));
  return true;
}

bool PcapngReader::read_packet(size_t at, size_t total, CapturePacket& packet) {
  if (total < 32) return fail("an enhanced packet block too short");
  const uint32_t interface = word(at + 8), captured = word(at + 20);
  if (interface >= interfaces_.size()) return fail("a packet of an undescribed interface");
  if (captured > total - 32) return fail("a packet longer than its block");
  const uint64_t ticks = uint64_t(word(at + 12)) << 32 | word(at + 16);
  const auto us = time_stamp_us(ticks, interfaces_[interface].time_resolution);
  if (!us) return fail("a time stamp resolution beyond 64 bits");
  packet.interface = interface;
  packet.link_type = interfaces_[interface].link_type;
  packet.time_us = *us;
  packet.data = file_.subspan(at + 28, captured);
  return true;
}

bool PcapngReader::next(CapturePacket& packet) {
  while (at_ + 12 <= file_.size()) {
    // a section header's own magic tells the byte order its length is written in
    const bool section = file_[at_] == 0x0A && file_[at_ + 1] == 0x0D && file_[at_ + 2] == 0x0D &&
                         file_[at_ + 3] == 0x0A;
    if (section) {
      if (at_ + 12 > file_.size()) return fail("a truncated section header");
      const uint8_t* magic = file_.data() + at_ + 8;
      big_endian_ = magic[0] == 0x1A;
    } else if (!in_section_) {
      return fail("not a pcapng file (no section header)");
    }
    const uint32_t type = word(at_), total = word(at_ + 4);
    if (total < 12 || total % 4 || total > file_.size() - at_)
      return fail("a block length that does not fit the file");
    if (word(at_ + total - 4) != total) return fail("a block whose trailing length differs");
    const size_t at = at_;
    at_ += total;
    if (type == kSectionHeaderBlock) {
      at_ = at;
      if (!read_section_header(at, total)) return false;
      at_ = at + total;
    } else if (type == kInterfaceDescriptionBlock) {
      if (!read_interface(at, total)) return false;
    } else if (type == kEnhancedPacketBlock) {
      if (read_packet(at, total, packet)) return true;
      return false;
    }
  }
  if (at_ != file_.size()) return fail("a truncated block");
  return false;
}

std::optional<std::vector<uint8_t>> read_capture_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

}  // namespace varnel_cli::capture
