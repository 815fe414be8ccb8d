// libFuzzer target: arbitrary bytes as the frames a CAN UDS response reads off the bus. The first
// byte picks the addressing and the buffer's size, then each frame is a length byte and its bytes.
// Whatever the frames say, the reader writes only inside the buffer (ASan sees the exact size)
// and reports a length that fits it.
#include "can/isotp_reader.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t pci_offset = data[0] & 1;
  const size_t buffer_size = size_t(data[1]) << 4;  // 0 to 4080 bytes, some shorter than needed
  std::vector<uint8_t> buffer(buffer_size);
  varnel::can::IsoTpReader reader(buffer.data(), buffer.size(), pci_offset);
  for (size_t at = 2; at < size;) {
    const size_t length = data[at++];
    const size_t available = size - at < length ? size - at : length;
    std::vector<uint8_t> frame(data + at, data + at + available);  // exactly as long as it is
    at += available;
    bool flow_control_due = false;
    const int r = reader.take(frame.data(), frame.size(), &flow_control_due);
    if (r > 0 && size_t(r) > buffer_size) std::abort();
    if (r != 0) break;
  }
  return 0;
}
