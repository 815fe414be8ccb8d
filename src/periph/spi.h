// What the SPI files share: the request checks and the two reply shapes of the SPI commands.
#pragma once

#include <cstdint>
#include <span>

#include "core/bytes.h"
#include "core/transaction.h"

namespace varnel::spi {

constexpr int kTransferTimeoutMs = 10000;

// A length outside 0..VARNEL_SPI_MAX_LENGTH, or a NULL buffer for a length above 0.
bool bad_buffer(const void* data, int64_t length);
TransactionOptions reply_within(int read_timeout_ms);
// A request whose reply carries no data: 0, -2, -4.
int acknowledged(uint32_t handle, uint32_t command, const PayloadWriter& request,
                 int read_timeout_ms = kTransferTimeoutMs);
// A request whose reply is exactly `out`: 0, -2, -4 (nothing copied).
int read_exactly(uint32_t handle, uint32_t command, const PayloadWriter& request,
                 std::span<uint8_t> out, int read_timeout_ms = kTransferTimeoutMs);

}  // namespace varnel::spi
