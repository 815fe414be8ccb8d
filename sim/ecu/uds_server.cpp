#include "sim/ecu/uds_server.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <utility>

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

UdsServer::UdsServer() {
  const MemoryRegion& last = std::end(kDefaultMap)[-1];
  memory_.assign(last.address + last.size, 0xFF);
  // the boot loader's bytes: a pattern a read-back can recognise (its address, low byte)
  for (uint32_t a = 0; a < kDefaultMap[0].size; ++a) memory_[a] = uint8_t(a * 7 + (a >> 8));
  identifiers_[kVinIdentifier] = text_bytes("VARNELSIMECU00001");
  identifiers_[0xF187] = text_bytes("VN-ECU-0001");
  identifiers_[0xF189] = text_bytes("SW 1.4.2");
  identifiers_[0xF18A] = text_bytes("VARNEL");
  identifiers_[0xF18B] = {0x24, 0x03, 0x15};  // manufacturing date, BCD: 2024-03-15
  identifiers_[0xF18C] = text_bytes("000123456789");
  identifiers_[0xF191] = text_bytes("HW-0007");
  identifiers_[0xF192] = text_bytes("VN-HW-A2");
  identifiers_[0xF193] = text_bytes("A2");
  identifiers_[0xF194] = text_bytes("VN-SW-ECU");
  identifiers_[0xF195] = text_bytes("1.4.2");
  identifiers_[0xF197] = text_bytes("VIRTUAL ECU");
  // trouble codes: P0123 (throttle position sensor, failure type 00) confirmed and failed now,
  // C0035-11 pending, U0100-87 confirmed but not failing now, B1234-00 only tested as failed
  // since the last clear
  dtcs_ = {{0x012300, 0x09}, {0x403511, 0x04}, {0xC10087, 0x28}, {0x923400, 0x20}};
}

uint32_t UdsServer::key_for(uint32_t seed) {
  return ((seed << 7) | (seed >> 25)) ^ 0x5A5AA5A5u;
}

UdsServer::KeyRoutine UdsServer::key_routine_named(std::string_view name) {
  if (name == "rotate7") return key_for;
  if (name == "xor") return [](uint32_t seed) { return seed ^ 0x5A5AA5A5u; };
  return nullptr;
}

int64_t UdsServer::offset_of(uint32_t address, uint32_t size, bool flash_only) const {
  if (size == 0 || address > memory_.size() || size > memory_.size() - address) return -1;
  for (const MemoryRegion& region : kDefaultMap) {
    const uint32_t end = region.address + region.size;
    if (address >= end || address + size <= region.address) continue;
    if (flash_only && !region.flash) return -1;
  }
  return address;
}

UdsAnswer UdsServer::handle(std::span<const uint8_t> r) {
  std::lock_guard guard(mutex_);
  if (r.empty()) return {};
  switch (r[0]) {
    case 0x10:
      return session_control(r);
    case 0x11:
      return ecu_reset(r);
    case 0x14:
      return clear_dtc_information(r);
    case 0x19:
      return read_dtc_information(r);
    case 0x22:
      return read_identifiers(r);
    case 0x23:
      return read_memory(r);
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
  // the boot loader's programming session is reached from the extended session only, and takes
  // over an unlock made there; every other change locks the ECU again
  if (session == kProgrammingSession && session_ == kDefaultSession)
    return negative(r[0], kNrcConditionsNotCorrect);
  const bool keeps_unlock =
      session == session_ || (session == kProgrammingSession && session_ == kExtendedSession);
  if (!keeps_unlock) {
    unlocked_ = false;
    seed_given_ = false;
  }
  if (session != session_) downloading_ = false;
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
  if (session_ == kDefaultSession) return negative(r[0], kNrcServiceNotSupportedInActiveSession);
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
  const uint32_t expected = config_.key_routine(seed_);
  seed_ = seed_ * 1103515245u + 12345u;  // every seed is used once
  if (be_n(&r[2], 4) != expected || std::exchange(faults_.wrong_key, false)) {
    return negative(r[0], ++failed_keys_ >= kKeyAttempts ? kNrcExceededAttempts : kNrcInvalidKey);
  }
  unlocked_ = true;
  failed_keys_ = 0;
  return positive({0x67, 0x02});
}

bool UdsServer::programming_allowed(uint8_t service, UdsAnswer* refusal) const {
  if (session_ != kProgrammingSession) {
    // the application has no download services; its routines exist but refuse
    *refusal = negative(service, service == 0x31 ? kNrcConditionsNotCorrect
                                                 : kNrcServiceNotSupportedInActiveSession);
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
  if (routine == kEraseRoutine) return erase_routine(r, std::move(out));
  if (routine == kCheckRoutine) return check_routine(r, std::move(out));
  return negative(r[0], kNrcRequestOutOfRange);
}

// Erases every sector the range touches (4 KiB: flash erases no less); the range lies in flash.
UdsAnswer UdsServer::erase_routine(std::span<const uint8_t> r, std::vector<uint8_t> out) {
  UdsAnswer refusal;
  if (!programming_allowed(r[0], &refusal)) return refusal;
  if (r.size() != 12) return negative(r[0], kNrcIncorrectLength);
  const uint32_t address = be_n(&r[4], 4), size = be_n(&r[8], 4);
  if (offset_of(address, size, true) < 0) return negative(r[0], kNrcRequestOutOfRange);
  const uint32_t first = address / kSectorSize * kSectorSize;
  const uint32_t end = (address + size + kSectorSize - 1) / kSectorSize * kSectorSize;
  std::fill(memory_.begin() + first, memory_.begin() + end, 0xFF);
  out.push_back(0x00);  // routine status: done
  UdsAnswer answer{config_.erase_pending, out};
  if (std::exchange(faults_.reset_after_erase, false)) reset_locked();
  return answer;
}

// Without arguments: the CRC-32 of the last download; with an address and a size (4 bytes each):
// the CRC-32 of that range.
UdsAnswer UdsServer::check_routine(std::span<const uint8_t> r, std::vector<uint8_t> out) {
  uint32_t address = checked_address_, size = checked_size_;
  if (r.size() == 12) {
    address = be_n(&r[4], 4);
    size = be_n(&r[8], 4);
    if (offset_of(address, size, false) < 0) return negative(r[0], kNrcRequestOutOfRange);
  } else if (r.size() != 4) {
    return negative(r[0], kNrcIncorrectLength);
  } else if (size == 0) {
    return negative(r[0], kNrcRequestSequenceError);
  }
  append_be32(out, crc32_ieee({memory_.data() + address, size}));
  return positive(std::move(out));
}

// addressAndLengthFormatIdentifier: size bytes in the high nibble, address bytes in the low one,
// each 1 to 4; nothing for anything else.
struct AddressAndSize {
  uint32_t address = 0, size = 0;
};
static std::optional<AddressAndSize> address_and_size(std::span<const uint8_t> r, size_t at) {
  const size_t address_len = r[at] & 0x0F, size_len = r[at] >> 4;
  if (address_len < 1 || address_len > 4 || size_len < 1 || size_len > 4) return std::nullopt;
  if (r.size() != at + 1 + address_len + size_len) return std::nullopt;
  return AddressAndSize{be_n(&r[at + 1], address_len), be_n(&r[at + 1 + address_len], size_len)};
}

UdsAnswer UdsServer::read_memory(std::span<const uint8_t> r) {
  if (r.size() < 4) return negative(r[0], kNrcIncorrectLength);
  const auto range = address_and_size(r, 1);
  if (!range) return negative(r[0], kNrcRequestOutOfRange);
  // an answer no longer than the longest request this ECU takes
  if (range->size > config_.max_block_length - 1u ||
      offset_of(range->address, range->size, false) < 0)
    return negative(r[0], kNrcRequestOutOfRange);
  std::vector<uint8_t> out{0x63};
  out.insert(out.end(), memory_.begin() + range->address,
             memory_.begin() + range->address + range->size);
  return positive(std::move(out));
}

UdsAnswer UdsServer::read_dtc_information(std::span<const uint8_t> r) {
  if (r.size() < 2) return negative(r[0], kNrcIncorrectLength);
  if ((r[1] & 0x7F) != 0x02) return negative(r[0], kNrcSubFunctionNotSupported);
  if (r.size() != 3) return negative(r[0], kNrcIncorrectLength);
  constexpr uint8_t kAvailabilityMask = 0x7F;  // no warning indicator on this ECU
  std::vector<uint8_t> out{0x59, 0x02, kAvailabilityMask};
  for (const StoredDtc& d : dtcs_) {
    if ((d.status & r[2] & kAvailabilityMask) == 0) continue;
    out.insert(out.end(), {uint8_t(d.dtc >> 16), uint8_t(d.dtc >> 8), uint8_t(d.dtc), d.status});
  }
  return positive(std::move(out));
}

// groupOfDTC FFFFFF clears them all; a group of one system (the first byte's two top bits, the
// rest zero: 000000 powertrain, 400000 chassis, 800000 body, C00000 network) clears that system.
UdsAnswer UdsServer::clear_dtc_information(std::span<const uint8_t> r) {
  if (r.size() != 4) return negative(r[0], kNrcIncorrectLength);
  const uint32_t group = be_n(&r[1], 3);
  if (group == 0xFFFFFF) {
    dtcs_.clear();
  } else if ((group & 0x3FFFFF) == 0) {
    std::erase_if(dtcs_, [&](const StoredDtc& d) { return (d.dtc & 0xC00000) == group; });
  } else {
    return negative(r[0], kNrcRequestOutOfRange);
  }
  return positive({0x54});
}

UdsAnswer UdsServer::request_download(std::span<const uint8_t> r) {
  UdsAnswer refusal;
  if (!programming_allowed(r[0], &refusal)) return refusal;
  if (r.size() < 3) return negative(r[0], kNrcIncorrectLength);
  const auto range = address_and_size(r, 2);
  if (!range) return negative(r[0], kNrcRequestOutOfRange);
  if (r[1] != 0x00) return negative(r[0], kNrcRequestOutOfRange);  // no compression, no crypto
  if (downloading_) return negative(r[0], kNrcConditionsNotCorrect);
  const uint32_t address = range->address, size = range->size;
  if (offset_of(address, size, true) < 0) return negative(r[0], kNrcRequestOutOfRange);
  downloading_ = true;
  download_address_ = address;
  download_size_ = size;
  download_done_ = 0;
  next_block_ = 1;
  blocks_taken_ = 0;
  const uint16_t max_request = config_.max_block_length;  // service, counter, data
  return positive({0x74, 0x20, uint8_t(max_request >> 8), uint8_t(max_request)});
}

UdsAnswer UdsServer::transfer_data(std::span<const uint8_t> r) {
  if (session_ != kProgrammingSession)
    return negative(r[0], kNrcServiceNotSupportedInActiveSession);
  if (!downloading_) return negative(r[0], kNrcRequestSequenceError);
  if (r.size() < 2 || r.size() > config_.max_block_length)
    return negative(r[0], kNrcIncorrectLength);
  const bool third = ++blocks_taken_ == 3;
  if (r[1] != next_block_ || (third && std::exchange(faults_.wrong_sequence, false)))
    return negative(r[0], kNrcWrongBlockSequenceCounter);
  const size_t n = r.size() - 2;
  if (n > download_size_ - download_done_) return negative(r[0], kNrcTransferDataSuspended);
  if (download_done_ >= download_size_ / 2 && std::exchange(faults_.abort_transfer, false)) {
    downloading_ = false;
    return negative(r[0], kNrcTransferDataSuspended);
  }
  auto cell = memory_.begin() + (download_address_ + download_done_);
  // flash programs only erased cells: a cell not at 0xFF fails the block
  if (!std::all_of(cell, cell + ptrdiff_t(n), [](uint8_t b) { return b == 0xFF; })) {
    downloading_ = false;
    return negative(r[0], kNrcGeneralProgrammingFailure);
  }
  std::copy(r.begin() + 2, r.end(), cell);
  download_done_ += uint32_t(n);
  if (download_done_ == download_size_ && n > 0 && std::exchange(faults_.corrupt_byte, false))
    cell[ptrdiff_t(n) - 1] ^= 0x01;  // a cell that did not take its bit
  ++next_block_;                     // 0xFF wraps to 0x00
  return positive({0x76, r[1]});
}

UdsAnswer UdsServer::transfer_exit(std::span<const uint8_t> r) {
  if (session_ != kProgrammingSession)
    return negative(r[0], kNrcServiceNotSupportedInActiveSession);
  if (!downloading_ || download_done_ != download_size_)
    return negative(r[0], kNrcRequestSequenceError);
  downloading_ = false;
  checked_address_ = download_address_;
  checked_size_ = download_size_;
  return positive({0x77});
}

std::vector<uint8_t> UdsServer::memory(uint32_t address, uint32_t size) const {
  std::lock_guard guard(mutex_);
  if (offset_of(address, size, false) < 0) return {};
  return {memory_.begin() + address, memory_.begin() + address + size};
}

void UdsServer::configure(const Config& config) {
  std::lock_guard guard(mutex_);
  config_ = config;
}

void UdsServer::set_faults(const Faults& faults) {
  std::lock_guard guard(mutex_);
  faults_ = faults;
}

std::vector<StoredDtc> UdsServer::dtcs() const {
  std::lock_guard guard(mutex_);
  return dtcs_;
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
  config_.erase_pending = answers;
}

void UdsServer::set_seed(uint32_t seed) {
  std::lock_guard guard(mutex_);
  seed_ = seed;
}

}  // namespace sim
