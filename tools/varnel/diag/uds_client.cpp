#include "diag/uds_client.h"

#include <chrono>
#include <cstdio>
#include <cstring>

#include "core/adapter.h"
#include "core/command_group.h"
#include "core/library_symbol.h"
#include "core/result_text.h"
#include "diag/uds_text.h"

namespace varnel_cli {
namespace {

constexpr uint8_t kNegative = 0x7F, kPending = 0x78;
constexpr uint32_t kResponseLimit = 1 << 20;
constexpr int kPendingTimeoutMs = 5000;  // P2*: how long an ECU that said "pending" may take
constexpr int kTesterPresentMs = 2000;   // well inside the ECU's S3 of 5 s

constexpr ResultMeaning kUdsResults[] = {
    {CAN_UDS_ERR_SEND_COUNT, "the adapter sent another number of frames than asked"},
    {CAN_UDS_ERR_TIMEOUT, "no flow control or no whole response in time"},
    {CAN_UDS_ERR_SEQUENCE, "a consecutive frame came out of sequence"},
    {CAN_UDS_ERR_FRAME, "a frame that is not ISO-TP, or a single frame longer than itself"},
    {CAN_UDS_ERR_OVERFLOW, "the ECU answered flow control with overflow"},
    {CAN_UDS_ERR_DEVICE, "the adapter has no device index"},
    {VARNEL_CAN_UDS_ERR_SIZE, "the response is longer than 1 MiB"},
};

int key_rotate7(const uint8_t* seed, int n, uint8_t* key, int size) {
  if (n != 4 || size < 4) return -1;
  uint32_t s = uint32_t(seed[0]) << 24 | uint32_t(seed[1]) << 16 | uint32_t(seed[2]) << 8 | seed[3];
  const uint32_t k = ((s << 7) | (s >> 25)) ^ 0x5A5AA5A5u;
  for (int i = 0; i < 4; ++i) key[i] = uint8_t(k >> (24 - 8 * i));
  return 4;
}

int key_xor(const uint8_t* seed, int n, uint8_t* key, int size) {
  if (n != 4 || size < 4) return -1;
  constexpr uint8_t mask[4] = {0x5A, 0x5A, 0xA5, 0xA5};
  for (int i = 0; i < 4; ++i) key[i] = seed[i] ^ mask[i];
  return 4;
}

bool is_hex_id(const std::string& text) {
  return !text.empty() && text.size() <= 8 &&
         text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
}

// The answer belongs to `service`: its positive response or a negative one naming it.
bool answers(const std::vector<uint8_t>& r, uint8_t service) {
  if (r.empty()) return false;
  if (r[0] == kNegative) return r.size() == 3 && r[1] == service;
  return r[0] == uint8_t(service + 0x40);
}

}  // namespace

std::span<const ResultMeaning> uds_results() {
  return kUdsResults;
}

CLI::Validator can_id_validator() {
  return CLI::Validator(
      [](std::string& text) {
        return is_hex_id(text) && std::stoul(text, nullptr, 16) <= 0x1FFFFFFF
                   ? std::string()
                   : "expected a CAN identifier in hex (7E0, 18DA10F1), got " + text;
      },
      "ID");
}

void add_uds_link_options(CLI::App* command, UdsLinkOptions& o) {
  add_channel_argument(command, o.target);
  command->add_option("TXID", o.tx_text, "identifier of the requests (hex)")
      ->required()
      ->check(can_id_validator());
  command->add_option("RXID", o.rx_text, "identifier of the responses (hex)")
      ->required()
      ->check(can_id_validator());
  command->add_option("-x,--ext-addr", o.ext_addr, "extended addressing with this address (hex)")
      ->check(CLI::Validator(
          [](std::string& text) {
            return is_hex_id(text) && text.size() <= 2 ? std::string()
                                                       : "expected one byte in hex, got " + text;
          },
          "ADDR"));
  command->add_flag("--fd", o.fd, "CAN FD frames of 64 bytes");
  command->add_flag("--brs", o.brs, "CAN FD frames with the bit-rate switch");
  command->add_option("-t,--timeout", o.timeout_ms, "ms to wait for a response (default 1000)")
      ->check(CLI::Range(1, 600000));
  command->add_option("-b,--bitrate", o.bitrate, "nominal bit rate (default 500000)");
  command->add_option("--data-bitrate", o.data_bitrate, "CAN FD data bit rate (default 2000000)");
}

std::optional<UdsLink> UdsLink::open(const UdsLinkOptions& o) {
  const auto name = parse_can_channel_name(o.target);
  const auto ch = open_can_channel(*name, o.bitrate, o.data_bitrate);
  if (!ch) return std::nullopt;
  const uint32_t tx = uint32_t(std::stoul(o.tx_text, nullptr, 16));
  const uint32_t rx = uint32_t(std::stoul(o.rx_text, nullptr, 16));
  // identifiers of eight digits are 29-bit, as cansend reads them
  const bool extended = o.tx_text.size() == 8 || tx > 0x7FF || rx > 0x7FF;
  const bool ext = !o.ext_addr.empty();
  const CAN_UDS_ADDR addr{tx,
                          rx,
                          uint8_t((extended ? 0x01 : 0) | (o.fd ? 0x02 : 0) | (o.brs ? 0x06 : 0)),
                          uint8_t(ext ? 1 : 0),
                          uint8_t(ext ? std::stoul(o.ext_addr, nullptr, 16) : 0),
                          uint8_t(o.fd || o.brs ? 64 : 8)};
  VARNEL_CAN_UDS_SetIsoTiming(ch->handle, ch->channel, 1);
  return UdsLink(*ch, addr, o.timeout_ms);
}

UdsLink::UdsLink(const OpenCanChannel& channel, const CAN_UDS_ADDR& addr, int timeout_ms)
    : channel_(channel), addr_(addr), timeout_ms_(timeout_ms) {}

UdsLink::UdsLink(UdsLink&& other) noexcept
    : channel_(other.channel_), addr_(other.addr_), timeout_ms_(other.timeout_ms_) {
  other.open_ = false;
}

UdsLink::~UdsLink() {
  if (open_) close_adapter(channel_.handle);
}

bool UdsLink::send(const std::vector<uint8_t>& request) {
  std::vector<uint8_t> bytes = request;
  return CAN_UDS_Request(channel_.handle, channel_.channel, &addr_, bytes.data(),
                         int32_t(bytes.size())) == 0;
}

UdsReply UdsLink::request(const std::vector<uint8_t>& request) {
  using Clock = std::chrono::steady_clock;
  UdsReply reply;
  std::vector<uint8_t> bytes = request;
  if (int rc = CAN_UDS_Request(channel_.handle, channel_.channel, &addr_, bytes.data(),
                               int32_t(bytes.size()));
      rc != 0) {
    reply.transport = rc;
    return reply;
  }
  std::vector<uint8_t> buffer(kResponseLimit);
  auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms_);
  auto next_tester_present = Clock::now() + std::chrono::milliseconds(kTesterPresentMs);
  while (true) {
    const auto now = Clock::now();
    if (now >= deadline) {
      reply.transport = CAN_UDS_ERR_TIMEOUT;
      return reply;
    }
    const auto slice = std::min(deadline, next_tester_present) - now;
    const int wait_ms =
        std::max(1, int(std::chrono::duration_cast<std::chrono::milliseconds>(slice).count()));
    const int n = VARNEL_CAN_UDS_ResponseN(channel_.handle, channel_.channel, &addr_, buffer.data(),
                                           kResponseLimit, wait_ms);
    if (n == CAN_UDS_ERR_TIMEOUT) {
      if (Clock::now() >= next_tester_present) {
        send({0x3E, 0x80});  // no answer comes to it: it only holds the session
        next_tester_present = Clock::now() + std::chrono::milliseconds(kTesterPresentMs);
      }
      continue;
    }
    if (n < 0) {
      reply.transport = n;
      return reply;
    }
    std::vector<uint8_t> r(buffer.begin(), buffer.begin() + n);
    if (!answers(r, request[0])) continue;  // a late answer to something else
    if (r[0] == kNegative && r[2] == kPending) {
      deadline = Clock::now() + std::chrono::milliseconds(kPendingTimeoutMs);
      continue;
    }
    if (r[0] == kNegative) reply.nrc = r[2];
    reply.bytes = std::move(r);
    return reply;
  }
}

std::string UdsLink::describe(const UdsReply& reply) {
  if (reply.transport < 0) return "no response: " + describe_result(reply.transport, kUdsResults);
  return hex_line(reply.bytes.data(), int(reply.bytes.size())) + " (" + nrc_name(reply.nrc) + ")";
}

UdsKeyRoutine find_uds_key_routine(const std::string& name, std::string& why) {
  if (name.empty() || name == "rotate7") return key_rotate7;
  if (name == "xor") return key_xor;
  if (!names_library_symbol(name)) {
    why = "expected rotate7, xor or LIB.so:FUNCTION, got " + name;
    return nullptr;
  }
  return reinterpret_cast<UdsKeyRoutine>(find_library_symbol(name, why));
}

const char* did_name(uint16_t id) {
  switch (id) {
    case 0xF180:
      return "bootSoftwareIdentification";
    case 0xF181:
      return "applicationSoftwareIdentification";
    case 0xF182:
      return "applicationDataIdentification";
    case 0xF186:
      return "activeDiagnosticSession";
    case 0xF187:
      return "vehicleManufacturerSparePartNumber";
    case 0xF188:
      return "vehicleManufacturerECUSoftwareNumber";
    case 0xF189:
      return "vehicleManufacturerECUSoftwareVersionNumber";
    case 0xF18A:
      return "systemSupplierIdentifier";
    case 0xF18B:
      return "ECUManufacturingDate";
    case 0xF18C:
      return "ECUSerialNumber";
    case 0xF190:
      return "VIN";
    case 0xF191:
      return "vehicleManufacturerECUHardwareNumber";
    case 0xF192:
      return "systemSupplierECUHardwareNumber";
    case 0xF193:
      return "systemSupplierECUHardwareVersionNumber";
    case 0xF194:
      return "systemSupplierECUSoftwareNumber";
    case 0xF195:
      return "systemSupplierECUSoftwareVersionNumber";
    case 0xF197:
      return "systemNameOrEngineType";
    case 0xF198:
      return "repairShopCodeOrTesterSerialNumber";
    case 0xF199:
      return "programmingDate";
    default:
      return "";
  }
}

std::string dtc_status_text(uint8_t status) {
  static const char* const kBits[8] = {
      "testFailed",
      "testFailedThisOperationCycle",
      "pendingDTC",
      "confirmedDTC",
      "testNotCompletedSinceLastClear",
      "testFailedSinceLastClear",
      "testNotCompletedThisOperationCycle",
      "warningIndicatorRequested",
  };
  std::string text;
  for (int bit = 0; bit < 8; ++bit)
    if (status & (1 << bit)) text += (text.empty() ? "" : " ") + std::string(kBits[bit]);
  return text;
}

std::string dtc_text(uint32_t dtc) {
  char text[16];
  std::snprintf(text, sizeof text, "%c%X%X%02X-%02X", "PCBU"[(dtc >> 22) & 3], (dtc >> 20) & 3,
                (dtc >> 16) & 0xF, (dtc >> 8) & 0xFF, dtc & 0xFF);
  return text;
}

std::string value_text(const std::vector<uint8_t>& value) {
  std::string text = hex_line(value.data(), int(value.size()));
  bool printable = !value.empty();
  for (uint8_t b : value) printable = printable && b >= 0x20 && b < 0x7F;
  if (printable) text += " \"" + std::string(value.begin(), value.end()) + "\"";
  return text;
}

}  // namespace varnel_cli
