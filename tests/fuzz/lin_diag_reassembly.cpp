// libFuzzer target: arbitrary bytes as the slave response frames of a diagnostic answer. The first
// two bytes give the caller's buffer size (0..65535, allocated exactly, so a write past it is an
// ASan report), the rest are 8-byte frames fed in order until the reader says it is done. A length
// it reports must have fitted the buffer.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "lin/lin_reassembly.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t buffer_size = size_t(data[0]) << 8 | data[1];
  std::vector<uint8_t> buffer(buffer_size);
  varnel::lin::DiagnosticReassembly message(buffer.data(), buffer_size);
  for (size_t at = 2; at + 8 <= size; at += 8) {
    const int r = message.take(data + at);
    if (r == varnel::lin::DiagnosticReassembly::kMore) continue;
    if (r >= 0 && size_t(r) > buffer_size) __builtin_trap();
    break;
  }
  return 0;
}
