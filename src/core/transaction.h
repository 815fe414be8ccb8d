// The one transaction every family performs: lock, send the request, read the reply, unlock,
// then judge. Families call this with a command code, a payload and where the reply goes, and
// keep only their payload layout and reply checks.
#pragma once

#include <cstdint>
#include <span>

#include "core/result_codes.h"
#include "core/transport.h"

namespace varnel {

// Which lock pair brackets the transaction.
struct TransactionLock {
  enum class Kind { kDevice, kCanChannel, kLinChannel } kind = Kind::kDevice;
  uint32_t channel = 0;
};

struct TransactionResult {
  int send_result = 0;  // send_command: 0, -1, -2, -4
  int read_result = 0;  // read_reply: 0, -1, -3 (only when the send succeeded)
  uint32_t reply_command = 0;
  int32_t reply_length = 0;  // as announced (after the USB cut); may exceed the buffer

  bool ok() const { return send_result == 0 && read_result == 0; }
  // The common mapping: a failed write gives -2; a failed read or a reply of another length
  // than `expected` gives -4; else 0.
  int expect_length(int32_t expected) const {
    if (send_result != 0) return result::kWriteFailed;
    if (read_result != 0 || reply_length != expected) return result::kReplyFailed;
    return 0;
  }
  // A reply that only acknowledges carries no payload; a payload is the adapter's refusal
  // status. A failed write gives -2, a failed read or a refusal -4, else 0.
  int acknowledged() const {
    if (send_result != 0) return result::kWriteFailed;
    if (read_result != 0 || reply_length > 0) return result::kReplyFailed;
    return 0;
  }
};

struct TransactionOptions {
  int read_timeout_ms = kDefaultTimeoutMs;
  TransactionLock lock = {};
  int write_timeout_ms = kDefaultTimeoutMs;
  // 0 or 1: write with send_command_on_endpoint and this endpoint flag (bit 0 chooses USB OUT
  // endpoint 0x02; no index check, no TCP connect on demand). -1: the ordinary send_command.
  int endpoint_flag = -1;
};

// Sends `request` as command `command` and reads its reply into `reply` (bounded by its size).
TransactionResult transact(uint32_t handle, uint32_t command, std::span<const uint8_t> request,
                           std::span<uint8_t> reply, const TransactionOptions& options = {});

// For requests whose reply only acknowledges: a refusal's payload is read into scratch space
// (over TCP a payload with nowhere to go would count as a failed read) and never reaches the
// caller's memory. Judge it with acknowledged() or expect_length(0).
TransactionResult transact_ack(uint32_t handle, uint32_t command, std::span<const uint8_t> request,
                               const TransactionOptions& options = {});

}  // namespace varnel
