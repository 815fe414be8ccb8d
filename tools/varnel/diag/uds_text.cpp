#include "diag/uds_text.h"

#include <cctype>
#include <cstdio>

namespace varnel_cli {

// Negative response codes of ISO 14229-1.
const char* nrc_name(uint8_t code) {
  switch (code) {
    case 0x10:
      return "generalReject";
    case 0x11:
      return "serviceNotSupported";
    case 0x12:
      return "subFunctionNotSupported";
    case 0x13:
      return "incorrectMessageLengthOrInvalidFormat";
    case 0x14:
      return "responseTooLong";
    case 0x21:
      return "busyRepeatRequest";
    case 0x22:
      return "conditionsNotCorrect";
    case 0x24:
      return "requestSequenceError";
    case 0x25:
      return "noResponseFromSubnetComponent";
    case 0x26:
      return "failurePreventsExecutionOfRequestedAction";
    case 0x31:
      return "requestOutOfRange";
    case 0x33:
      return "securityAccessDenied";
    case 0x35:
      return "invalidKey";
    case 0x36:
      return "exceedNumberOfAttempts";
    case 0x37:
      return "requiredTimeDelayNotExpired";
    case 0x70:
      return "uploadDownloadNotAccepted";
    case 0x71:
      return "transferDataSuspended";
    case 0x72:
      return "generalProgrammingFailure";
    case 0x73:
      return "wrongBlockSequenceCounter";
    case 0x78:
      return "requestCorrectlyReceived-ResponsePending";
    case 0x7E:
      return "subFunctionNotSupportedInActiveSession";
    case 0x7F:
      return "serviceNotSupportedInActiveSession";
    default:
      return "unknown negative response code";
  }
}

std::optional<std::vector<uint8_t>> parse_hex_bytes(const std::string& text) {
  std::vector<uint8_t> out;
  std::string digits;
  for (char c : text)
    if (std::isxdigit(static_cast<unsigned char>(c)))
      digits += c;
    else if (c != ' ' && c != '.')
      return std::nullopt;
  if (digits.empty() || digits.size() % 2) return std::nullopt;
  for (size_t i = 0; i < digits.size(); i += 2)
    out.push_back(uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return out;
}

std::string hex_line(const uint8_t* bytes, int n) {
  std::string line;
  char byte[4];
  for (int i = 0; i < n; ++i) {
    std::snprintf(byte, sizeof byte, i ? " %02X" : "%02X", bytes[i]);
    line += byte;
  }
  return line;
}

std::optional<std::vector<std::vector<uint8_t>>> parse_requests(
    const std::vector<std::string>& texts) {
  std::vector<std::vector<uint8_t>> requests;
  for (const auto& text : texts) {
    auto bytes = parse_hex_bytes(text);
    if (!bytes) {
      std::fprintf(stderr, "not a request in hex: %s (use 22F190)\n", text.c_str());
      return std::nullopt;
    }
    requests.push_back(*bytes);
  }
  return requests;
}

namespace {
constexpr uint8_t kNegative = 0x7F, kPending = 0x78;
constexpr uint32_t kResponseLimit = 1 << 20;
constexpr int kPendingTimeoutMs = 5000;  // P2*: how long an ECU that said "pending" may take
}  // namespace

bool print_final_response(const std::function<int(uint8_t*, uint32_t, int)>& receive,
                          int timeout_ms, std::span<const ResultMeaning> meanings) {
  std::vector<uint8_t> response(kResponseLimit);
  while (true) {
    const int n = receive(response.data(), uint32_t(response.size()), timeout_ms);
    if (n < 0) {
      std::fprintf(stderr, "no response: %s\n", describe_result(n, meanings).c_str());
      return false;
    }
    const bool negative = n == 3 && response[0] == kNegative;
    if (negative && response[2] == kPending) {
      std::fprintf(stderr, "%s (%s)\n", hex_line(response.data(), n).c_str(), nrc_name(kPending));
      timeout_ms = kPendingTimeoutMs;
      continue;
    }
    if (negative)
      std::printf("%s (%s)\n", hex_line(response.data(), n).c_str(), nrc_name(response[2]));
    else
      std::printf("%s\n", hex_line(response.data(), n).c_str());
    std::fflush(stdout);
    return !negative;
  }
}

}  // namespace varnel_cli
