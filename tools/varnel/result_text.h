// Result codes in words, for every command group: "-4 (the reply could not be read, ...)".
#pragma once

#include <span>
#include <string>

namespace varnel_cli {

struct ResultMeaning {
  int code;
  const char* text;
};

// The meaning of a result code common to the families; family tables (UDS, LIN diagnostics,
// K-line, DBC...) are looked up first when given. Unknown codes read "unknown result code".
const char* result_text(int code, std::span<const ResultMeaning> family = {});

// "<code> (<meaning>)".
std::string describe_result(int code, std::span<const ResultMeaning> family = {});

}  // namespace varnel_cli
