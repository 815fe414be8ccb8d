// libFuzzer target: arbitrary bytes as the slave response frames the boot loader reads, 8 bytes
// each, fed in order until a message is complete. A complete message is never longer than a first
// frame's 12-bit length can say, plus the six bytes of a single frame that ends it early.
#include <cstddef>
#include <cstdint>

#include "lin/lin_reassembly.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using Step = varnel::lin::BootReassembly::Step;
  varnel::lin::BootReassembly message;
  for (size_t at = 0; at + 8 <= size; at += 8) {
    if (message.take(data + at) != Step::kComplete) continue;
    if (message.message().size() > 0xFFF + 6) __builtin_trap();
    break;
  }
  return 0;
}
