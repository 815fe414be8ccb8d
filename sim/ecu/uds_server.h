// The diagnostic services of the virtual ECUs, independent of the transport that carries them
// (ISO-TP on CAN, the LIN diagnostic transport): a request's bytes in, the answer's bytes out.
//
// Services: diagnostic session control (0x10), ECU reset (0x11), clear and read DTC information
// (0x14, 0x19 02), read/write data by identifier (0x22/0x2E), read memory by address (0x23),
// security access (0x27), routine control (0x31: erase memory 0xFF00, check memory 0x0202),
// request download / transfer data / transfer exit (0x34/0x36/0x37) into a flash model, tester
// present (0x3E). Negative answers are 7F, the service, the code.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <string_view>
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
  kNrcServiceNotSupportedInActiveSession = 0x7F,
};

// One piece of the ECU's memory: flash that the erase routine and downloads may change, or
// read-only memory (the boot loader) that only reads reach.
struct MemoryRegion {
  const char* name;
  uint32_t address;
  uint32_t size;
  bool flash;
};

// A stored trouble code: the 3-byte DTC (two bits of system, four digits, the failure type byte)
// and its status bits.
struct StoredDtc {
  uint32_t dtc;
  uint8_t status;
};

// One request's answer: `pending` "response pending" answers (7F SID 78) come before the final
// one; an empty final answer means none (a suppressed positive response).
struct UdsAnswer {
  int pending = 0;
  std::vector<uint8_t> response;
};

class UdsServer {
 public:
  // The default map: a read-only boot loader, calibration flash and 512 KiB of program flash.
  static constexpr MemoryRegion kDefaultMap[] = {
      {"boot", 0x00000000, 0x10000, false},
      {"calibration", 0x00010000, 0x10000, true},
      {"application", 0x00020000, 0x80000, true},
  };
  static constexpr uint32_t kSectorSize = 0x1000;  // the erase routine's unit
  static constexpr uint16_t kVinIdentifier = 0xF190;

  using KeyRoutine = uint32_t (*)(uint32_t seed);
  // Faults to inject; each serves its next occasion and then clears itself.
  struct Faults {
    bool wrong_key = false;          // the next key is refused (35) whatever it is
    bool wrong_sequence = false;     // the third transfer data block of a download answers 73
    bool abort_transfer = false;     // half-way through a download the ECU gives up (71)
    bool corrupt_byte = false;       // the last byte of the next download is programmed wrong
    bool reset_after_erase = false;  // the ECU resets right after the next erase
  };
  struct Config {
    // maxNumberOfBlockLength: the longest transfer data request, service and counter included
    uint16_t max_block_length = 0x0802;
    KeyRoutine key_routine = key_for;
    int erase_pending = 1;  // "response pending" answers before an erase finishes
  };

  UdsServer();
  UdsAnswer handle(std::span<const uint8_t> request);

  // The default key routine: the seed rotated left by 7 bits, XOR 0x5A5AA5A5.
  static uint32_t key_for(uint32_t seed);
  // The key routines by name ("rotate7", the default, and "xor": the seed XOR 0x5A5AA5A5); null
  // for an unknown name.
  static KeyRoutine key_routine_named(std::string_view name);

  // Read-outs and knobs for tests and demos.
  // The bytes at [address, address + size) (a copy; empty when not all in the map).
  std::vector<uint8_t> memory(uint32_t address, uint32_t size) const;
  std::vector<uint8_t> identifier(uint16_t id) const;
  uint8_t session() const;
  bool unlocked() const;
  void set_erase_pending(int answers);  // "response pending" answers before an erase finishes
  void set_seed(uint32_t seed);         // the next seed handed out
  void configure(const Config& config);
  void set_faults(const Faults& faults);
  std::vector<StoredDtc> dtcs() const;

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
  UdsAnswer read_dtc_information(std::span<const uint8_t> r);
  UdsAnswer clear_dtc_information(std::span<const uint8_t> r);
  UdsAnswer read_memory(std::span<const uint8_t> r);
  UdsAnswer erase_routine(std::span<const uint8_t> r, std::vector<uint8_t> out);
  UdsAnswer check_routine(std::span<const uint8_t> r, std::vector<uint8_t> out);
  bool programming_allowed(uint8_t service, UdsAnswer* refusal) const;
  // The offset of [address, address + size) in memory_ when every byte of it lies in the map
  // (in flash regions only when `flash_only`); -1 otherwise.
  int64_t offset_of(uint32_t address, uint32_t size, bool flash_only) const;
  void reset_locked();

  mutable std::mutex mutex_;
  uint8_t session_ = 1;
  bool unlocked_ = false;
  bool seed_given_ = false;
  int failed_keys_ = 0;
  uint32_t seed_ = 0x1F2E3D4C;
  std::map<uint16_t, std::vector<uint8_t>> identifiers_;
  std::vector<uint8_t> memory_;  // the whole map, from address 0
  std::vector<StoredDtc> dtcs_;
  Config config_;
  Faults faults_;
  // the download in progress
  bool downloading_ = false;
  uint32_t download_address_ = 0, download_size_ = 0, download_done_ = 0;
  uint8_t next_block_ = 1;
  uint32_t blocks_taken_ = 0;
  uint32_t checked_address_ = 0, checked_size_ = 0;  // the last download, for the check routine
};

// CRC-32 of IEEE 802.3 (reflected, polynomial 0xEDB88320, inverted in and out), the check
// routine's answer.
uint32_t crc32_ieee(std::span<const uint8_t> bytes);

}  // namespace sim
