// libFuzzer target: arbitrary bytes as a pcapng file given to `can play` or the monitor's replay.
// Every packet the reader hands out lies inside the file, and decoding it as a CAN or LIN frame
// stays inside the packet (ASan sees the file's exact size).
#include "capture/pcapng_reader.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "capture/capture_records.h"

using namespace varnel_cli::capture;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<uint8_t> file(data, data + size);  // exactly as long as it is
  PcapngReader reader(file);
  CapturePacket packet;
  while (reader.next(packet)) {
    if (packet.data.data() < file.data() ||
        packet.data.data() + packet.data.size() > file.data() + file.size())
      std::abort();
    if (packet.link_type == kLinkTypeSocketCan) {
      const auto can = decode_socketcan(packet.data);
      if (can && can->frame.DataLen > 64) std::abort();
    } else if (packet.link_type == kLinkTypeLin) {
      const auto lin = decode_lin(packet.data);
      if (lin && lin->length > 8) std::abort();
    }
  }
  return 0;
}
