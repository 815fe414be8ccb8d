// libFuzzer target: arbitrary bytes as a CAN FD adapter's fetch reply. Decoding stays inside the
// reply and the output array, and every frame it yields goes out again as the same frame
// (identifier, kind, length, flags, data) when encoded and decoded once more.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "can/can_records.h"

namespace {

constexpr size_t kMaxRecords = 64;

bool same_frame(const CANFD_MSG& a, const CANFD_MSG& b) {
  return a.Id == b.Id && a.DataLen == b.DataLen && (a.Flags & 0x07) == (b.Flags & 0x07) &&
         std::memcmp(a.Data, b.Data, a.DataLen) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace varnel::can;
  if (size < 1) return 0;
  const uint8_t channel = data[0];
  const size_t max = data[0] >> 2;                    // 0 to 63 records wanted
  std::vector<uint8_t> reply(data + 1, data + size);  // exactly as long as it is
  std::vector<CANFD_MSG> out(max);
  const size_t n = decode_fd_records(reply, channel, out.data(), max);
  if (n > max) std::abort();
  for (size_t i = 0; i < n; ++i) {
    const CANFD_MSG& msg = out[i];
    if (msg.DataLen > 64 || (msg.Flags >> 5 & 1) != (channel & 1)) std::abort();
    CAN_MSG classic = to_can(msg);
    frame_bit_length(classic);
    to_canfd(classic);
    fd_frame_time_us(msg, 500000, 2000000);
    // a standard identifier with bit 11 set is the device's own layout and goes out extended
    const bool round_trips =
        msg.Id != kFdEventId && ((msg.Id & 0x80000000u) || (msg.Id & 0x1FFFFFFF) <= 0x7FF);
    if (!round_trips) continue;
    uint8_t encoded[76];
    const size_t length = encode_fd_record(msg, 0, encoded);
    CANFD_MSG again[kMaxRecords];
    if (decode_fd_records({encoded, length}, channel, again, 1) != 1 || !same_frame(msg, again[0]))
      std::abort();
  }
  return 0;
}
