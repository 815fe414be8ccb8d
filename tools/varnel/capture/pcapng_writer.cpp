#include "capture/pcapng_writer.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <vector>

namespace varnel_cli::capture {
namespace {

constexpr uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescriptionBlock = 0x00000001;
constexpr uint32_t kEnhancedPacketBlock = 0x00000006;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kEndOfOptions = 0, kShbUserAppl = 4, kIfName = 2, kIfDescription = 3;

size_t padded(size_t size) {
  return (size + 3) & ~size_t(3);
}

// A block assembled in memory: body words and options, then the length at both ends.
class Block {
 public:
  explicit Block(uint32_t type) { u32(type).u32(0); }
  Block& u16(uint16_t v) { return bytes(&v, 2); }  // the host is little-endian (x86, ARM)
  Block& u32(uint32_t v) { return bytes(&v, 4); }
  Block& u64_as_words(uint64_t v) {  // the section length: its two halves, lower first
    return u32(uint32_t(v)).u32(uint32_t(v >> 32));
  }
  Block& bytes(const void* data, size_t size) {
    const auto* at = static_cast<const uint8_t*>(data);
    data_.insert(data_.end(), at, at + size);
    return *this;
  }
  Block& option(uint16_t code, const std::string& value) {
    if (value.empty()) return *this;
    const size_t size = std::min<size_t>(value.size(), 0xFFFF);
    u16(code).u16(uint16_t(size)).bytes(value.data(), size);
    data_.resize(padded(data_.size()));
    return *this;
  }
  Block& end_of_options() { return u16(kEndOfOptions).u16(0); }
  const std::vector<uint8_t>& finished() {
    const uint32_t total = uint32_t(data_.size() + 4);
    std::memcpy(data_.data() + 4, &total, 4);
    u32(total);
    return data_;
  }

 private:
  std::vector<uint8_t> data_;
};

static_assert(std::endian::native == std::endian::little, "blocks are written in host order");

}  // namespace

PcapngWriter::PcapngWriter(std::FILE* out, const std::string& application) : out_(out) {
  Block shb(kSectionHeaderBlock);
  shb.u32(kByteOrderMagic).u16(1).u16(0).u64_as_words(~uint64_t(0));  // version 1.0, length unknown
  shb.option(kShbUserAppl, application).end_of_options();
  const auto& bytes = shb.finished();
  write(bytes.data(), bytes.size());
}

uint32_t PcapngWriter::add_interface(uint16_t link_type, const std::string& name,
                                     const std::string& description, uint32_t snap_length) {
  Block idb(kInterfaceDescriptionBlock);
  idb.u16(link_type).u16(0).u32(snap_length);
  idb.option(kIfName, name).option(kIfDescription, description).end_of_options();
  const auto& bytes = idb.finished();
  write(bytes.data(), bytes.size());
  return interfaces_++;
}

bool PcapngWriter::write_packet(uint32_t interface, uint64_t time_us,
                                std::span<const uint8_t> data) {
  // header (7 words), data padded to a word, trailing length: one write, nothing allocated
  constexpr size_t kHeader = 28;
  uint8_t block[kHeader + 256 + 4] = {};
  if (data.size() > 256) return ok_ = false;
  const uint32_t total = uint32_t(kHeader + padded(data.size()) + 4);
  const uint32_t words[7] = {kEnhancedPacketBlock,
                             total,
                             interface,
                             uint32_t(time_us >> 32),
                             uint32_t(time_us),
                             uint32_t(data.size()),
                             uint32_t(data.size())};
  std::memcpy(block, words, kHeader);
  std::memcpy(block + kHeader, data.data(), data.size());
  std::memcpy(block + total - 4, &total, 4);
  if (!write(block, total)) return false;
  ++packets_;
  return true;
}

bool PcapngWriter::flush() {
  if (ok_ && std::fflush(out_) != 0) ok_ = false;
  return ok_;
}

bool PcapngWriter::write(const void* bytes, size_t size) {
  if (ok_ && std::fwrite(bytes, 1, size, out_) != size) ok_ = false;
  return ok_;
}

}  // namespace varnel_cli::capture
