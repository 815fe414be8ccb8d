#include "core/transaction.h"

#include <array>

#include "varnel.h"

namespace varnel {
namespace {

class ScopedTransactionLock {
 public:
  ScopedTransactionLock(uint32_t handle, TransactionLock which) : handle_(handle), which_(which) {
    switch (which_.kind) {
      case TransactionLock::Kind::kDevice:
        ::lock(handle_);
        break;
      case TransactionLock::Kind::kCanChannel:
        ::can_lock(handle_, which_.channel);
        break;
      case TransactionLock::Kind::kLinChannel:
        ::lin_lock(handle_, which_.channel);
        break;
    }
  }
  ~ScopedTransactionLock() {
    switch (which_.kind) {
      case TransactionLock::Kind::kDevice:
        ::unlock(handle_);
        break;
      case TransactionLock::Kind::kCanChannel:
        ::can_unlock(handle_, which_.channel);
        break;
      case TransactionLock::Kind::kLinChannel:
        ::lin_unlock(handle_, which_.channel);
        break;
    }
  }
  ScopedTransactionLock(const ScopedTransactionLock&) = delete;
  ScopedTransactionLock& operator=(const ScopedTransactionLock&) = delete;

 private:
  uint32_t handle_;
  TransactionLock which_;
};

}  // namespace

TransactionResult transact(uint32_t handle, uint32_t command, std::span<const uint8_t> request,
                           std::span<uint8_t> reply, const TransactionOptions& options) {
  TransactionResult result;
  CommandPacket out{command, int32_t(request.size()), const_cast<uint8_t*>(request.data()), 0};
  CommandPacket in{command, 0, reply.empty() ? nullptr : reply.data(), int32_t(reply.size())};
  {
    ScopedTransactionLock guard(handle, options.lock);
    result.send_result =
        options.endpoint_flag < 0
            ? send_command(handle, out, options.write_timeout_ms)
            : send_command_on_endpoint(handle, uint32_t(options.endpoint_flag), out);
    if (result.send_result == 0)
      result.read_result = read_reply(handle, in, options.read_timeout_ms);
  }
  result.reply_command = in.command;
  result.reply_length = result.send_result == 0 ? in.length : 0;
  // A reply announced but not delivered whole counts as not read.
  if (result.read_result == 0 && result.send_result == 0 && in.command != command)
    result.read_result = -3;
  return result;
}

TransactionResult transact_ack(uint32_t handle, uint32_t command, std::span<const uint8_t> request,
                               const TransactionOptions& options) {
  std::array<uint8_t, 64> scratch{};
  return transact(handle, command, request, scratch, options);
}

}  // namespace varnel
