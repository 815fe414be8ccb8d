// Result codes in words, for every command group: "-4 (the reply could not be read, ...)".
#pragma once

#include <span>
#include <string>
#include <utility>
#include <vector>

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

// What a call was asked: its name and the arguments a refusal may be about, by name
// ({"bit rate", "123456"}).
struct CallContext {
  std::string call;
  std::vector<std::pair<std::string, std::string>> arguments;
};

// "<code> (<meaning>)" for the code `context.call` gave: where that call's code tells which
// argument or state was refused, the meaning names it with the value asked for; otherwise the
// family's or the common meaning.
std::string describe_result(int code, const CallContext& context,
                            std::span<const ResultMeaning> family = {});

}  // namespace varnel_cli
