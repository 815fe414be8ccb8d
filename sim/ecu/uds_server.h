// The diagnostic services of the virtual ECUs, independent of the transport that carries them
// (ISO-TP on CAN, the LIN diagnostic transport): a request's bytes in, the answer's bytes out.
//
// Services: diagnostic session control (0x10), ECU reset (0x11), read/write data by identifier
// (0x22/0x2E), security access (0x27), routine control (0x31: erase memory 0xFF00, check memory
// 0x0202), request download / transfer data / transfer exit (0x34/0x36/0x37) into a flash model,
// tester present (0x3E). Negative answers are 7F, the service, the code.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <vector>

namespace sim {

// Negative response codes (ISO 14229-1).
enum UdsNrc : uint8_t {
  kNrcServiceNotSupported = 0x11,
  kNrcSubFunctionNotSupported = 0x12,
  kNrcIncorrectLength = 0x13,
  kNrcConditionsNotCorrect = 0x22,
  kNrcRequestSequenceError = 0x24,
  kNrcRequestOutOfRange = 0x31,
  kNrcSecurityAccessDenied = 0x33,
  kNrcInvalidKey = 0x35,
  kNrcExceededAttempts = 0x36,
  kNrcUploadDownloadNotAccepted = 0x70,
  kNrcTransferDataSuspended = 0x71,
  kNrcGeneralProgrammingFailure = 0x72,
  kNrcWrongBlockSequenceCounter = 0x73,
  kNrcResponsePending = 0x78,
};

// One request's answer: `pending` "response pending" answers (7F SID 78) come before the final
// one; an empty final answer means none (a suppressed positive response).
struct UdsAnswer {
  int pending = 0;
  std::vector<uint8_t> response;
};

class UdsServer {
 public:
  static constexpr uint32_t kFlashBase = 0x00010000;
  static constexpr size_t kFlashSize = 0x40000;  // 256 KiB
  static constexpr size_t kMaxBlock = 1024;      // data bytes per transfer data request
  static constexpr uint16_t kVinIdentifier = 0xF190;

  UdsServer();
  UdsAnswer handle(std::span<const uint8_t> request);

  // The key this ECU expects for a seed: the seed rotated left by 7 bits, XOR 0x5A5AA5A5.
  static uint32_t key_for(uint32_t seed);

  // Read-outs and knobs for tests and demos.
  std::vector<uint8_t> flash() const;
  std::vector<uint8_t> identifier(uint16_t id) const;
  uint8_t session() const;
  bool unlocked() const;
  void set_erase_pending(int answers);  // "response pending" answers before an erase finishes
  void set_seed(uint32_t seed);         // the next seed handed out

 private:
  UdsAnswer session_control(std::span<const uint8_t> r);
  UdsAnswer ecu_reset(std::span<const uint8_t> r);
  UdsAnswer read_identifiers(std::span<const uint8_t> r);
  UdsAnswer write_identifier(std::span<const uint8_t> r);
  UdsAnswer security_access(std::span<const uint8_t> r);
  UdsAnswer routine_control(std::span<const uint8_t> r);
  UdsAnswer request_download(std::span<const uint8_t> r);
  UdsAnswer transfer_data(std::span<const uint8_t> r);
  UdsAnswer transfer_exit(std::span<const uint8_t> r);
  bool programming_allowed(uint8_t service, UdsAnswer* refusal) const;
  void reset_locked();

  mutable std::mutex mutex_;
  uint8_t session_ = 1;
  bool unlocked_ = false;
  bool seed_given_ = false;
  int failed_keys_ = 0;
  uint32_t seed_ = 0x1F2E3D4C;
  int erase_pending_ = 1;
  std::map<uint16_t, std::vector<uint8_t>> identifiers_;
  std::vector<uint8_t> flash_;
  // the download in progress
  bool downloading_ = false;
  uint32_t download_address_ = 0, download_size_ = 0, download_done_ = 0;
  uint8_t next_block_ = 1;
  uint32_t checked_address_ = 0, checked_size_ = 0;  // the last download, for the check routine
};

// CRC-32 of IEEE 802.3 (reflected, polynomial 0xEDB88320, inverted in and out), the check
// routine's answer.
uint32_t crc32_ieee(std::span<const uint8_t> bytes);

}  // namespace sim
