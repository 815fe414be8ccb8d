// What the diagnostic commands share (`varnel uds`, `varnel lin uds`): requests in hex, responses
// printed in hex with negative response codes by name, "response pending" waited through.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "core/result_text.h"

namespace varnel_cli {

// The name of a negative response code (ISO 14229-1).
const char* nrc_name(uint8_t code);
// "22F190", "22.F1.90" or "22 F1 90"; nothing for anything else.
std::optional<std::vector<uint8_t>> parse_hex_bytes(const std::string& text);
std::string hex_line(const uint8_t* bytes, int n);
// Each request parsed; nothing (and the bad one named on stderr) when one is not hex.
std::optional<std::vector<std::vector<uint8_t>>> parse_requests(
    const std::vector<std::string>& texts);

// Reads responses with `receive(buffer, size, timeout_ms)` (a length or a negative code) until a
// final one and prints it: a line of hex, a negative one with its code's name; "response
// pending" answers go to stderr and are waited through (5 s each). False when the response was
// negative or none came (the reason, from `meanings`, on stderr).
bool print_final_response(const std::function<int(uint8_t*, uint32_t, int)>& receive,
                          int timeout_ms, std::span<const ResultMeaning> meanings);

}  // namespace varnel_cli
