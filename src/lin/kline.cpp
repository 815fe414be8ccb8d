// The K_ calls: the older K-line set, without time stamps or status flags. The wake-up patterns
// and response polling run in the caller's thread without a lock; each device command takes the
// lock for its own transaction.
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

constexpr int kSyncTimeoutMs = 500;
constexpr int kInvertedAddressTimeoutMs = 100;
constexpr int kKeyByteEchoTimeoutMs = 5;
constexpr int kRequestEchoTimeoutMs = 10;
constexpr int kFastInitResponseTimeoutMs = 2000;
constexpr uint8_t kSync = 0x55;

// After the address: 0x55, KB1, KB2; the inverted KB2 back; the inverted address.
int key_bytes_exchange(DevHandle handle, uint8_t ch, uint8_t address, uint8_t* kb1, uint8_t* kb2) {
  std::vector<uint8_t> got;
  int r = collect(handle, ch, 3, kSyncTimeoutMs, got);
  if (r != 0) return r;
  if (got.size() < 3) return kNoAnswer;
  if (got[0] != kSync) return kBadAnswer;
  if (kb1) *kb1 = got[1];
  if (kb2) *kb2 = got[2];
  varnel::sleep_for_ms(35);
  uint8_t inverted = uint8_t(~got[2]);
  r = send_with_echo(handle, ch, {&inverted, 1}, kNoInterval, kKeyByteEchoTimeoutMs);
  if (r != 0) return r;
  got.clear();
  r = collect(handle, ch, 1, kInvertedAddressTimeoutMs, got);
  if (r != 0) return r;
  if (got.empty()) return kNoAnswer;
  return got[0] == uint8_t(~address) ? 0 : kBadAnswer;
}

int request(DevHandle handle, uint8_t ch, const K_MSG& req, K_MSG& resp, uint8_t p4,
            int32_t timeout_ms) {
  int r = UART_ClearData(handle, ch);
  if (r != 0) return r;
  const Frame frame = k_request_frame(req);
  r = send_with_echo(handle, ch, frame.view(), p4, kRequestEchoTimeoutMs);
  if (r != 0) return r;
  if (timeout_ms < 1) return kNoAnswer;
  ResponseReader reader(true);
  r = poll(
      handle, ch, timeout_ms, [&](std::span<const uint8_t> bytes) { reader.feed(bytes); },
      [&] { return reader.complete(); });
  if (r != 0) return r;
  if (reader.empty()) return kNoAnswer;
  if (!reader.complete()) return kBadAnswer;
  fill_record(reader, resp);
  return resp.CheckSum == reader.received_checksum() ? 0 : kChecksumError;
}

}  // namespace

VARNEL_API int K_Init(DevHandle handle, uint8_t ch, uint32_t baud) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (ch >= kChannels) return kBadArgument;
    const UartConfig config = uart_config(baud, kModeK);
    int r = UART_Init(handle, ch, &config);
    if (r != 0) return r;
    store_config(handle, ch, config);
    return LIN_EX_CtrlPowerOut(handle, ch, 1);
  });
}

VARNEL_API int K_5BaudInit(DevHandle handle, uint8_t ch, uint8_t address, uint8_t* kb1,
                           uint8_t* kb2) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (ch >= kChannels) return kBadArgument;
    int r = send_five_baud_address(handle, ch, address);
    if (r == 0) r = init_uart(handle, ch);
    if (r == 0) r = UART_ClearData(handle, ch);
    if (r != 0) return r;
    return key_bytes_exchange(handle, ch, address, kb1, kb2);
  });
}

VARNEL_API int K_FastInit(DevHandle handle, uint8_t ch, K_MSG* req, K_MSG* resp, uint8_t p4) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (ch >= kChannels || !req || !resp) return kBadArgument;
    int r = send_fast_pattern_slept(handle, ch);
    if (r == 0) r = init_uart(handle, ch);
    if (r != 0) return r;
    return request(handle, ch, *req, *resp, p4, kFastInitResponseTimeoutMs);
  });
}

VARNEL_API int K_Request(DevHandle handle, uint8_t ch, K_MSG* req, K_MSG* resp, uint8_t p4,
                         int32_t timeout_ms) {
  return varnel::guarded(varnel::result::kFailed, [&] {
    if (ch >= kChannels || !req || !resp) return kBadArgument;
    return request(handle, ch, *req, *resp, p4, timeout_ms);
  });
}
