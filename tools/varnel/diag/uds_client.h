// What the UDS workflows (`varnel uds info|dtc|read|flash`) share: the ECU reached over ISO-TP on
// one CAN channel, requests matched to their final response (response pending waited through,
// tester present sent while a long wait lasts), key routines, and the names of identifiers,
// trouble codes and status bits.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "can/can_channel.h"
#include "varnel.h"

namespace varnel_cli {

// The arguments every workflow takes: CHANNEL TXID RXID and the link's options.
struct UdsLinkOptions {
  std::string target, tx_text, rx_text;
  std::string ext_addr;  // hex; empty: normal addressing
  bool fd = false, brs = false;
  int timeout_ms = 1000;
  uint32_t bitrate = 500000, data_bitrate = 2000000;
};
void add_uds_link_options(CLI::App* command, UdsLinkOptions& o);
CLI::Validator can_id_validator();

// What the UDS-on-CAN calls' own codes mean, for describe_result.
std::span<const ResultMeaning> uds_results();

// A final answer: `transport` < 0 when none came (a library result code), else the response;
// a negative one has `nrc` set.
struct UdsReply {
  int transport = 0;
  uint8_t nrc = 0;
  std::vector<uint8_t> bytes;
  bool positive() const { return transport == 0 && nrc == 0; }
};

class UdsLink {
 public:
  // Opens the channel (the reason on stderr and the exit code set when it cannot).
  static std::optional<UdsLink> open(const UdsLinkOptions& o);
  UdsLink(UdsLink&& other) noexcept;
  UdsLink& operator=(UdsLink&&) = delete;
  ~UdsLink();

  // Sends `request` and waits for the answer to it: a response to another service is skipped,
  // "response pending" extends the wait to P2* (5 s, again after each) and, once the ECU has
  // been waited on for 2 s, a tester present (3E 80) goes out every 2 s so that the session
  // holds.
  UdsReply request(const std::vector<uint8_t>& request);
  // "7F 22 31 (requestOutOfRange)" or "no response: -101 (...)".
  static std::string describe(const UdsReply& reply);

 private:
  UdsLink(const OpenCanChannel& channel, const CAN_UDS_ADDR& addr, int timeout_ms);
  bool send(const std::vector<uint8_t>& request);
  OpenCanChannel channel_;
  CAN_UDS_ADDR addr_;
  int timeout_ms_;
  bool open_ = true;
};

// Key routines of security access: `rotate7` (the virtual ECU's: the 4-byte seed rotated left
// by 7 bits, XOR 0x5A5AA5A5), `xor` (the seed XOR 0x5A5AA5A5), or a function in a shared library,
// LIB.so:FUNCTION, `int FUNCTION(const uint8_t* seed, int seed_length, uint8_t* key,
// int key_size)` returning the key's length (negative: no key for that seed).
using UdsKeyRoutine = int (*)(const uint8_t* seed, int seed_length, uint8_t* key, int key_size);
UdsKeyRoutine find_uds_key_routine(const std::string& name, std::string& why);

// Names from ISO 14229-1: the identification identifiers, the DTC status bits.
const char* did_name(uint16_t id);
std::string dtc_status_text(uint8_t status);
// The 3-byte DTC as SAE J2012 writes it: the system letter from the top two bits (P, C, B, U),
// four digits, then the failure type byte: 0x012300 -> "P0123-00".
std::string dtc_text(uint32_t dtc);
// The value in hex, and in quotes as ASCII when every byte is printable.
std::string value_text(const std::vector<uint8_t>& value);

}  // namespace varnel_cli
