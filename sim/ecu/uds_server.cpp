#include "sim/ecu/uds_server.h"

#include <algorithm>
#include <string>

namespace sim {
namespace {

constexpr uint8_t kNegative = 0x7F;
constexpr uint8_t kNrcRequiredTimeDelay = 0x37;
constexpr uint8_t kDefaultSession = 1, kProgrammingSession = 2, kExtendedSession = 3;
constexpr uint16_t kEraseRoutine = 0xFF00, kCheckRoutine = 0x0202;
constexpr uint16_t kWritableFirst = 0x0100, kWritableLast = 0x01FF;
constexpr int kKeyAttempts = 3;

UdsAnswer negative(uint8_t service, uint8_t code) {
  return {0, {kNegative, service, code}};
}

UdsAnswer positive(std::vector<uint8_t> bytes) {
  return {0, std::move(bytes)};
}

uint16_t be16(const uint8_t* p) {
  return uint16_t(p[0] << 8 | p[1]);
}

uint32_t be_n(const uint8_t* p, size_t n) {
  uint32_t v = 0;
  for (size_t i = 0; i < n; ++i) v = v << 8 | p[i];
  return v;
}

void append_be32(std::vector<uint8_t>& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
}

std::vector<uint8_t> text_bytes(const std::string& text) {
  return {text.begin(), text.end()};
}

}  // namespace

uint32_t crc32_ieee(std::span<const uint8_t> bytes) {
  uint32_t crc = 0xFFFFFFFFu;
  for (uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1)));
  }
  return ~crc;
}

UdsServer::UdsServer() : flash_(kFlashSize, 0xFF) {
  identifiers_[kVinIdentifier] = text_bytes("VARNELSIMECU00001");
  identifiers_[0xF187] = text_bytes("VN-ECU-0001");
  identifiers_[0xF18C] = text_bytes("000123456789");
}

uint32_t UdsServer::key_for(uint32_t seed) {
  return ((seed << 7) | (seed >> 25)) ^ 0x5A5AA5A5u;
}

UdsAnswer UdsServer::handle(std::span<const uint8_t> r) {
  std::lock_guard guard(mutex_);
  if (r.empty()) return {};
  switch (r[0]) {
    case 0x10:
      return session_control(r);
    case 0x11:
      return ecu_reset(r);
    case 0x22:
      return read_identifiers(r);
    case 0x2E:
      return write_identifier(r);
    case 0x27:
      return security_access(r);
    case 0x31:
      return routine_control(r);
    case 0x34:
      return request_download(r);
    case 0x36:
      return transfer_data(r);
    case 0x37:
      return transfer_exit(r);
    case 0x3E:
      if (r.size() != 2) return negative(r[0], kNrcIncorrectLength);
      if ((r[1] & 0x7F) != 0) return negative(r[0], kNrcSubFunctionNotSupported);
      return r[1] & 0x80 ? UdsAnswer{} : positive({0x7E, 0x00});
    default:
      return negative(r[0], kNrcServiceNotSupported);
  }
}

UdsAnswer UdsServer::session_control(std::span<const uint8_t> r) {
  if (r.size() != 2) return negative(r[0], kNrcIncorrectLength);
  const uint8_t session = r[1] & 0x7F;
  if (session < kDefaultSession || session > kExtendedSession)
    return negative(r[0], kNrcSubFunctionNotSupported);
  if (session != session_) {
    unlocked_ = false;  // a session change locks the ECU again
    seed_given_ = false;
  }
  session_ = session;
  // P2 50 ms, P2* 5000 ms (in 10 ms units)
  return r[1] & 0x80 ? UdsAnswer{} : positive({0x50, session, 0x00, 0x32, 0x01, 0xF4});
}

UdsAnswer UdsServer::ecu_reset(std::span<const uint8_t> r) {
  if (r.size() != 2) return negative(r[0], kNrcIncorrectLength);
  const uint8_t kind = r[1] & 0x7F;
  if (kind != 1 && kind != 3) return negative(r[0], kNrcSubFunctionNotSupported);
  reset_locked();
  return r[1] & 0x80 ? UdsAnswer{} : positive({0x51, kind});
}

void UdsServer::reset_locked() {
  session_ = kDefaultSession;
  unlocked_ = false;
  seed_given_ = false;
  failed_keys_ = 0;
  downloading_ = false;
}

UdsAnswer UdsServer::read_identifiers(std::span<const uint8_t> r) {
  if (r.size() < 3 || r.size() % 2 == 0) return negative(r[0], kNrcIncorrectLength);
  std::vector<uint8_t> out{0x62};
  for (size_t i = 1; i < r.size(); i += 2) {
    const uint16_t id = be16(&r[i]);
    std::vector<uint8_t> value;
    if (id == 0xF186) {
      value = {session_};
    } else {
      auto it = identifiers_.find(id);
      if (it == identifiers_.end()) return negative(r[0], kNrcRequestOutOfRange);
      value = it->second;
    }
    out.push_back(r[i]);
    out.push_back(r[i + 1]);
    out.insert(out.end(), value.begin(), value.end());
  }
  return positive(std::move(out));
}

UdsAnswer UdsServer::write_identifier(std::span<const uint8_t> r) {
  if (r.size() < 4) return negative(r[0], kNrcIncorrectLength);
  const uint16_t id = be16(&r[1]);
  if (id < kWritableFirst || id > kWritableLast) return negative(r[0], kNrcRequestOutOfRange);
  identifiers_[id].assign(r.begin() + 3, r.end());
  return positive({0x6E, r[1], r[2]});
}

UdsAnswer UdsServer::security_access(std::span<const uint8_t> r) {
  if (r.size() < 2) return negative(r[0], kNrcIncorrectLength);
  const uint8_t level = r[1] & 0x7F;
  if (level == 0x01) {
    if (r.size() != 2) return negative(r[0], kNrcIncorrectLength);
    if (failed_keys_ >= kKeyAttempts) return negative(r[0], kNrcRequiredTimeDelay);
    std::vector<uint8_t> out{0x67, 0x01};
    append_be32(out, unlocked_ ? 0 : seed_);  // unlocked already: seed 0
    seed_given_ = !unlocked_;
    return positive(std::move(out));
  }
  if (level != 0x02) return negative(r[0], kNrcSubFunctionNotSupported);
  if (r.size() != 6) return negative(r[0], kNrcIncorrectLength);
  if (!seed_given_) return negative(r[0], kNrcRequestSequenceError);
  seed_given_ = false;
  const uint32_t expected = key_for(seed_);
  seed_ = seed_ * 1103515245u + 12345u;  // every seed is used once
  if (be_n(&r[2], 4) != expected) {
    return negative(r[0], ++failed_keys_ >= kKeyAttempts ? kNrcExceededAttempts : kNrcInvalidKey);
  }
  unlocked_ = true;
  failed_keys_ = 0;
  return positive({0x67, 0x02});
}

bool UdsServer::programming_allowed(uint8_t service, UdsAnswer* refusal) const {
  if (session_ != kProgrammingSession) {
    *refusal = negative(service, kNrcConditionsNotCorrect);
    return false;
  }
  if (!unlocked_) {
    *refusal = negative(service, kNrcSecurityAccessDenied);
    return false;
  }
  return true;
}

UdsAnswer UdsServer::routine_control(std::span<const uint8_t> r) {
  if (r.size() < 4) return negative(r[0], kNrcIncorrectLength);
  if (r[1] != 0x01) return negative(r[0], kNrcSubFunctionNotSupported);
  const uint16_t routine = be16(&r[2]);
  std::vector<uint8_t> out{0x71, 0x01, r[2], r[3]};
  if (routine == kEraseRoutine) {
    UdsAnswer refusal;
    if (!programming_allowed(r[0], &refusal)) return refusal;
    if (r.size() != 12) return negative(r[0], kNrcIncorrectLength);
    const uint32_t address = be_n(&r[4], 4), size = be_n(&r[8], 4);
    if (address < kFlashBase || size > kFlashSize || address - kFlashBase > kFlashSize - size)
      return negative(r[0], kNrcRequestOutOfRange);
    std::fill_n(flash_.begin() + (address - kFlashBase), size, 0xFF);
    out.push_back(0x00);  // routine status: done
    return {erase_pending_, out};
  }
  if (routine == kCheckRoutine) {
    if (r.size() != 4) return negative(r[0], kNrcIncorrectLength);
    if (checked_size_ == 0) return negative(r[0], kNrcRequestSequenceError);
    const auto first = flash_.begin() + (checked_address_ - kFlashBase);
    append_be32(out, crc32_ieee({&*first, checked_size_}));
    return positive(std::move(out));
  }
  return negative(r[0], kNrcRequestOutOfRange);
}

UdsAnswer UdsServer::request_download(std::span<const uint8_t> r) {
  UdsAnswer refusal;
  if (!programming_allowed(r[0], &refusal)) return refusal;
  if (r.size() < 3) return negative(r[0], kNrcIncorrectLength);
  const size_t address_len = r[2] & 0x0F, size_len = r[2] >> 4;
  if (address_len < 1 || address_len > 4 || size_len < 1 || size_len > 4)
    return negative(r[0], kNrcRequestOutOfRange);
  if (r.size() != 3 + address_len + size_len) return negative(r[0], kNrcIncorrectLength);
  if (r[1] != 0x00) return negative(r[0], kNrcRequestOutOfRange);  // no compression, no crypto
  if (downloading_) return negative(r[0], kNrcConditionsNotCorrect);
  const uint32_t address = be_n(&r[3], address_len), size = be_n(&r[3 + address_len], size_len);
  if (size == 0 || address < kFlashBase || size > kFlashSize ||
      address - kFlashBase > kFlashSize - size)
    return negative(r[0], kNrcRequestOutOfRange);
  downloading_ = true;
  download_address_ = address;
  download_size_ = size;
  download_done_ = 0;
  next_block_ = 1;
  const uint16_t max_request = uint16_t(kMaxBlock + 2);  // service, counter, data
  return positive({0x74, 0x20, uint8_t(max_request >> 8), uint8_t(max_request)});
}

UdsAnswer UdsServer::transfer_data(std::span<const uint8_t> r) {
  if (!downloading_) return negative(r[0], kNrcRequestSequenceError);
  if (r.size() < 2 || r.size() > kMaxBlock + 2) return negative(r[0], kNrcIncorrectLength);
  if (r[1] != next_block_) return negative(r[0], kNrcWrongBlockSequenceCounter);
  const size_t n = r.size() - 2;
  if (n > download_size_ - download_done_) return negative(r[0], kNrcTransferDataSuspended);
  auto cell = flash_.begin() + (download_address_ - kFlashBase + download_done_);
  // flash programs only erased cells: a cell not at 0xFF fails the block
  if (!std::all_of(cell, cell + ptrdiff_t(n), [](uint8_t b) { return b == 0xFF; })) {
    downloading_ = false;
    return negative(r[0], kNrcGeneralProgrammingFailure);
  }
  std::copy(r.begin() + 2, r.end(), cell);
  download_done_ += uint32_t(n);
  ++next_block_;  // 0xFF wraps to 0x00
  return positive({0x76, r[1]});
}

UdsAnswer UdsServer::transfer_exit(std::span<const uint8_t> r) {
  if (!downloading_ || download_done_ != download_size_)
    return negative(r[0], kNrcRequestSequenceError);
  downloading_ = false;
  checked_address_ = download_address_;
  checked_size_ = download_size_;
  return positive({0x77});
}

std::vector<uint8_t> UdsServer::flash() const {
  std::lock_guard guard(mutex_);
  return flash_;
}

std::vector<uint8_t> UdsServer::identifier(uint16_t id) const {
  std::lock_guard guard(mutex_);
  auto it = identifiers_.find(id);
  return it == identifiers_.end() ? std::vector<uint8_t>{} : it->second;
}

uint8_t UdsServer::session() const {
  std::lock_guard guard(mutex_);
  return session_;
}

bool UdsServer::unlocked() const {
  std::lock_guard guard(mutex_);
  return unlocked_;
}

void UdsServer::set_erase_pending(int answers) {
  std::lock_guard guard(mutex_);
  erase_pending_ = answers;
}

void UdsServer::set_seed(uint32_t seed) {
  std::lock_guard guard(mutex_);
  seed_ = seed;
}

}  // namespace sim
