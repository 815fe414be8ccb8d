#include "result_text.h"

namespace varnel_cli {
namespace {

constexpr ResultMeaning kCommon[] = {
    {0, "success"},
    {-1, "unknown handle, or the adapter is not connected"},
    {-2, "the command could not be written to the adapter"},
    {-3, "the reply was missing, short or answered another command"},
    {-4, "the reply could not be read, had the wrong length or reported failure"},
    {-5, "the channel is not initialised"},
    {-7, "bad index or argument"},
};

const char* find(int code, std::span<const ResultMeaning> table) {
  for (const auto& entry : table)
    if (entry.code == code) return entry.text;
  return nullptr;
}

}  // namespace

const char* result_text(int code, std::span<const ResultMeaning> family) {
  if (const char* text = find(code, family)) return text;
  if (const char* text = find(code, kCommon)) return text;
  return code > 0 ? "success (a count)" : "unknown result code";
}

std::string describe_result(int code, std::span<const ResultMeaning> family) {
  return std::to_string(code) + " (" + result_text(code, family) + ")";
}

}  // namespace varnel_cli
