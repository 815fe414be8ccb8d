// Writing pcapng (the capture format of Wireshark, tshark and tcpdump): one section, an interface
// description per channel, an enhanced packet block per frame with its time stamp in
// microseconds since 1970 (the format's default resolution, so no if_tsresol is written).
// Blocks are written little-endian; the section header's byte-order magic tells readers so.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>

namespace varnel_cli::capture {

class PcapngWriter {
 public:
  // Writes the section header to `out` (a file, or a pipe Wireshark reads), which it does not
  // own. `application` goes into the header's shb_userappl option.
  PcapngWriter(std::FILE* out, const std::string& application);

  // An interface description: its index, which packets name.
  uint32_t add_interface(uint16_t link_type, const std::string& name,
                         const std::string& description, uint32_t snap_length);

  // One packet captured whole. False once a write has failed (a full disk, a closed pipe).
  bool write_packet(uint32_t interface, uint64_t time_us, std::span<const uint8_t> data);

  bool flush();
  bool ok() const { return ok_; }
  uint64_t packets() const { return packets_; }
  uint32_t interfaces() const { return interfaces_; }

 private:
  bool write(const void* bytes, size_t size);

  std::FILE* out_;
  bool ok_ = true;
  uint64_t packets_ = 0;
  uint32_t interfaces_ = 0;
};

}  // namespace varnel_cli::capture
