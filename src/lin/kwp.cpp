// The KWP_ calls: the K-line with a time stamp, a kind and status flags in every record. The
// wake-up patterns and response polling run in the caller's thread without a lock; each device
// command takes the lock for its own transaction.
#include <vector>

#include "core/c_boundary.h"
#include "core/clock.h"
#include "core/result_codes.h"
#include "lin/kline_frames.h"
#include "lin/kline_line.h"
#include "varnel.h"

namespace {

using namespace varnel::kline;
using varnel::result::kBadArgument;

constexpr int kKeyByteEchoTimeoutMs = 5;
constexpr uint8_t kSync = 0x55;

// A failure that also raises a status flag.
int flagged(KWP_MSG& record, uint8_t flag, int result) {
  record.Status |= flag;
  return result;
}

uint8_t mode_letter(uint8_t mode) {
  return mode == 0 ? kModeRaw : mode == 2 ? kModeZ : kModeK;
}

// The start of both initialisations: time stamp, kind, the configuration and channel power.
int begin_init(DevHandle handle, uint8_t ch, uint32_t baud, KWP_MSG& record, uint8_t kind) {
  stamp(handle, record);
  record.Kind = kind;
  record.Status = 0;
  int r = store_config(handle, ch, uart_config(baud, kModeK));
  return r != 0 ? r : LIN_EX_CtrlPowerOut(handle, ch, 1);
}

// Collects `want` bytes into Data from index Len on, Len counting them.
int receive_into(DevHandle handle, uint8_t ch, KWP_MSG& m, size_t want, int32_t timeout_ms) {
  std::vector<uint8_t> got;
  int r = collect(handle, ch, want, timeout_ms, got);
  for (uint8_t b : got) m.Data[m.Len++] = b;
  if (r != 0) return r;
  return got.size() < want ? flagged(m, KWP_STATUS_TIMEOUT, kNoAnswer) : 0;
}

// After the address: 0x55, KB1, KB2 into Data[0..2]; the inverted KB2 back (Data[3]); the
// inverted address (Data[4]).
int key_bytes_exchange(DevHandle handle, uint8_t ch, KWP_MSG& m, int32_t timeout_ms) {
  m.Fmt = 0;
  m.Len = 0;
  int r = receive_into(handle, ch, m, 3, timeout_ms);
  if (r != 0) return r;
  if (m.Data[0] != kSync) return flagged(m, KWP_STATUS_FRAME, kBadAnswer);
  varnel::sleep_for_ms(35);
  m.Data[3] = uint8_t(~m.Data[2]);
  m.Len = 4;
  r = send_with_echo(handle, ch, {&m.Data[3], 1}, kNoInterval, kKeyByteEchoTimeoutMs);
  if (r == kEchoError) return flagged(m, KWP_STATUS_ECHO, r);
  if (r != 0) return r;
  r = receive_into(handle, ch, m, 1, timeout_ms);
  if (r != 0) return r;
  return m.Data[4] == uint8_t(~m.Tgt) ? 0 : flagged(m, KWP_STATUS_FRAME, kBadAnswer);
}

int request(DevHandle handle, uint8_t ch, KWP_MSG& m) {
  stamp(handle, m);
  m.Kind = KWP_KIND_REQUEST;
  m.Status = 0;
  int r = UART_ClearData(handle, ch);
  if (r != 0) return r;
  const Frame frame = kwp_request_frame(m);
  r = send_with_echo(handle, ch, frame.view(), m.P4, 0);
  return r != 0 ? flagged(m, KWP_STATUS_ECHO, r) : 0;
}

int response(DevHandle handle, uint8_t ch, KWP_MSG& m, uint32_t timeout_ms) {
  stamp(handle, m);
  m.Kind = KWP_KIND_RESPONSE;
  m.Status = 0;
  m.Len = 0;
  ResponseReader reader(false);
  const int timeout = int(std::min<uint32_t>(timeout_ms, INT32_MAX));
  int r = poll(
      handle, ch, timeout, [&](std::span<const uint8_t> bytes) { reader.feed(bytes); },
      [&] { return reader.complete(); });
  if (r != 0) return r;
  if (reader.empty()) return flagged(m, KWP_STATUS_TIMEOUT, kNoAnswer);
  if (!reader.complete()) return flagged(m, KWP_STATUS_FRAME, kBadAnswer);
  fill_record(reader, m);
  if (m.CheckSum != reader.received_checksum())
    return flagged(m, KWP_STATUS_CHECKSUM, kChecksumError);
  return 0;
}

}  // namespace

VARNEL_API int KWP_Init(DevHandle handle, uint8_t ch, uint32_t baud, uint8_t mode) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (!known_handle(handle)) return KWP_ERR_UNKNOWN_HANDLE;
    if (ch >= kChannels) return kBadArgument;
    const UartConfig config = uart_config(baud, mode_letter(mode));
    store_config(handle, ch, config);
    return UART_Init(handle, ch, &config);
  });
}

VARNEL_API int KWP_5BaudInit(DevHandle handle, uint8_t ch, uint32_t baud, KWP_MSG* msg,
                             int32_t timeout_ms) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (!known_handle(handle)) return KWP_ERR_UNKNOWN_HANDLE;
    if (ch >= kChannels || !msg) return kBadArgument;
    int r = begin_init(handle, ch, baud, *msg, KWP_KIND_5BAUD);
    if (r == 0) r = send_five_baud_address(handle, ch, msg->Tgt);
    if (r == 0) r = init_uart(handle, ch);
    if (r == 0) r = UART_ClearData(handle, ch);
    if (r != 0) return r;
    return key_bytes_exchange(handle, ch, *msg, timeout_ms);
  });
}

VARNEL_API int KWP_FastInit(DevHandle handle, uint8_t ch, uint32_t baud, KWP_MSG* init,
                            KWP_MSG* req, KWP_MSG* resp, uint32_t timeout_ms) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (!known_handle(handle)) return KWP_ERR_UNKNOWN_HANDLE;
    if (ch >= kChannels || !init || !req || !resp) return kBadArgument;
    int r = begin_init(handle, ch, baud, *init, KWP_KIND_FAST);
    if (r == 0) r = send_fast_pattern_counted(handle, ch);
    if (r == 0) r = init_uart(handle, ch);
    if (r == 0) r = request(handle, ch, *req);
    if (r != 0) return r;
    return response(handle, ch, *resp, timeout_ms);
  });
}

VARNEL_API int KWP_Request(DevHandle handle, uint8_t ch, KWP_MSG* msg) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (ch >= kChannels || !msg) return kBadArgument;
    return request(handle, ch, *msg);
  });
}

VARNEL_API int KWP_Response(DevHandle handle, uint8_t ch, KWP_MSG* msg, uint32_t timeout_ms) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (ch >= kChannels || !msg) return kBadArgument;
    return response(handle, ch, *msg, timeout_ms);
  });
}
