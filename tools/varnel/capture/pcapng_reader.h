// Reading pcapng files: the ones `can dump -w` and `lin dump -w` write, and those of tshark,
// Wireshark and candump converted by them. Sections of either byte order, any number of
// interfaces with their time stamp resolution; blocks other than interface descriptions and
// enhanced packets are skipped. The whole file is in memory; nothing read is trusted: every
// length is checked against the block that holds it.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace varnel_cli::capture {

struct CaptureInterface {
  uint16_t link_type = 0;
  std::string name, description;
  uint8_t time_resolution = 6;  // if_tsresol: bit 7 clear 10^-n s, set 2^-n s
};

struct CapturePacket {
  uint32_t interface = 0;
  uint16_t link_type = 0;
  uint64_t time_us = 0;
  std::span<const uint8_t> data;  // into the reader's buffer
};

class PcapngReader {
 public:
  explicit PcapngReader(std::span<const uint8_t> file) : file_(file) {}

  // The next packet; false at the end of the file or at a malformed block (error() says which).
  bool next(CapturePacket& packet);

  const std::vector<CaptureInterface>& interfaces() const { return interfaces_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& why);
  uint32_t word(size_t at) const;
  uint16_t half(size_t at) const;
  bool read_section_header(size_t at, size_t total);
  bool read_interface(size_t at, size_t total);
  bool read_packet(size_t at, size_t total, CapturePacket& packet);

  std::span<const uint8_t> file_;
  size_t at_ = 0;
  bool big_endian_ = false;
  bool in_section_ = false;
  std::vector<CaptureInterface> interfaces_;
  std::string error_;
};

// Reads a whole file; nullopt when it cannot be read.
std::optional<std::vector<uint8_t>> read_capture_file(const std::string& path);

// Time in microseconds of a packet's time stamp in the interface's resolution.
std::optional<uint64_t> time_stamp_us(uint64_t ticks, uint8_t resolution);

}  // namespace varnel_cli::capture
